#pragma once

#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/recording/RecordingSource.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The settings store: the one settings file shared with the menu-bar app, and the values
/// the rest of the program derives from it.
///
/// It has no lock. Commands change and save it on the main thread; while the agent runs the
/// shared store is only read, and the agent follows later versions of the file through
/// `AgentSettings`, whose snapshots are stores of their own over one record each.
class Settings {
public:
    /// The process-wide store, made on first use from the defaults and the file.
    static Settings& shared();

    /// A store over `record`, not read from the file: its derived values are those of that
    /// record. Never changed once made, so any thread may read it.
    explicit Settings(AppSettings record);

    /// The current record. Changing it does not save it.
    AppSettings settings = AppSettings::defaults();

    /// The settings file: "settings.json" in the program's configuration folder.
    static std::filesystem::path fileURL();

    /// Reads the whole file; when it decodes as a record, that record replaces `settings`.
    /// Otherwise (no file, unreadable, not JSON, a required key missing, a wrong type, an
    /// unknown enumeration string) `settings` stays as it was; a file that is there but cannot
    /// be used is logged (and so shown on standard error) in one line that names it and its
    /// first problem, once per problem and process.
    void load();
    /// The first problem of the settings file when one is there that `load()` could not use.
    const std::optional<std::string>& unreadable() const { return unreadable_; }
    /// The same as `load()`.
    void reload();
    /// Puts the defaults back and reads the file at `fileURL()` again (for tests that move
    /// `$HOME`).
    void resetToDefaults();
    /// Writes `settings` as indented JSON with sorted keys, optional fields without a value
    /// left out, replacing the file atomically and creating its folder when needed. Every
    /// failure is ignored silently.
    void save();

    /// True when nothing exists at the settings file's path.
    bool isFirstRun() const;

    /// Stores `folders` as the watched folders, copies the first Voice Memos entry's enabled
    /// flag into `captureVoiceMemosEnabled`, and saves.
    void setWatchedFolders(std::vector<WatchedFolder> folders);

    // Derived values, computed from `settings` at each call. Paths have a leading "~"
    // expanded to the home folder.

    std::string vaultPath() const;
    std::filesystem::path vaultURL() const;
    std::string vaultName() const;
    /// The vault's "_inbox" folder, where notes go.
    std::filesystem::path inboxURL() const;
    std::filesystem::path outboxURL() const;  // vault + "_outbox"
    std::filesystem::path handoffURL() const; // vault + ".handoff"
    std::vector<std::filesystem::path> additionalPaths() const;
    std::optional<std::filesystem::path> remotesURL() const;
    double refreshInterval() const;
    std::int64_t recentDays() const;
    /// The stored value, or the larger of `recentDays()` and 30.
    std::int64_t searchDays() const;
    /// The stored value, or `modification`.
    TimeBasis timeBasis() const;
    std::int64_t maxFiles() const;
    /// Every stored element lower-cased.
    std::set<std::string> includeExtensions() const;
    std::vector<std::string> excludeDirs() const;
    /// "CHANGELOG.md", "_manifest*", "CLAUDE.md", "README.md", "_tasks-history.md", "_inbox.yaml".
    static const std::vector<std::string>& defaultExcludeFilePatterns();
    /// The stored patterns, or the defaults when absent (a stored empty list stays empty).
    std::vector<std::string> excludeFilePatterns() const;
    /// Absent counts as false.
    bool captureVoiceMemosEnabled() const;
    /// Upload to Veldane; absent counts as false.
    bool captureVeldaneEnabled() const;
    /// Absent counts as false.
    bool keepVoiceMemosRunning() const;
    /// The stored base URL of the Veldane API, or "https://api.veldane.com/api/v1". A stored
    /// value that is not an absolute http(s) URL is a configuration error that ends the
    /// process with status 1 after a clear message on standard error and in the log.
    std::string veldaneBaseURL() const;
    /// Stored values raised to at least 1; 15 when absent.
    std::int64_t inboxGroupThreshold() const;
    std::int64_t outboxGroupThreshold() const;
    std::int64_t handoffGroupThreshold() const;
    std::int64_t todayGroupThreshold() const;
    /// Stored value raised to at least 1; 10 when absent.
    std::int64_t menuDayLimit() const;
    /// The stored command trimmed of white space and line breaks at both ends; absent when
    /// none is stored or it trims to nothing.
    std::optional<std::string> afterTranscriptCommand() const;
    /// The recorder's default options; absent when no recording source is stored. The
    /// microphone is included unless the file says otherwise.
    std::optional<RecordingOptions> recordingDefaultOptions() const;
    /// Each of these six is the stored value; absent counts as true.
    bool recordingConsentReminder() const;
    bool recordingShowWindow() const;
    bool notifyTranscriptReady() const;
    bool notifyTranscriptFailed() const;
    bool notifyVoiceMemoSent() const;
    bool recordingQuickKey() const;
    /// Whether the agent shows desktop notifications at all (the three above choose among
    /// them); absent counts as true.
    bool notifications() const;
    /// The stored text, or "Recording. Remember to tell the others you are recording."
    std::string recordingConsentText() const;
    /// The stored value; absent or negative gives 0 (no automatic stop).
    std::int64_t recordingAutoStopMinutes() const;
    /// The stored mode, or `automatic`.
    EchoCancellationMode recordingEchoCancellation() const;
    /// The stored folders when present and not empty; otherwise the Voice Memos folder alone,
    /// enabled as `captureVoiceMemosEnabled()` says.
    std::vector<WatchedFolder> watchedFolders() const;
    /// The enabled elements of `watchedFolders()`, in order; an entry whose resolved URL is an
    /// earlier enabled entry's is left out, so that no folder is watched twice.
    std::vector<WatchedFolder> enabledWatchedFolders() const;

    /// True when `fileName` matches one of `excludeFilePatterns()` as a shell wildcard
    /// pattern, ignoring case (fnmatch with FNM_CASEFOLD only, so "*" also matches "/" and a
    /// leading dot). An empty list matches nothing.
    bool isExcludedFile(std::string_view fileName) const;

    /// `text` without white space and line breaks (ASCII and Unicode) at both ends.
    static std::string trimmed(std::string_view text);

    /// `text` when it is an absolute http or https URL with a host; absent otherwise.
    static std::optional<std::string> validBaseURL(const std::string& text);

    /// The base URL used when the settings name none.
    static constexpr std::string_view defaultVeldaneBaseURL = "https://api.veldane.com/api/v1";

private:
    Settings();

    std::optional<std::string> unreadable_;
};

} // namespace quillet
