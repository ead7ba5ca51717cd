#include "quillet_capture/cli/StatusReport.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace quillet {

namespace {

using ordered_json = nlohmann::ordered_json;

std::string onOff(bool on)
{
    return on ? "on" : "off";
}

std::string libraryLine(const StatusReport::Library& library)
{
    std::string line = library.summary;
    if (!library.waitingForDownload) {
        return line;
    }
    line += ", " + std::to_string(*library.waitingForDownload) + " waiting for download";
    if (library.oldestWaiting) {
        line += " (oldest recorded " + Iso8601::format(*library.oldestWaiting).substr(0, 10) + ")";
    }
    return line + ", " + std::to_string(library.recentlyDeleted.value_or(0)) + " in Recently Deleted";
}

template <typename T>
ordered_json orNull(const std::optional<T>& value)
{
    return value ? ordered_json(*value) : ordered_json(nullptr);
}

ordered_json dateOrNull(const std::optional<StatusReport::TimePoint>& time)
{
    return time ? ordered_json(Iso8601::format(*time)) : ordered_json(nullptr);
}

std::string stateWord(StatusReport::Inbox::State state)
{
    switch (state) {
    case StatusReport::Inbox::State::missing:
        return "missing";
    case StatusReport::Inbox::State::unreadable:
        return "unreadable";
    case StatusReport::Inbox::State::listed:
        break;
    }
    return "listed";
}

} // namespace

std::string StatusReport::Inbox::text() const
{
    if (state == State::missing) {
        return "no _inbox yet";
    }
    if (state == State::unreadable) {
        return "cannot read _inbox (" + error + ")";
    }
    std::string summary = std::to_string(transcribed) + " transcribed, " + std::to_string(inProgress) +
                          " in progress, " + std::to_string(other) + " other";
    if (canBeSent >= 1 && !agentWorking) {
        summary += " -- " + std::to_string(canBeSent) + " can be sent with: quillet-capture retry";
    }
    if (waitingForPairing >= 1) {
        summary += " -- " + std::to_string(waitingForPairing) +
                   " wait because Veldane refused this device's token: run quillet-capture pair";
    }
    return summary;
}

std::string StatusReport::text() const
{
    std::string text;
    auto line = [&text](const std::string& content = "") { text += content + "\n"; };

    line("quillet-capture " + version);
    line("  program:     " + program);
    line("  config:      " + settingsFile + (settingsMissing ? "  (missing -- run setup)" : ""));
    line("  vault:       " + vault);
    for (const auto& folder : folders) {
        line("  folder:      " + folder.name + " " + onOff(folder.enabled) + " -- " + folder.path);
        if (folder.library) {
            line("  library:     " + libraryLine(*folder.library));
        }
    }
    line("  upload:      " + onOff(upload));
    line("  after a transcript: " + afterTranscript.value_or("off"));
    switch (pairing) {
    case Pairing::paired:
        line("  paired:      yes (" + tokenPrefix + "...)");
        break;
    case Pairing::noTokenInKeychain:
        line("  paired:      no token readable here -- run pair (over SSH the keychain is locked; the agent can "
             "still read it)");
        break;
    case Pairing::tokenFileUnreadable:
        line("  paired:      no token readable here -- run pair (" + unreadableTokenFile + " cannot be read)");
        break;
    case Pairing::noToken:
        line("  paired:      no token readable here -- run pair");
        break;
    }
    // Outside macOS Voice Memos exists only as a folder copied from a Mac: the line is shown
    // when such a folder is watched.
    bool voiceMemosWatched = std::any_of(folders.begin(), folders.end(),
                                         [](const Folder& folder) { return folder.voiceMemos && folder.enabled; });
    if (platform == Platform::macOS || voiceMemosWatched) {
        line("  keep Voice Memos running: " + onOff(keepVoiceMemosRunning) +
             (voiceMemosRunning ? " (running now)" : " (not running now)"));
    }
    line(agentLine());
    line("  inbox:       " + inbox.text());
    // Failed captures that the agent tries again by itself, and those that wait for retry.
    if (recovery.waiting > 0 && recovery.next) {
        line("  tried again: " + plural(recovery.waiting, "capture") + ", next attempt at " +
             QuilletLog::stamp(*recovery.next));
    }
    if (recovery.givenUp > 0) {
        line("  failed:      " + plural(recovery.givenUp, "capture") + " the service failed " +
             std::to_string(CaptureRecovery::maxServiceFailures + 1) + " times -- run retry");
    }
    if (!recovery.unreadableNotes.empty()) {
        std::string names;
        for (const auto& id : recovery.unreadableNotes) {
            names += (names.empty() ? "" : ", ") + id + ".md";
        }
        line("  needs you:   " + plural(static_cast<int>(recovery.unreadableNotes.size()), "note") +
             " whose frontmatter does not parse (" + names + ") -- fix it; each transcript waits beside its note as "
             "<id>.transcript.md");
    }
    line();
    line(platform == Platform::macOS
             ? "Access as seen by the running capture (from the log; this Terminal has its own permissions):"
             : "Access as seen by the running capture (from the log):");
    line(log.accessLine ? "  " + *log.accessLine : "  (no access line yet)");
    line();
    line("Last log lines (" + logFile + "):");
    for (const auto& logLine : log.tail) {
        line("  " + logLine);
    }
    return text;
}

