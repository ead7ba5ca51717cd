#include "quillet_capture/config/Settings.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <curl/curl.h>
#include <fnmatch.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <filesystem>

namespace quillet {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kDefaultGroupThreshold = 15;
constexpr std::int64_t kDefaultMenuDayLimit = 10;

std::int64_t atLeastOne(const std::optional<std::int64_t>& stored, std::int64_t fallback)
{
    return stored ? std::max<std::int64_t>(*stored, 1) : fallback;
}

// What Foundation counts as white space and line breaks, in UTF-8. UTF-8 never starts a
// character in the middle of another, so matching whole sequences at either end is safe.
constexpr std::array<std::string_view, 25> kWhitespace = {
    " ",      "\t",     "\n",     "\r",     "\v",     "\f",     "\u0085", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000",
};

// A configuration the program cannot work with: say so where the user looks (standard error,
// which rlog writes too) and in the log, then stop.
[[noreturn]] void stopForBadConfiguration(const std::string& message)
{
    rlog("[quillet] capture-cli: %@", message);
    runtime::exitProcess(1);
}

} // namespace

Settings& Settings::shared()
{
    static Settings instance;
    return instance;
}

Settings::Settings()
{
    load();
}

Settings::Settings(AppSettings record)
    : settings(std::move(record))
{
}

fs::path Settings::fileURL()
{
    return Paths::settingsFile();
}

void Settings::load()
{
    // A broken file behaves like no file: the caller keeps what it had. But it is said, or
    // the user would follow "run setup" and lose the folders and the service address.
    auto file = fileURL();
    std::optional<std::string> problem;
    if (auto contents = readWholeFile(file)) {
        try {
            settings = AppSettings::decode(*contents);
        } catch (const std::exception& error) {
            problem = error.what();
        }
    } else if (std::error_code error; fs::exists(fs::symlink_status(file, error))) {
        problem = fs::is_regular_file(file, error) ? "it cannot be read" : "it is not a regular file";
    }
    if (problem && problem != unreadable_) {
        rlogNotice("[quillet] capture-cli: settings file %@ cannot be used (%@); using the defaults", file.string(),
             *problem);
    }
    unreadable_ = std::move(problem);
}

void Settings::reload()
{
    load();
}

void Settings::resetToDefaults()
{
    settings = AppSettings::defaults();
    load();
}

void Settings::save()
{
    try {
        auto file = fileURL();
        std::error_code ignored;
        fs::create_directories(file.parent_path(), ignored);
        writeFileAtomically(file, settings.encode());
    } catch (const std::exception&) {
    }
}

bool Settings::isFirstRun() const
{
    std::error_code error;
    return !fs::exists(fileURL(), error);
}

void Settings::setWatchedFolders(std::vector<WatchedFolder> folders)
{
    auto voiceMemos = std::find_if(folders.begin(), folders.end(), [](const auto& f) { return f.isVoiceMemos(); });
    if (voiceMemos != folders.end()) {
        settings.captureVoiceMemosEnabled = voiceMemos->enabled;
    }
    settings.watchedFoldersRaw = std::move(folders);
    save();
}

std::string Settings::trimmed(std::string_view text)
{
    auto stripOne = [&text](bool atStart) {
        for (auto space : kWhitespace) {
            if (atStart ? text.starts_with(space) : text.ends_with(space)) {
                text = atStart ? text.substr(space.size()) : text.substr(0, text.size() - space.size());
                return true;
            }
        }
        return false;
    };
    while (stripOne(true)) {
    }
    while (stripOne(false)) {
    }
    return std::string(text);
}

std::optional<std::string> Settings::validBaseURL(const std::string& text)
{
    CURLU* url = curl_url();
    if (url == nullptr) {
        return std::nullopt;
    }
    bool valid = false;
    if (curl_url_set(url, CURLUPART_URL, text.c_str(), 0) == CURLUE_OK) {
        char* scheme = nullptr;
        char* host = nullptr;
        if (curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
            curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK) {
            std::string_view name(scheme);
            valid = (name == "http" || name == "https") && host[0] != '\0';
        }
        curl_free(scheme);
        curl_free(host);
    }
    curl_url_cleanup(url);
    return valid ? std::optional(text) : std::nullopt;
}

std::string Settings::vaultPath() const
{
    return Paths::expandTilde(settings.vaultPath);
}

fs::path Settings::vaultURL() const
{
    return vaultPath();
}

std::string Settings::vaultName() const
{
    return settings.vaultName;
}

fs::path Settings::inboxURL() const
{
    return vaultURL() / "_inbox";
}

fs::path Settings::outboxURL() const
{
    return vaultURL() / "_outbox";
}

fs::path Settings::handoffURL() const
{
    return vaultURL() / ".handoff";
}

std::vector<fs::path> Settings::additionalPaths() const
{
    std::vector<fs::path> result;
    for (const auto& path : settings.additionalPaths) {
        result.emplace_back(Paths::expandTilde(path));
    }
    return result;
}

std::optional<fs::path> Settings::remotesURL() const
{
    if (!settings.remotesPath) {
        return std::nullopt;
    }
    return fs::path(Paths::expandTilde(*settings.remotesPath));
}

double Settings::refreshInterval() const
{
    return settings.refreshInterval;
}

std::int64_t Settings::recentDays() const
{
    return settings.recentDays;
}

std::int64_t Settings::searchDays() const
{
    return settings.searchDays.value_or(std::max<std::int64_t>(settings.recentDays, 30));
}

