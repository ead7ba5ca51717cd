#include "quillet_capture/capture/CaptureCoordinator.hpp"

#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/pipeline/CaptureStatus.hpp"

namespace quillet {

namespace {

const char* const kNoticeKinds[] = {"denied", "empty", "missing"};

std::string noticeKind(const CaptureAccess::State& state)
{
    switch (state.kind()) {
    case CaptureAccess::State::Kind::denied:
        return "denied";
    case CaptureAccess::State::Kind::empty:
        return "empty";
    case CaptureAccess::State::Kind::missing:
        return "missing";
    default:
        return "";
    }
}

std::string joined(const std::vector<FolderWatcher>& watchers)
{
    std::string names;
    for (const auto& watcher : watchers) {
        if (!names.empty()) {
            names += ", ";
        }
        names += watcher.folder().displayName;
    }
    return names;
}

std::chrono::milliseconds sharedFirstTick = std::chrono::seconds(2);
std::chrono::milliseconds sharedInterval = std::chrono::seconds(30);

} // namespace

void CaptureCoordinator::setSharedTiming(std::chrono::milliseconds firstTick, std::chrono::milliseconds interval)
{
    sharedFirstTick = firstTick;
    sharedInterval = interval;
}

CaptureCoordinator& CaptureCoordinator::shared()
{
    // Never destroyed: its queue may be running while the process ends.
    static auto* coordinator = new CaptureCoordinator(
        [] { return AgentSettings::shared().current()->enabledWatchedFolders(); }, CaptureStateStore::shared(),
        Reports{
            [](const CaptureAccess::State& state) { CaptureStatus::shared().updateAccess(state); },
            [](int count) { CaptureStatus::shared().poll(count); },
        },
        runtime::systemClock(), {}, sharedFirstTick, sharedInterval, &CaptureIntake::shared(),
        &CaptureIdentities::shared());
    return *coordinator;
}

CaptureCoordinator::CaptureCoordinator(FolderSource folders, CaptureStateStore& store, Reports reports,
                                       runtime::Clock& clock, CaptureGuards::Probes probes,
                                       std::chrono::milliseconds firstTick, std::chrono::milliseconds interval,
                                       CaptureIntake* intake, CaptureIdentities* identities)
    : queue_("quillet.capture.coordinator")
    , folders_(std::move(folders))
    , store_(store)
    , reports_(std::move(reports))
    , clock_(clock)
    , probes_(std::move(probes))
    , firstTick_(firstTick)
    , interval_(interval)
    , intake_(intake)
    , identities_(identities)
{
}

CaptureCoordinator::~CaptureCoordinator()
{
    queue_.sync([this] {
        stopTimer();
        watchers_.clear();
        alive_.reset();
    });
}

void CaptureCoordinator::setOnNewCapture(std::function<void(const FolderWatcher::NewCapture&)> handler)
{
    queue_.sync([&] { onNewCapture_ = std::move(handler); });
}

void CaptureCoordinator::setVault(FolderWatcher::Vault vault)
{
    queue_.sync([&] { vault_ = std::move(vault); });
}

void CaptureCoordinator::followSettings(std::filesystem::path folder, std::function<bool()> check)
{
    queue_.sync([&] {
        settingsFolder_ = std::move(folder);
        settingsCheck_ = std::move(check);
    });
}

void CaptureCoordinator::start()
{
    queue_.async([this, alive = std::weak_ptr(alive_)] {
        if (alive.lock()) {
            startOnQueue();
        }
    });
}

void CaptureCoordinator::stop()
{
    queue_.async([this, alive = std::weak_ptr(alive_)] {
        if (!alive.lock()) {
            return;
        }
        stopTimer();
        watchers_.clear();
        rlog("[quillet] capture: coordinator stopped");
    });
}

void CaptureCoordinator::reload()
{
    queue_.async([this, alive = std::weak_ptr(alive_)] {
        if (!alive.lock()) {
            return;
        }
        stopTimer();
        watchers_.clear();
        hasInitialised_ = false;
        startOnQueue();
    });
}

void CaptureCoordinator::stopTimer()
{
    if (timer_) {
        timer_->cancel();
        timer_.reset();
    }
    early_.reset();
    events_.reset();
    settingsSoon_.reset();
    settingsEvents_.reset();
}

void CaptureCoordinator::requestSettingsCheck()
{
    if (!timer_ || settingsSoon_) {
        return;
    }
    settingsSoon_ = runtime::Timer::once(queue_.executor(), eventDelay, [this, alive = std::weak_ptr(alive_)] {
        if (alive.lock()) {
            settingsSoon_.reset();
            checkSettings();
        }
    });
}

void CaptureCoordinator::checkSettings()
{
    if (settingsCheck_ && settingsCheck_()) {
        refreshFolders();
    }
    if (timer_ && settingsCheck_ && !settingsFolder_.empty()) {
        // Events only wake the check; the one at every tick stays the truth.
        if (!settingsEvents_) {
            settingsEvents_ = std::make_unique<FolderEvents>(queue_.executor(), [this] { requestSettingsCheck(); });
        }
        settingsEvents_->watch({settingsFolder_});
    }
}

void CaptureCoordinator::refreshFolders()
{
    auto folders = folders_();
    std::vector<WatchedFolder> current;
    for (const auto& watcher : watchers_) {
        current.push_back(watcher.folder());
    }
    if (folders == current) {
        return;
    }
    watchers_.clear();
    for (auto& folder : folders) {
        watchers_.emplace_back(std::move(folder), store_, true, clock_, probes_, intake_, vault_, std::filesystem::path(),
                               identities_);
    }
    // A folder watched for the first time has its recordings from before now indexed, never
    // captured; for the others this costs one look at the store.
    for (auto& watcher : watchers_) {
        watcher.runInitialIndex();
    }
    if (watchers_.empty()) {
        rlog("[quillet] capture: no folders enabled; nothing is watched until the settings enable one");
    } else {
        rlog("[quillet] capture: watched folders now %@", joined(watchers_));
    }
    if (timer_) {
        watchFolders();
    }
}

void CaptureCoordinator::requestTick()
{
    queue_.async([this, alive = std::weak_ptr(alive_)] {
        if (!alive.lock() || !timer_ || early_) {
            return;
        }
        early_ = runtime::Timer::once(queue_.executor(), eventDelay, [this, alive = std::weak_ptr(alive_)] {
            if (alive.lock()) {
                tick();
            }
        });
    });
}

std::vector<std::filesystem::path> CaptureCoordinator::eventFolders() const
{
    return events_ ? events_->watched() : std::vector<std::filesystem::path>{};
}

void CaptureCoordinator::watchFolders()
{
    if (!events_) {
        events_ = std::make_unique<FolderEvents>(queue_.executor(), [this] { requestTick(); });
    }
    std::vector<std::filesystem::path> folders;
    for (const auto& watcher : watchers_) {
        if (watcher.folder().enabled) {
            folders.push_back(watcher.folder().url());
        }
    }
    events_->watch(folders);
}

void CaptureCoordinator::startOnQueue()
{
    if (timer_) {
        return;
    }
    watchers_.clear();
    for (auto& folder : folders_()) {
        watchers_.emplace_back(std::move(folder), store_, true, clock_, probes_, intake_, vault_, std::filesystem::path(),
                               identities_);
    }
    if (watchers_.empty()) {
        rlog("[quillet] capture: no folders enabled; coordinator idle");
        return;
    }
    if (!hasInitialised_) {
        for (auto& watcher : watchers_) {
            watcher.runInitialIndex();
        }
        hasInitialised_ = true;
    }
    timer_ = runtime::Timer::repeating(queue_.executor(), firstTick_, interval_,
                                       [this, alive = std::weak_ptr(alive_)] {
                                           if (alive.lock()) {
                                               tick();
                                           }
                                       });
    rlog("[quillet] capture: coordinator started (poll=%ds, folders=%@)",
         static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(interval_).count()),
         joined(watchers_));
}

