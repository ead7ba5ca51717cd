#include "quillet_capture/config/AppSettings.hpp"

#include "quillet_capture/recording/StrictJson.hpp"

namespace quillet {

using nlohmann::json;

AppSettings AppSettings::defaults()
{
    AppSettings d;
    d.vaultPath = "~/workspace/Halden";
    d.vaultName = "Halden";
    d.additionalPaths = {"~/workspace"};
    d.remotesPath = "~/workspace/remotes";
    d.refreshInterval = 60.0;
    d.recentDays = 7;
    d.searchDays = 30;
    d.timeBasis = TimeBasis::modification;
    d.maxFiles = 500;
    d.includeExtensions = {"md", "txt", "pdf", "doc", "docx", "odt", "xls", "xlsx", "ods", "csv", "ppt", "pptx",
                           "odp", "key"};
    d.excludeDirs = {".git",  ".obsidian",   "node_modules", ".cache",  ".config", ".pm2",     ".credentials",
                     ".local", ".npm",       ".nvm",         ".cargo",  ".rustup", "__pycache__", ".venv",
                     "venv",  ".archive",    ".doable",      ".claude", ".build",  ".swiftpm"};
    d.captureVoiceMemosEnabled = false;
    d.captureVeldaneEnabled = false;
    return d;
}

std::string rawValue(TimeBasis basis)
{
    switch (basis) {
    case TimeBasis::modification:
        return "modification";
    case TimeBasis::creation:
        return "creation";
    case TimeBasis::either:
        return "either";
    }
    return "modification";
}

void to_json(json& out, TimeBasis basis)
{
    out = rawValue(basis);
}

void from_json(const json& in, TimeBasis& basis)
{
    auto text = strictJson::decode<std::string>(in, "timeBasis");
    for (auto candidate : {TimeBasis::modification, TimeBasis::creation, TimeBasis::either}) {
        if (rawValue(candidate) == text) {
            basis = candidate;
            return;
        }
    }
    throw JsonDecodeError("unknown timeBasis \"" + text + "\"");
}

namespace {

// One table of fields serves both directions, so a key can't be read under one name and
// written under another. `Self` is AppSettings or const AppSettings.
template <typename Self, typename Visitor>
void visitFields(Self& s, Visitor&& field)
{
    field("vaultPath", s.vaultPath);
    field("vaultName", s.vaultName);
    field("additionalPaths", s.additionalPaths);
    field("remotesPath", s.remotesPath);
    field("refreshInterval", s.refreshInterval);
    field("recentDays", s.recentDays);
    field("searchDays", s.searchDays);
    field("timeBasis", s.timeBasis);
    field("maxFiles", s.maxFiles);
    field("includeExtensions", s.includeExtensions);
    field("excludeDirs", s.excludeDirs);
    field("excludeFilePatterns", s.excludeFilePatterns);
    field("captureVoiceMemosEnabled", s.captureVoiceMemosEnabled);
    field("captureVeldaneEnabled", s.captureVeldaneEnabled);
    field("veldaneBaseURL", s.veldaneBaseURL);
    field("keepVoiceMemosRunning", s.keepVoiceMemosRunning);
    field("watchedFoldersRaw", s.watchedFoldersRaw);
    field("inboxGroupThreshold", s.inboxGroupThreshold);
    field("outboxGroupThreshold", s.outboxGroupThreshold);
    field("handoffGroupThreshold", s.handoffGroupThreshold);
    field("todayGroupThreshold", s.todayGroupThreshold);
    field("menuDayLimit", s.menuDayLimit);
    field("recordingSource", s.recordingSource);
    field("recordingIncludeMicrophone", s.recordingIncludeMicrophone);
    field("recordingMicrophoneUID", s.recordingMicrophoneUID);
    field("recordingConsentReminder", s.recordingConsentReminder);
    field("recordingConsentText", s.recordingConsentText);
    field("recordingAutoStopMinutes", s.recordingAutoStopMinutes);
    field("recordingShowWindow", s.recordingShowWindow);
    field("notifyTranscriptReady", s.notifyTranscriptReady);
    field("notifyTranscriptFailed", s.notifyTranscriptFailed);
    field("notifyVoiceMemoSent", s.notifyVoiceMemoSent);
    field("recordingQuickKey", s.recordingQuickKey);
    field("recordingEchoCancellation", s.recordingEchoCancellation);
    field("afterTranscriptCommand", s.afterTranscriptCommand);
    field("notifications", s.notifications);
}

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

} // namespace

AppSettings AppSettings::fromJSON(const json& in)
{
    if (!in.is_object()) {
        throw JsonDecodeError("the settings must be a JSON object");
    }
    AppSettings result;
    visitFields(result, [&in](const char* key, auto& value) {
        using T = std::remove_reference_t<decltype(value)>;
        if constexpr (IsOptional<T>::value) {
            value = strictJson::optional<typename T::value_type>(in, key);
        } else {
            value = strictJson::required<T>(in, key);
        }
    });
    return result;
}

json AppSettings::toJSON() const
{
    json out = json::object();
    visitFields(*this, [&out](const char* key, const auto& value) {
        using T = std::remove_cvref_t<decltype(value)>;
        if constexpr (IsOptional<T>::value) {
            strictJson::putIfPresent(out, key, value);
        } else {
            out[key] = value;
        }
    });
    return out;
}

AppSettings AppSettings::decode(std::string_view text)
{
    return fromJSON(json::parse(text));
}

std::string AppSettings::encode() const
{
    // Invalid UTF-8 (a path typed in another encoding) is replaced rather than losing the
    // whole save.
    return toJSON().dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace quillet
