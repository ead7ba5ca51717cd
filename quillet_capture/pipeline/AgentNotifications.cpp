#include "quillet_capture/pipeline/AgentNotifications.hpp"

#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/runtime/Timer.hpp"

#include <unistd.h>

#include <algorithm>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

namespace {

AgentNotifications::Timing sharedTiming;

// A summary names the first few captures; a burst of a hundred is said in a number.
constexpr std::size_t kNamed = 3;

std::string listed(const std::vector<std::string>& subjects)
{
    std::string text;
    for (std::size_t i = 0; i < subjects.size() && i < kNamed; ++i) {
        text += (i == 0 ? "" : ", ") + subjects[i];
    }
    if (subjects.size() > kNamed) {
        text += " and " + std::to_string(subjects.size() - kNamed) + " more";
    }
    return text;
}

std::string failureText(const std::string& status)
{
    if (status == "upload_failed") {
        return "the upload to Veldane failed; it is tried again by itself.";
    }
    if (status == "failed") {
        return "Veldane could not transcribe it.";
    }
    if (status == "poll_timeout") {
        return "Veldane did not finish it in time; it is tried again by itself.";
    }
    if (status == CaptureRecovery::noteUnreadable) {
        return "its note does not parse, so the transcript waits beside it.";
    }
    return "it ended as " + status + ".";
}

} // namespace

AgentNotifications& AgentNotifications::shared()
{
    // Never destroyed: capture tasks may report while the process ends.
    static auto* made = [] {
        struct Waker {
            std::mutex lock;
            std::unique_ptr<runtime::Timer> timer;
        };
        static auto* waker = new Waker;
        return new AgentNotifications(
            DesktopNotifier::system(), [] { return AgentSettings::shared().current(); }, runtime::systemClock(),
            sharedTiming, [](std::chrono::milliseconds delay) {
                std::lock_guard guard(waker->lock);
                waker->timer = runtime::Timer::once(runtime::utilityExecutor(), delay,
                                                    [] { AgentNotifications::shared().flushDue(); });
            });
    }();
    return *made;
}

void AgentNotifications::setSharedTiming(Timing timing)
{
    sharedTiming = timing;
}

AgentNotifications::AgentNotifications(DesktopNotifier& notifier, SettingsSource settings, runtime::Clock& clock,
                                       Timing timing, Wake wake)
    : notifier_(notifier)
    , settings_(std::move(settings))
    , clock_(clock)
    , timing_(timing)
    , wake_(std::move(wake))
{
}

AgentNotifications::~AgentNotifications() = default;

void AgentNotifications::listen()
{
    EnvironmentCheck::setListener([this](const EnvironmentCheck::Notice& raised) { notice(raised); });
}

void AgentNotifications::captureEvent(const CapturePipeline::CaptureEvent& event)
{
    using EventKind = CapturePipeline::CaptureEvent::Kind;
    switch (event.kind) {
    case EventKind::sent: {
        {
            std::lock_guard guard(lock_);
            if (!sent_.insert(event.id).second) {
                return;
            }
        }
        add(Kind::recordingSent,
            {"Recording sent to Veldane", event.id + ": its transcript follows when Veldane has made it.", event.id});
        return;
    }
    case EventKind::transcriptReady: {
        {
            std::lock_guard guard(lock_);
            sent_.erase(event.id);
            failed_.erase(event.id);
        }
        // What the person was asked to do for this capture is done.
        EnvironmentCheck::clearNotifyOnce("capture-waits-for-retry-" + event.id);
        EnvironmentCheck::clearNotifyOnce("note-unreadable-" + event.id);
        // A transcript came: a later refusal for the plan is news again.
        EnvironmentCheck::clearNotifyOnce("veldane-plan-required");
        add(Kind::transcriptReady, {"Transcript ready", event.id + ": its note has the transcript.", event.id});
        return;
    }
    case EventKind::failed: {
        {
            std::lock_guard guard(lock_);
            auto [known, added] = failed_.try_emplace(event.id, event.status);
            if (!added && known->second == event.status) {
                return;
            }
            known->second = event.status;
        }
        add(Kind::transcriptFailed, {"Transcript failed", event.id + ": " + failureText(event.status), event.id});
        return;
    }
    }
}

void AgentNotifications::notice(const EnvironmentCheck::Notice& notice)
{
    add(Kind::attention, {notice.title, notice.body, notice.title});
}

void AgentNotifications::add(Kind kind, Item item)
{
    std::lock_guard guard(lock_);
    const auto now = clock_.now();
    auto& pending = pending_[kind];
    if (pending.items.empty()) {
        pending.first = now;
    }
    pending.last = now;
    pending.items.push_back(std::move(item));
    wakeLocked();
}

runtime::Clock::TimePoint AgentNotifications::dueOf(const Pending& pending) const
{
    return std::min(pending.last + timing_.quiet, pending.first + timing_.longest);
}

std::optional<runtime::Clock::TimePoint> AgentNotifications::nextDue() const
{
    std::lock_guard guard(lock_);
    std::optional<runtime::Clock::TimePoint> next;
    for (const auto& [kind, pending] : pending_) {
        if (!next || dueOf(pending) < *next) {
            next = dueOf(pending);
        }
    }
    return next;
}

void AgentNotifications::wakeLocked()
{
    if (!wake_ || pending_.empty()) {
        return;
    }
    auto next = dueOf(pending_.begin()->second);
    for (const auto& [kind, pending] : pending_) {
        next = std::min(next, dueOf(pending));
    }
    auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(next - clock_.now());
    wake_(std::max(delay, std::chrono::milliseconds(0)));
}

