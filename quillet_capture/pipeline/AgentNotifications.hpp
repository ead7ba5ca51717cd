#pragma once

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/platform/DesktopNotifier.hpp"
#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quillet {

/// How long the desktop notifications of one kind gather: until `quiet` has passed without
/// another event of the kind, and at most `longest` after the first.
struct NotificationTiming {
    std::chrono::milliseconds quiet{10'000};
    std::chrono::milliseconds longest{120'000};
};

/// What the running agent tells the person on the desktop, and when: the captures' progress
/// (a recording sent, a transcript ready or failed) and every notice of `EnvironmentCheck`
/// that reaches its listener (the person is needed, or no longer). Events of one kind that
/// come close together are shown as one notification: a kind's notification waits until
/// `Timing::quiet` has passed without another event of its kind, or `Timing::longest` since
/// the first, and then says how many there were. A capture sent, or failed for the same
/// reason, again is not shown again. Each notification shown is also logged ("[quillet]
/// notification: <title> -- <body>"). Whether it is shown is decided when it is due, by the
/// settings in effect then: `notifications` for all, `notifyVoiceMemoSent`,
/// `notifyTranscriptReady` and `notifyTranscriptFailed` for the captures' progress. Any thread.
class AgentNotifications {
public:
    /// What a notification is about; each kind gathers its events on its own.
    enum class Kind { recordingSent, transcriptReady, transcriptFailed, attention };

    using Timing = NotificationTiming;

    /// The settings in effect at the moment of asking.
    using SettingsSource = std::function<std::shared_ptr<const Settings>()>;
    /// Asks for `flushDue` to run after the delay given (the agent arms a timer); replaces the
    /// previous request.
    using Wake = std::function<void(std::chrono::milliseconds)>;

    /// The agent's: the platform's notifier, the agent's settings, the system clock, a timer
    /// on the utility executor.
    static AgentNotifications& shared();

    /// Replaces the timing of the instance that `shared` makes; only for tests of the whole
    /// agent. Main thread, before the first call of `shared`.
    static void setSharedTiming(Timing timing);

    /// Shows through `notifier`, by the settings of `settings`, in the time of `clock` (which
    /// must outlive it). Without `wake`, nothing is shown until `flushDue` is called.
    AgentNotifications(DesktopNotifier& notifier, SettingsSource settings, runtime::Clock& clock, Timing timing = {},
                       Wake wake = {});
    ~AgentNotifications();

    AgentNotifications(const AgentNotifications&) = delete;
    AgentNotifications& operator=(const AgentNotifications&) = delete;

    /// Becomes `EnvironmentCheck`'s listener. Before the agent's first poll.
    void listen();

    /// A capture's progress, as the pipeline reports it.
    void captureEvent(const CapturePipeline::CaptureEvent& event);

    /// A notice raised or resolved (what the `EnvironmentCheck` listener hears).
    void notice(const EnvironmentCheck::Notice& notice);

    /// Shows (or, by the settings, drops) each kind whose time has come, and asks to be woken
    /// for the next.
    void flushDue();

    /// When the next kind is due; nothing when none waits.
    std::optional<runtime::Clock::TimePoint> nextDue() const;

    // The notices of causes that only the person can mend, raised (and resolved) through
    // `EnvironmentCheck`, each once per cause.

    /// The service refused the device token: captures wait (`needs_pairing`) for a new pair.
    static void tokenRefused();
    /// A token that the service has not refused is there again.
    static void tokenAccepted();
    /// The service will not transcribe on the person's plan (HTTP 402, or the status
    /// "paywalled"); `detail` is what it said.
    static void planRequired(const std::string& detail);
    /// The vault's inbox is not there (moved away, its volume not mounted) / is there again.
    static void vaultGone(const std::filesystem::path& vault);
    static void vaultBack(const std::filesystem::path& vault);
    /// A failure of the capture `id` for `reason` was recorded (`givenUp`: it now waits for
    /// `retry`): raises the notice of what the person must do, when there is one (the
    /// capture waits for `retry`, its note must be fixed, `vault`'s inbox cannot be written).
    static void failureNoted(const std::string& id, const std::string& reason, bool givenUp,
                             const std::filesystem::path& vault);
    /// A Voice Memos recording has waited more than a day for its audio to come from iCloud.
    static void voiceMemoWaiting(const std::string& uniqueId, const std::string& title);

private:
    struct Item {
        std::string title;
        std::string body;
        std::string subject;  // the capture id, or the notice's title
    };
    struct Pending {
        std::vector<Item> items;
        runtime::Clock::TimePoint first;
        runtime::Clock::TimePoint last;
    };
    struct Shown {
        Kind kind;
        std::string title;
        std::string body;
    };

    void add(Kind kind, Item item);
    runtime::Clock::TimePoint dueOf(const Pending& pending) const;
    void wakeLocked();
    static Shown merged(Kind kind, const std::vector<Item>& items);
    bool allowed(Kind kind) const;

    DesktopNotifier& notifier_;
    SettingsSource settings_;
    runtime::Clock& clock_;
    Timing timing_;
    Wake wake_;

    mutable std::mutex lock_;
    std::map<Kind, Pending> pending_;
    std::set<std::string> sent_;                    // captures shown as sent, until their transcript
    std::map<std::string, std::string> failed_;     // captures shown as failed, with the reason
};

} // namespace quillet
