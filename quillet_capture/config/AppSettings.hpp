#pragma once

#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/recording/EchoCancellationMode.hpp"
#include "quillet_capture/recording/RecordingSource.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// Which file time the menu-bar app's recent-files features go by. Stored as
/// "modification", "creation" or "either".
enum class TimeBasis { modification, creation, either };

/// The settings file's record, shared with the menu-bar app: every key is kept and written
/// back, including those only the app uses. The JSON key of each field is its name. Plain
/// fields are required in the file; optional ones may be absent (or null) and are left out
/// when written without a value. Integers are 64-bit, like the app's.
struct AppSettings {
    std::string vaultPath;                    // may start with "~"
    std::string vaultName;
    std::vector<std::string> additionalPaths; // may start with "~"
    std::optional<std::string> remotesPath;
    double refreshInterval = 0;               // seconds
    std::int64_t recentDays = 0;
    std::optional<std::int64_t> searchDays;
    std::optional<TimeBasis> timeBasis;
    std::int64_t maxFiles = 0;
    std::vector<std::string> includeExtensions;
    std::vector<std::string> excludeDirs;
    std::optional<std::vector<std::string>> excludeFilePatterns; // shell wildcard patterns
    std::optional<bool> captureVoiceMemosEnabled;
    std::optional<bool> captureVeldaneEnabled;
    std::optional<std::string> veldaneBaseURL;
    std::optional<bool> keepVoiceMemosRunning;
    std::optional<std::vector<WatchedFolder>> watchedFoldersRaw;
    std::optional<std::int64_t> inboxGroupThreshold;
    std::optional<std::int64_t> outboxGroupThreshold;
    std::optional<std::int64_t> handoffGroupThreshold;
    std::optional<std::int64_t> todayGroupThreshold;
    std::optional<std::int64_t> menuDayLimit;
    std::optional<RecordingSource> recordingSource;
    std::optional<bool> recordingIncludeMicrophone;
    std::optional<std::string> recordingMicrophoneUID;
    std::optional<bool> recordingConsentReminder;
    std::optional<std::string> recordingConsentText;
    std::optional<std::int64_t> recordingAutoStopMinutes;
    std::optional<bool> recordingShowWindow;
    std::optional<bool> notifyTranscriptReady;
    std::optional<bool> notifyTranscriptFailed;
    std::optional<bool> notifyVoiceMemoSent;
    std::optional<bool> recordingQuickKey;
    std::optional<EchoCancellationMode> recordingEchoCancellation;
    std::optional<std::string> afterTranscriptCommand;
    /// Desktop notifications of the agent at all; `setup --no-notifications` stores false.
    std::optional<bool> notifications;

    /// The built-in defaults, the record a new settings file gets. Both capture switches are
    /// present and false; the other optional fields without a default are absent.
    static AppSettings defaults();

    /// Reads a whole settings document. Throws JsonDecodeError when it is not an object, a
    /// required key is missing or null, a value has the wrong type (a fraction or a number
    /// beyond 64 bits for an integer, a number for a bool), or an enumeration holds an unknown
    /// string. Unknown keys are ignored.
    static AppSettings fromJSON(const nlohmann::json& json);

    /// The record as a JSON object; optional fields without a value are left out.
    nlohmann::json toJSON() const;

    /// Reads the text of a settings file as the store loads it. Throws nlohmann::json's
    /// exception when `text` is not one JSON value (nor UTF-8), and what fromJSON throws.
    static AppSettings decode(std::string_view text);

    /// The text of a settings file as the store saves it: indented JSON with sorted keys and
    /// a final line break; bytes that are not UTF-8 are replaced, never a failure.
    std::string encode() const;

    bool operator==(const AppSettings&) const = default;
};

/// "modification", "creation" or "either".
std::string rawValue(TimeBasis basis);

void to_json(nlohmann::json& json, TimeBasis basis);
/// Throws JsonDecodeError for any other text.
void from_json(const nlohmann::json& json, TimeBasis& basis);

} // namespace quillet