TimeBasis Settings::timeBasis() const
{
    return settings.timeBasis.value_or(TimeBasis::modification);
}

std::int64_t Settings::maxFiles() const
{
    return settings.maxFiles;
}

std::set<std::string> Settings::includeExtensions() const
{
    return lowerCasedSet(settings.includeExtensions);
}

std::vector<std::string> Settings::excludeDirs() const
{
    return settings.excludeDirs;
}

const std::vector<std::string>& Settings::defaultExcludeFilePatterns()
{
    static const std::vector<std::string> patterns = {"CHANGELOG.md", "_manifest*",        "CLAUDE.md",
                                                      "README.md",    "_tasks-history.md", "_inbox.yaml"};
    return patterns;
}

std::vector<std::string> Settings::excludeFilePatterns() const
{
    return settings.excludeFilePatterns.value_or(defaultExcludeFilePatterns());
}

bool Settings::captureVoiceMemosEnabled() const
{
    return settings.captureVoiceMemosEnabled.value_or(false);
}

bool Settings::captureVeldaneEnabled() const
{
    return settings.captureVeldaneEnabled.value_or(false);
}

bool Settings::keepVoiceMemosRunning() const
{
    return settings.keepVoiceMemosRunning.value_or(false);
}

std::string Settings::veldaneBaseURL() const
{
    if (!settings.veldaneBaseURL) {
        return std::string(defaultVeldaneBaseURL);
    }
    auto valid = validBaseURL(*settings.veldaneBaseURL);
    if (!valid) {
        stopForBadConfiguration("veldaneBaseURL \"" + *settings.veldaneBaseURL + "\" in " + fileURL().string() +
                                " is not an absolute http(s) URL -- correct it or remove the key");
    }
    return *valid;
}

std::int64_t Settings::inboxGroupThreshold() const
{
    return atLeastOne(settings.inboxGroupThreshold, kDefaultGroupThreshold);
}

std::int64_t Settings::outboxGroupThreshold() const
{
    return atLeastOne(settings.outboxGroupThreshold, kDefaultGroupThreshold);
}

std::int64_t Settings::handoffGroupThreshold() const
{
    return atLeastOne(settings.handoffGroupThreshold, kDefaultGroupThreshold);
}

std::int64_t Settings::todayGroupThreshold() const
{
    return atLeastOne(settings.todayGroupThreshold, kDefaultGroupThreshold);
}

std::int64_t Settings::menuDayLimit() const
{
    return atLeastOne(settings.menuDayLimit, kDefaultMenuDayLimit);
}

std::optional<std::string> Settings::afterTranscriptCommand() const
{
    if (!settings.afterTranscriptCommand) {
        return std::nullopt;
    }
    auto command = trimmed(*settings.afterTranscriptCommand);
    if (command.empty()) {
        return std::nullopt;
    }
    return command;
}

std::optional<RecordingOptions> Settings::recordingDefaultOptions() const
{
    if (!settings.recordingSource) {
        return std::nullopt;
    }
    return RecordingOptions{*settings.recordingSource, settings.recordingIncludeMicrophone.value_or(true),
                            settings.recordingMicrophoneUID};
}

bool Settings::recordingConsentReminder() const
{
    return settings.recordingConsentReminder.value_or(true);
}

bool Settings::recordingShowWindow() const
{
    return settings.recordingShowWindow.value_or(true);
}

bool Settings::notifyTranscriptReady() const
{
    return settings.notifyTranscriptReady.value_or(true);
}

bool Settings::notifyTranscriptFailed() const
{
    return settings.notifyTranscriptFailed.value_or(true);
}

bool Settings::notifyVoiceMemoSent() const
{
    return settings.notifyVoiceMemoSent.value_or(true);
}

bool Settings::recordingQuickKey() const
{
    return settings.recordingQuickKey.value_or(true);
}

bool Settings::notifications() const
{
    return settings.notifications.value_or(true);
}

std::string Settings::recordingConsentText() const
{
    return settings.recordingConsentText.value_or("Recording. Remember to tell the others you are recording.");
}

std::int64_t Settings::recordingAutoStopMinutes() const
{
    return std::max<std::int64_t>(settings.recordingAutoStopMinutes.value_or(0), 0);
}

EchoCancellationMode Settings::recordingEchoCancellation() const
{
    return settings.recordingEchoCancellation.value_or(EchoCancellationMode::automatic);
}

std::vector<WatchedFolder> Settings::watchedFolders() const
{
    if (settings.watchedFoldersRaw && !settings.watchedFoldersRaw->empty()) {
        return *settings.watchedFoldersRaw;
    }
    return {WatchedFolder::voiceMemos(captureVoiceMemosEnabled())};
}

std::vector<WatchedFolder> Settings::enabledWatchedFolders() const
{
    std::vector<WatchedFolder> result;
    std::set<std::filesystem::path> resolved;
    for (auto& folder : watchedFolders()) {
        if (folder.enabled && resolved.insert(folder.resolvedURL()).second) {
            result.push_back(std::move(folder));
        }
    }
    return result;
}

bool Settings::isExcludedFile(std::string_view fileName) const
{
    std::string name(fileName);
    const auto& stored = settings.excludeFilePatterns;
    const auto& patterns = stored ? *stored : defaultExcludeFilePatterns();
    return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string& pattern) {
        return fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
    });
}

} // namespace quillet
