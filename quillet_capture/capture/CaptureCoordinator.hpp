#pragma once

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/capture/FolderWatcher.hpp"
#include "quillet_capture/platform/FolderEvents.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "quillet_capture/runtime/Timer.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quillet {

/// Polls every enabled watched folder on a timer, logs changes of each folder's access,
/// raises or clears the once-only notices about it, and hands each new recording to one
/// subscriber. A change in a watched folder (a file-system event) brings a tick forward; the
/// timer's ticks stay as they are, and the polls remain the truth. All of its state, its
/// watchers and the subscriber's calls live on the serial queue "quillet.capture.coordinator".
class CaptureCoordinator {
public:
    static constexpr double pollInterval = 30.0;
    /// How long after a folder's change its tick comes: the changes of a burst (a file copied
    /// in several steps, many files at once) share one tick.
    static constexpr std::chrono::milliseconds eventDelay{200};

    /// Where the coordinator reports what it saw (the capture status in the agent).
    struct Reports {
        std::function<void(const CaptureAccess::State&)> updateAccess;
        std::function<void(int newCaptures)> recordPoll;
    };

    /// The enabled watched folders at the moment of asking.
    using FolderSource = std::function<std::vector<WatchedFolder>()>;

    /// The agent's coordinator: enabled folders from the settings, the shared state store,
    /// reports to the shared capture status.
    static CaptureCoordinator& shared();

    /// Replaces the first tick and the interval of the coordinator that `shared` makes; only
    /// for tests of the whole agent, which cannot wait 30 seconds per poll. Main thread,
    /// before the first call of `shared`.
    static void setSharedTiming(std::chrono::milliseconds firstTick, std::chrono::milliseconds interval);

    /// A coordinator over `folders` and `store`. The timer fires `firstTick` after start and
    /// then every `interval`; `clock`, `probes`, `intake` and `identities` go to the watchers
    /// (with `identities`, the Voice Memos folder's watcher reads the Voice Memos library).
    CaptureCoordinator(FolderSource folders, CaptureStateStore& store, Reports reports,
                       runtime::Clock& clock = runtime::systemClock(), CaptureGuards::Probes probes = {},
                       std::chrono::milliseconds firstTick = std::chrono::seconds(2),
                       std::chrono::milliseconds interval = std::chrono::seconds(30),
                       CaptureIntake* intake = nullptr, CaptureIdentities* identities = nullptr);
    ~CaptureCoordinator();

    /// Sets the one subscriber, called on the coordinator's queue for each new recording; it
    /// must return quickly. Set it before `start`.
    void setOnNewCapture(std::function<void(const FolderWatcher::NewCapture&)> handler);

    /// Sets what the watchers ask of the vault (see `FolderWatcher::runInitialIndex` and
    /// `FolderWatcher::poll`). Set it before `start`.
    void setVault(FolderWatcher::Vault vault);

    /// Has the coordinator follow the settings: `check` runs on the queue before every tick's
    /// polls and soon (`eventDelay`) after a change among the entries of `folder`; when it
    /// returns true, the watched folders are taken from the folder source again and watchers
    /// are started and stopped to match. Set it before `start`.
    void followSettings(std::filesystem::path folder, std::function<bool()> check);

    /// Each returns at once; the work runs on the queue.
    void start();
    void stop();
    void reload();

    /// One poll of every watcher. Runs on the queue (tests call it through `queue().sync`).
    void tick();

    /// Asks for a tick `eventDelay` from now, unless one is asked for already; nothing while
    /// the coordinator is stopped. What a watched folder's events call. Any thread.
    void requestTick();

    /// How many ticks have run. Call on the queue.
    int tickCount() const { return ticks_; }

    /// The folders whose changes bring a tick forward now. Call on the queue.
    std::vector<std::filesystem::path> eventFolders() const;

    /// True while the timer exists. Call on the queue.
    bool isRunning() const { return timer_ != nullptr; }

    runtime::SerialQueue& queue() { return queue_; }

private:
    void startOnQueue();
    void stopTimer();
    /// Watches the enabled folders for changes again: those that appeared or were replaced
    /// since the last tick, and no others.
    void watchFolders();
    /// Runs the settings check now; on a change, makes the watchers match the folder source.
    void checkSettings();
    /// Asks for a settings check `eventDelay` from now, unless one is asked for already.
    void requestSettingsCheck();
    /// Watchers for the folders the source gives now, when they are not the ones there are.
    void refreshFolders();

    // The queue goes last, so that the timer and watchers are gone before its thread stops.
    runtime::SerialQueue queue_;
    FolderSource folders_;
    CaptureStateStore& store_;
    Reports reports_;
    runtime::Clock& clock_;
    CaptureGuards::Probes probes_;
    std::chrono::milliseconds firstTick_;
    std::chrono::milliseconds interval_;
    CaptureIntake* intake_;
    CaptureIdentities* identities_;
    std::unique_ptr<runtime::Timer> timer_;
    std::unique_ptr<FolderEvents> events_;
    /// The tick asked for by a change, until it runs.
    std::unique_ptr<runtime::Timer> early_;
    int ticks_ = 0;
    std::vector<FolderWatcher> watchers_;
    bool hasInitialised_ = false;
    std::map<std::string, CaptureAccess::State> lastStates_;
    std::function<void(const FolderWatcher::NewCapture&)> onNewCapture_;
    FolderWatcher::Vault vault_;
    std::filesystem::path settingsFolder_;
    std::function<bool()> settingsCheck_;
    std::unique_ptr<FolderEvents> settingsEvents_;
    /// The settings check asked for by a change of the settings folder, until it runs.
    std::unique_ptr<runtime::Timer> settingsSoon_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace quillet