std::string StatusReport::agentLine() const
{
    if (agentPid && !agentLoaded) {
        return "  agent:       running (pid " + std::to_string(*agentPid) + ", started by hand)";
    }
    std::string label = "  " + agentName + ": ";
    if (label.size() < 15) {
        label.resize(15, ' ');
    }
    return label + (agentLoaded ? "loaded" : "not loaded -- run install");
}

nlohmann::ordered_json StatusReport::json() const
{
    ordered_json folderList = ordered_json::array();
    for (const auto& folder : folders) {
        ordered_json library = nullptr;
        if (folder.library) {
            library = {
                {"state", folder.library->state},
                {"summary", folder.library->summary},
                {"recordings", orNull(folder.library->recordings)},
                {"waitingForDownload", orNull(folder.library->waitingForDownload)},
                {"oldestWaiting", dateOrNull(folder.library->oldestWaiting)},
                {"recentlyDeleted", orNull(folder.library->recentlyDeleted)},
            };
        }
        folderList.push_back({
            {"id", folder.id},
            {"name", folder.name},
            {"kind", folder.voiceMemos ? "voiceMemos" : "folder"},
            {"path", folder.path},
            {"enabled", folder.enabled},
            {"library", std::move(library)},
        });
    }
    ordered_json tail = ordered_json::array();
    for (const auto& logLine : log.tail) {
        tail.push_back(logLine);
    }
    // The unreadable token file is named, the token never: not even the part that the text
    // report shows, since this output is made to be passed on to other programs.
    return {
        {"version", version},
        {"program", program},
        {"settingsFile", settingsFile},
        {"settingsMissing", settingsMissing},
        {"vault", vault},
        {"inbox",
         {
             {"path", inboxPath},
             {"state", stateWord(inbox.state)},
             {"error", inbox.state == Inbox::State::unreadable ? ordered_json(inbox.error) : ordered_json(nullptr)},
         }},
        {"folders", std::move(folderList)},
        {"upload", upload},
        {"afterTranscript", orNull(afterTranscript)},
        {"paired", pairing == Pairing::paired},
        {"unreadableTokenFile",
         pairing == Pairing::tokenFileUnreadable ? ordered_json(unreadableTokenFile) : ordered_json(nullptr)},
        {"voiceMemos", {{"keepRunning", keepVoiceMemosRunning}, {"running", voiceMemosRunning}}},
        {"agent",
         {
             {"name", agentName},
             {"loaded", agentLoaded},
             {"pid", orNull(agentPid)},
             {"startedByHand", agentPid.has_value() && !agentLoaded},
         }},
        {"counts",
         {
             {"transcribed", inbox.transcribed},
             {"inProgress", inbox.inProgress},
             {"other", inbox.other},
             {"canBeSentWithRetry", inbox.canBeSent},
             {"waitingForPairing", inbox.waitingForPairing},
             {"waitingForRetry", recovery.waiting},
             {"nextTry", dateOrNull(recovery.next)},
             {"givenUp", recovery.givenUp},
             {"unreadableNotes", recovery.unreadableNotes},
         }},
        {"lastAccessLine", orNull(log.accessLine)},
        {"logFile", logFile},
        {"logTail", std::move(tail)},
        {"audit", audit ? ordered_json{{"total", audit->total()},
                                       {"captured", audit->captured},
                                       {"waiting", audit->waiting},
                                       {"skipped", audit->skipped},
                                       {"needsYou", audit->needsYou},
                                       {"removedByYou", audit->removedByYou}}
                        : ordered_json(nullptr)},
    };
}

std::string StatusReport::jsonText() const
{
    return json().dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

} // namespace quillet
