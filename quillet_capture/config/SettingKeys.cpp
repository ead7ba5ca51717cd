#include "quillet_capture/config/SettingKeys.hpp"

#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>

namespace quillet {

namespace fs = std::filesystem;
using nlohmann::json;

std::string absoluteFolder(const std::string& folder)
{
    if (folder.empty() || folder.starts_with('~') || fs::path(folder).is_absolute()) {
        return folder;
    }
    auto path = fs::absolute(folder).lexically_normal();
    if (!path.has_filename() && path != path.root_path()) {
        path = path.parent_path();
    }
    return path.string();
}

namespace SettingKeys {

namespace {

using K = Kind;

// The optional bool behind each boolean key, so one table drives reading and writing.
std::optional<bool>* boolField(AppSettings& s, std::string_view name)
{
    if (name == "captureVeldaneEnabled") return &s.captureVeldaneEnabled;
    if (name == "captureVoiceMemosEnabled") return &s.captureVoiceMemosEnabled;
    if (name == "keepVoiceMemosRunning") return &s.keepVoiceMemosRunning;
    if (name == "notifications") return &s.notifications;
    if (name == "notifyTranscriptReady") return &s.notifyTranscriptReady;
    if (name == "notifyTranscriptFailed") return &s.notifyTranscriptFailed;
    if (name == "notifyVoiceMemoSent") return &s.notifyVoiceMemoSent;
    return nullptr;
}

const std::optional<bool>* boolField(const AppSettings& s, std::string_view name)
{
    return boolField(const_cast<AppSettings&>(s), name);
}

std::optional<std::string>* textField(AppSettings& s, std::string_view name)
{
    if (name == "veldaneBaseURL") return &s.veldaneBaseURL;
    if (name == "afterTranscriptCommand") return &s.afterTranscriptCommand;
    return nullptr;
}

const std::optional<std::string>* textField(const AppSettings& s, std::string_view name)
{
    return textField(const_cast<AppSettings&>(s), name);
}

// Keys of the file that only the menu-bar app reads: the program keeps and writes them back
// but nothing it does depends on them.
constexpr std::string_view kKeptForTheApp[] = {
    "vaultName",          "additionalPaths",          "remotesPath",          "refreshInterval",
    "recentDays",         "searchDays",               "timeBasis",            "maxFiles",
    "includeExtensions",  "excludeDirs",              "inboxGroupThreshold",  "outboxGroupThreshold",
    "handoffGroupThreshold", "todayGroupThreshold",   "menuDayLimit",         "recordingSource",
    "recordingIncludeMicrophone", "recordingMicrophoneUID", "recordingConsentReminder",
    "recordingConsentText", "recordingAutoStopMinutes", "recordingShowWindow", "recordingQuickKey",
    "recordingEchoCancellation",
};

// captureVoiceMemosEnabled and the Voice Memos entry of the watched folders say the same
// thing; the agent goes by the entry when there is one, so both change together.
void setVoiceMemos(AppSettings& s, bool enabled)
{
    s.captureVoiceMemosEnabled = enabled;
    if (!s.watchedFoldersRaw || s.watchedFoldersRaw->empty()) {
        if (enabled) {
            s.watchedFoldersRaw = std::vector{WatchedFolder::voiceMemos(true)};
        }
        return;
    }
    auto& folders = *s.watchedFoldersRaw;
    bool found = false;
    for (auto& folder : folders) {
        if (folder.isVoiceMemos()) {
            folder.enabled = enabled;
            found = true;
        }
    }
    if (!found && enabled) {
        folders.insert(folders.begin(), WatchedFolder::voiceMemos(true));
    }
}

} // namespace

const std::vector<Key>& all()
{
    static const std::vector<Key> keys = {
        {"vaultPath", K::folder, "folder", "none (setup chooses it)",
         "The vault: notes go to its _inbox folder, audio copies beside them."},
        {"watchedFoldersRaw", K::folders, "list of folders", "the Voice Memos folder, as captureVoiceMemosEnabled says",
         "The folders watched for new recordings; change it with config watch and config unwatch."},
        {"captureVoiceMemosEnabled", K::boolean, "true or false", "false",
         "Whether the Voice Memos folder is watched; setting it also switches that folder's entry."},
        {"keepVoiceMemosRunning", K::boolean, "true or false", "false",
         "Whether the agent keeps Voice Memos open (hidden) so its recordings keep arriving."},
        {"captureVeldaneEnabled", K::boolean, "true or false", "false",
         "Whether captures are uploaded to Veldane for a transcript."},
        {"veldaneBaseURL", K::url, "http(s) URL", std::string_view(Settings::defaultVeldaneBaseURL),
         "The address of the Veldane service."},
        {"afterTranscriptCommand", K::command, "shell command", "none",
         "A command run after each transcript is written into its note."},
        {"notifications", K::boolean, "true or false", "true",
         "Whether the agent shows desktop notifications at all."},
        {"notifyTranscriptReady", K::boolean, "true or false", "true",
         "A notification when a transcript is written."},
        {"notifyTranscriptFailed", K::boolean, "true or false", "true",
         "A notification when a transcript fails."},
        {"notifyVoiceMemoSent", K::boolean, "true or false", "true",
         "A notification when a recording is sent for a transcript."},
        {"excludeFilePatterns", K::patterns, "JSON array of patterns",
         "CHANGELOG.md, _manifest*, CLAUDE.md, README.md, _tasks-history.md, _inbox.yaml",
         "File names in the inbox that audit does not count as notes (shell wildcards, any case)."},
    };
    return keys;
}

const Key* find(std::string_view name)
{
    const auto& keys = all();
    auto found = std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return key.name == name; });
    return found == keys.end() ? nullptr : &*found;
}