void CaptureCoordinator::tick()
{
    // This tick answers every change before it, whatever brought it.
    early_.reset();
    ++ticks_;
    // Before the polls: a recording found by this tick goes where the settings now say.
    checkSettings();
    int total = 0;
    for (auto& watcher : watchers_) {
        const auto& folder = watcher.folder();
        // One listing gives the access state and the files to poll.
        auto listed = watcher.listing();
        const auto& state = listed.state;
        auto last = lastStates_.find(folder.id);
        if (last == lastStates_.end() || !(last->second == state)) {
            const bool wasReadable = last != lastStates_.end() &&
                                     (last->second.isUsable() || last->second.kind() == CaptureAccess::State::Kind::empty);
            lastStates_.insert_or_assign(folder.id, state);
            rlog("[quillet] capture: [%@] access -> %@", folder.displayName, state.summary(folder.displayName));
            if (folder.isVoiceMemos() && reports_.updateAccess) {
                reports_.updateAccess(state);
            }
            std::string prefix = "capture-access-" + folder.id + "-";
            const bool readable = state.isUsable() || state.kind() == CaptureAccess::State::Kind::empty;
            for (const char* kind : kNoticeKinds) {
                if (kind == noticeKind(state)) {
                    continue;
                }
                // A folder readable again is news for the person; one lost in another way only
                // replaces the notice it had.
                if (readable) {
                    EnvironmentCheck::resolve(prefix + kind, folder.displayName + " can be read again",
                                              state.summary(folder.displayName));
                } else {
                    EnvironmentCheck::clearNotifyOnce(prefix + kind);
                }
            }
            if (state.needsAttention()) {
                // The person is told of access refused, and of a folder that was there and is
                // gone; a folder without recordings yet is how a new one starts, and one that was
                // never there is how the Voice Memos folder is on a computer without it: those are
                // logged, not shown.
                using Kind = CaptureAccess::State::Kind;
                const bool lost = state.kind() == Kind::denied || (state.kind() == Kind::missing && wasReadable);
                auto reach = lost ? EnvironmentCheck::Reach::listener : EnvironmentCheck::Reach::logOnly;
                EnvironmentCheck::notifyOnce(prefix + noticeKind(state), state.summary(folder.displayName),
                                             state.explanation(folder.displayName, folder.isVoiceMemos()), reach);
            }
        }
        if (state.isUsable() || state.kind() == CaptureAccess::State::Kind::empty) {
            auto captures = watcher.poll(listed);
            for (const auto& capture : captures) {
                if (onNewCapture_) {
                    onNewCapture_(capture);
                }
            }
            total += static_cast<int>(captures.size());
        }
    }
    if (reports_.recordPoll) {
        reports_.recordPoll(total);
    }
    // After the first tick (changes before it are the first tick's), and again at every one:
    // a folder that appeared, came back or was replaced is watched from now on.
    if (timer_) {
        watchFolders();
    }
}

} // namespace quillet
