#pragma once

#include "quillet_capture/pipeline/CaptureAudit.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// What `status` shows of the log file.
struct StatusLog {
    /// The last line that contains "access ->" (what the capture coordinator logs about folder
    /// access), wherever it is in the file.
    std::optional<std::string> accessLine;
    /// The last lines, oldest first.
    std::vector<std::string> tail;
};

/// Everything that `status` reports, gathered once. The text report and the JSON object are
/// both made from one value, so they carry the same facts. A plain value: any thread.
struct StatusReport {
    using TimePoint = std::chrono::system_clock::time_point;

    /// The Voice Memos library as the agent sees it.
    struct Library {
        /// "absent", "unreadable", "locked", "corrupt", "unknownSchema" or "readable".
        std::string state;
        /// The library's state in words ("readable, 3 recordings", "not found", ...).
        std::string summary;
        /// The rest only for a readable library: the recordings it lists, those not yet
        /// downloaded from iCloud (and the recording date of the oldest of them), and those in
        /// Recently Deleted.
        std::optional<int> recordings;
        std::optional<int> waitingForDownload;
        std::optional<TimePoint> oldestWaiting;
        std::optional<int> recentlyDeleted;
    };

    /// One watched folder of the settings.
    struct Folder {
        std::string id;
        std::string name;     // the display name
        std::string path;     // the folder that is listed
        bool enabled = false;
        bool voiceMemos = false;
        std::optional<Library> library; // for an enabled Voice Memos folder only
    };

    /// What can be said about the device token.
    enum class Pairing {
        paired,              // a token that is not empty is readable
        noToken,             // none readable
        noTokenInKeychain,   // none readable from the macOS Keychain (locked over SSH, perhaps)
        tokenFileUnreadable, // the credentials file is there but cannot be read
    };

    /// The notes in the inbox, counted by job status.
    struct Inbox {
        enum class State { missing, unreadable, listed };
        State state = State::missing;
        std::string error;        // why it cannot be listed (`unreadable`)
        int transcribed = 0;      // job status "done"
        int inProgress = 0;       // a status that the agent resumes
        int other = 0;            // any other, or none
        int canBeSent = 0;        // notes that `retry` would send
        int waitingForPairing = 0; // notes that wait because the service refused the token
        /// True while an agent is running: it sends those notes itself, so no retry is
        /// suggested for them.
        bool agentWorking = false;

        /// The inbox line: "<n> transcribed, <n> in progress, <n> other", then
        /// " -- <n> can be sent with: quillet-capture retry" (unless `agentWorking`) and " -- <n> wait because
        /// Veldane refused this device's token: run quillet-capture pair" when those are not
        /// zero; "no _inbox yet" or "cannot read _inbox (<error>)" when it is not listed.
        std::string text() const;
    };

    std::string version;
    std::string program;      // the executable that runs
    std::string settingsFile; // absolute
    bool settingsMissing = false;
    std::string vault;
    std::string inboxPath;
    std::vector<Folder> folders;
    bool upload = false;
    std::optional<std::string> afterTranscript;
    Pairing pairing = Pairing::noToken;
    /// The first 12 characters of the token (`paired` only): shown in the text report, which
    /// a person reads, and never put into the JSON, which scripts pass around.
    std::string tokenPrefix;
    std::string unreadableTokenFile; // `tokenFileUnreadable` only
    bool keepVoiceMemosRunning = false;
    bool voiceMemosRunning = false;
    /// The system this report was made on: it decides the few texts that differ.
    Platform platform = Platform::macOS;
    /// What the agent definition is called on this system ("LaunchAgent", "systemd user unit").
    std::string agentName = "LaunchAgent";
    bool agentLoaded = false;
    /// The process id of the agent working on this state folder, however it was started; none
    /// when no agent is running.
    std::optional<long> agentPid;
    Inbox inbox;
    CaptureRecovery::Summary recovery;
    std::string logFile; // absolute
    StatusLog log;
    /// What `audit` counts, for the JSON object (the text report leaves it out); none when
    /// not gathered.
    std::optional<CaptureAudit::Counts> audit;

    /// The text report: lines ending in a line feed, exactly what `status` prints.
    std::string text() const;

    /// The agent line: "  agent:       running (pid <n>, started by hand)" when an agent runs
    /// that the service manager does not know, else "  <agentName>: loaded" or
    /// "  <agentName>: not loaded -- run install".
    std::string agentLine() const;

    /// The same facts as one JSON object with the keys that the manual page lists; dates are
    /// ISO 8601 in UTC; the token is never in it.
    nlohmann::ordered_json json() const;

    /// `json()` indented by 2 spaces with one line feed at the end, what `status --json`
    /// prints. Bytes that are not UTF-8 (in a path, say) become U+FFFD; never throws.
    std::string jsonText() const;
};

} // namespace quillet