bool isKeptForTheApp(std::string_view name)
{
    return std::find(std::begin(kKeptForTheApp), std::end(kKeptForTheApp), name) != std::end(kKeptForTheApp);
}

std::optional<std::string> storedText(const AppSettings& s, const Key& key)
{
    switch (key.kind) {
    case Kind::boolean: {
        const auto& value = *boolField(s, key.name);
        return value ? std::optional<std::string>(*value ? "true" : "false") : std::nullopt;
    }
    case Kind::folder:
        return s.vaultPath;
    case Kind::url:
    case Kind::command:
        return *textField(s, key.name);
    case Kind::patterns:
        return s.excludeFilePatterns ? std::optional(json(*s.excludeFilePatterns).dump()) : std::nullopt;
    case Kind::folders: {
        if (!s.watchedFoldersRaw || s.watchedFoldersRaw->empty()) {
            return std::nullopt;
        }
        std::string text;
        for (const auto& folder : *s.watchedFoldersRaw) {
            text += (text.empty() ? "" : "\n") + folder.path + (folder.enabled ? "" : " (off)");
        }
        return text;
    }
    }
    return std::nullopt;
}

json storedJSON(const AppSettings& s, const Key& key)
{
    switch (key.kind) {
    case Kind::boolean: {
        const auto& value = *boolField(s, key.name);
        return value ? json(*value) : json(nullptr);
    }
    case Kind::folder:
        return s.vaultPath;
    case Kind::url:
    case Kind::command: {
        const auto& value = *textField(s, key.name);
        return value ? json(*value) : json(nullptr);
    }
    case Kind::patterns:
        return s.excludeFilePatterns ? json(*s.excludeFilePatterns) : json(nullptr);
    case Kind::folders:
        return s.watchedFoldersRaw ? json(*s.watchedFoldersRaw) : json(nullptr);
    }
    return nullptr;
}

void set(AppSettings& s, const Key& key, const std::string& value)
{
    const std::string name(key.name);
    switch (key.kind) {
    case Kind::boolean: {
        if (value != "true" && value != "false") {
            throw InvalidValue(name + " takes true or false, not \"" + value + "\"");
        }
        if (name == "captureVoiceMemosEnabled") {
            setVoiceMemos(s, value == "true");
        } else {
            *boolField(s, key.name) = value == "true";
        }
        return;
    }
    case Kind::folder: {
        // An empty value (an unset shell variable, say) would put the inbox at the root.
        if (value.empty()) {
            throw InvalidValue(name + " takes a folder, not an empty value");
        }
        s.vaultPath = absoluteFolder(Paths::expandTilde(value));
        s.vaultName = WatchedFolder::lastPathComponent(s.vaultPath);
        return;
    }
    case Kind::url:
        if (!Settings::validBaseURL(value)) {
            throw InvalidValue(name + " takes an absolute http(s) URL, not \"" + value + "\"");
        }
        *textField(s, key.name) = value;
        return;
    case Kind::command: {
        auto trimmed = Settings::trimmed(value);
        *textField(s, key.name) = trimmed.empty() ? std::nullopt : std::optional(trimmed);
        return;
    }
    case Kind::patterns: {
        json parsed = json::parse(value, nullptr, false);
        bool valid = parsed.is_array() &&
                     std::all_of(parsed.begin(), parsed.end(), [](const json& item) { return item.is_string(); });
        if (!valid) {
            throw InvalidValue(name + " takes a JSON array of patterns, like [\"README.md\",\"*.tmp\"], not \"" +
                               value + "\"");
        }
        s.excludeFilePatterns = parsed.get<std::vector<std::string>>();
        return;
    }
    case Kind::folders:
        throw InvalidValue(name + " is changed with: quillet-capture config watch PATH / config unwatch PATH");
    }
}

void unset(AppSettings& s, const Key& key)
{
    const std::string name(key.name);
    switch (key.kind) {
    case Kind::boolean:
        if (name == "captureVoiceMemosEnabled") {
            setVoiceMemos(s, false);
            s.captureVoiceMemosEnabled = std::nullopt;
        } else {
            *boolField(s, key.name) = std::nullopt;
        }
        return;
    case Kind::folder:
        throw InvalidValue(name + " has no default to go back to; set it to a folder instead");
    case Kind::url:
    case Kind::command:
        *textField(s, key.name) = std::nullopt;
        return;
    case Kind::patterns:
        s.excludeFilePatterns = std::nullopt;
        return;
    case Kind::folders:
        throw InvalidValue(name + " is changed with: quillet-capture config watch PATH / config unwatch PATH");
    }
}

} // namespace SettingKeys
} // namespace quillet