void AgentNotifications::flushDue()
{
    std::vector<Shown> due;
    {
        std::lock_guard guard(lock_);
        const auto now = clock_.now();
        for (auto it = pending_.begin(); it != pending_.end();) {
            if (dueOf(it->second) <= now) {
                due.push_back(merged(it->first, it->second.items));
                it = pending_.erase(it);
            } else {
                ++it;
            }
        }
        wakeLocked();
    }
    for (const auto& shown : due) {
        // The settings of now: a switch turned off while the events gathered holds.
        if (!allowed(shown.kind)) {
            continue;
        }
        rlog("[quillet] notification: %@ -- %@", shown.title, shown.body);
        notifier_.post(shown.title, shown.body);
    }
}

bool AgentNotifications::allowed(Kind kind) const
{
    auto settings = settings_ ? settings_() : nullptr;
    if (!settings) {
        return true;
    }
    if (!settings->notifications()) {
        return false;
    }
    switch (kind) {
    case Kind::recordingSent:
        return settings->notifyVoiceMemoSent();
    case Kind::transcriptReady:
        return settings->notifyTranscriptReady();
    case Kind::transcriptFailed:
        return settings->notifyTranscriptFailed();
    case Kind::attention:
        return true;
    }
    return true;
}

AgentNotifications::Shown AgentNotifications::merged(Kind kind, const std::vector<Item>& items)
{
    if (items.size() == 1) {
        return {kind, items.front().title, items.front().body};
    }
    const std::string count = std::to_string(items.size());
    std::vector<std::string> subjects;
    for (const auto& item : items) {
        subjects.push_back(item.subject);
    }
    switch (kind) {
    case Kind::recordingSent:
        return {kind, count + " recordings sent to Veldane",
                listed(subjects) + ": their transcripts follow when Veldane has made them."};
    case Kind::transcriptReady:
        return {kind, count + " transcripts ready", listed(subjects) + ": each note has its transcript."};
    case Kind::transcriptFailed:
        return {kind, count + " transcripts failed",
                listed(subjects) + ". quillet-capture status tells why; most are tried again by themselves."};
    case Kind::attention:
        break;
    }
    const bool alike = std::all_of(items.begin(), items.end(),
                                   [&](const Item& item) { return item.title == items.front().title; });
    if (alike) {
        std::string body;
        for (const auto& item : items) {
            body += (body.empty() ? "" : " ") + item.body;
        }
        return {kind, items.front().title + " (" + count + ")", body};
    }
    std::string titles;
    for (const auto& item : items) {
        titles += (titles.empty() ? "" : "; ") + item.title;
    }
    return {kind, count + " notices from quillet-capture", titles};
}

void AgentNotifications::tokenRefused()
{
    EnvironmentCheck::notifyOnce("veldane-token-refused", "Pair quillet-capture again",
                                 "Veldane refused this device's token. Run quillet-capture pair; the captures waiting "
                                 "for it go on by themselves.");
}

void AgentNotifications::tokenAccepted()
{
    EnvironmentCheck::resolve("veldane-token-refused", "Paired again",
                              "The captures that waited for a new pair go on.");
}

void AgentNotifications::planRequired(const std::string& detail)
{
    EnvironmentCheck::notifyOnce("veldane-plan-required", "Veldane plan required",
                                 (detail.empty() ? std::string("Veldane will not transcribe on your plan.") : detail) +
                                     " The recordings stay in the vault; quillet-capture retry sends them again.");
}

void AgentNotifications::vaultGone(const fs::path& vault)
{
    EnvironmentCheck::notifyOnce("vault-gone-" + vault.string(), "Vault not found",
                                 vault.string() + " is not there (moved, or its disk not mounted). Captures wait "
                                                  "until it is back.");
}

void AgentNotifications::vaultBack(const fs::path& vault)
{
    EnvironmentCheck::resolve("vault-gone-" + vault.string(), "Vault found again",
                              vault.string() + " is back; the captures that waited go on.");
}

void AgentNotifications::failureNoted(const std::string& id, const std::string& reason, bool givenUp,
                                      const fs::path& vault)
{
    if (givenUp) {
        EnvironmentCheck::notifyOnce("capture-waits-for-retry-" + id, "Capture waits for retry",
                                     id + " failed in Veldane " + std::to_string(CaptureRecovery::maxServiceFailures + 1) +
                                         " times. Run quillet-capture retry to send it again.");
    }
    if (reason == CaptureRecovery::noteUnreadable) {
        EnvironmentCheck::notifyOnce("note-unreadable-" + id, "A note needs fixing",
                                     id + ": its frontmatter does not parse. The transcript waits beside the note and "
                                          "is written in once the note is fixed.");
    }
    if (reason == "copy_failed") {
        // A copy fails for many reasons; the person is asked only when the vault refuses writes.
        std::error_code error;
        auto inbox = vault / "_inbox";
        auto target = fs::exists(inbox, error) ? inbox : vault;
        if (fs::exists(target, error) && ::access(target.c_str(), W_OK) != 0) {
            EnvironmentCheck::notifyOnce("vault-not-writable-" + vault.string(), "Vault not writable",
                                         "quillet-capture cannot write in " + target.string() +
                                             ". Give it write permission; the captures are tried again by "
                                             "themselves.");
        }
    }
}

void AgentNotifications::voiceMemoWaiting(const std::string& uniqueId, const std::string& title)
{
    EnvironmentCheck::notifyOnce("voice-memo-waiting-" + uniqueId, "Voice Memos recording not downloaded",
                                 "\"" + title + "\" has waited more than a day for its audio to come from iCloud. "
                                                "Open Voice Memos so that it downloads; it is captured then.");
}

} // namespace quillet
