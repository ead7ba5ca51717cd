#pragma once

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "quillet_capture/runtime/Timer.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace quillet {

/// A small summary of the vault inbox and of the watcher's activity. Counting runs every 30
/// seconds on the serial queue "quillet.capture.status"; the published values change only on
/// the main event loop, in the order the changes were submitted. Reading them is safe from
/// any thread.
class CaptureStatus {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// The notes of the inbox counted by job status.
    struct Snapshot {
        int pending = 0;     // no status, or any word not counted below
        int processing = 0;  // "processing"
        int done = 0;        // "done"
        int failed = 0;      // "upload_failed", "failed", "poll_timeout", "paywalled"
        int totalToday = 0;  // notes created since the start of the local day
        std::optional<std::string> mostRecentTitle;
        std::optional<std::string> mostRecentId;
        bool operator==(const Snapshot&) const = default;
    };

    /// Runs `change` where the published values change (the main event loop in the agent).
    using Publisher = std::function<void(std::function<void()> change)>;

    /// The agent's instance: the inbox of the settings, published on the main event loop.
    static CaptureStatus& shared();

    /// A status over the inbox folder that `inbox` names at each refresh.
    CaptureStatus(std::function<std::filesystem::path()> inbox, Publisher publish,
                  std::chrono::milliseconds firstRefresh = std::chrono::seconds(1),
                  std::chrono::milliseconds interval = std::chrono::seconds(30));
    ~CaptureStatus();

    /// Starts the refresh timer (first after a second, then every 30 seconds). Any thread.
    void start();
    /// Cancels the timer; a refresh already queued may still run once. Any thread.
    void stop();
    /// Queues a refresh on the status queue and returns.
    void refresh();

    /// After each poll of the folders: sets `lastPoll` to now, and `lastNewCapture` too when
    /// `newCaptures` is 1 or more. Any thread; published on the main loop.
    void poll(int newCaptures);
    /// The latest access state of the Voice Memos folder. Any thread; published on the main loop.
    void updateAccess(const CaptureAccess::State& state);

    Snapshot snapshot() const;
    std::optional<CaptureAccess::State> access() const;
    std::optional<TimePoint> lastPoll() const;
    std::optional<TimePoint> lastNewCapture() const;

    /// Counts the notes of `inbox` as of `now` (the refresh's work, exposed for tests and for
    /// the status command). A missing inbox gives zeros.
    static Snapshot count(const std::filesystem::path& inbox, TimePoint now);

    runtime::SerialQueue& queue() { return queue_; }

private:
    void publish(std::function<void()> change);

    runtime::SerialQueue queue_;
    std::function<std::filesystem::path()> inbox_;
    Publisher publish_;
    std::chrono::milliseconds firstRefresh_;
    std::chrono::milliseconds interval_;
    std::unique_ptr<runtime::Timer> timer_;
    std::mutex timerLock_;

    mutable std::mutex valuesLock_;
    Snapshot snapshot_;
    std::optional<CaptureAccess::State> access_;
    std::optional<TimePoint> lastPoll_;
    std::optional<TimePoint> lastNewCapture_;
};

} // namespace quillet
