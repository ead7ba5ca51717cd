#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quillet::CaptureAccess {

/// What probing a watched folder found.
class State {
public:
    enum class Kind { ok, empty, denied, missing, notConfigured };

    /// The folder can be listed and holds `fileCount` audio files (at least one).
    static State ok(std::int64_t fileCount) { return State(Kind::ok, fileCount); }
    /// The folder can be listed but holds no audio file.
    static State empty() { return State(Kind::empty); }
    /// The folder exists but cannot be listed.
    static State denied() { return State(Kind::denied); }
    /// There is no folder at the path (or it is a file).
    static State missing() { return State(Kind::missing); }
    /// Capture from this folder is switched off.
    static State notConfigured() { return State(Kind::notConfigured); }

    Kind kind() const { return kind_; }
    /// The count of `ok`; 0 for every other state.
    std::int64_t fileCount() const { return fileCount_; }

    /// True only for `ok`: the coordinator polls only usable folders.
    bool isUsable() const { return kind_ == Kind::ok; }
    /// True for `empty`, `denied` and `missing`.
    bool needsAttention() const;

    /// One line for the folder named `folderName`, e.g. "Voice Memos: 12 files visible".
    std::string summary(std::string_view folderName) const;
    /// The summary for the folder name "Voice Memos".
    std::string menuSummary() const;
    /// The long text that tells the user what the state means and what to do.
    std::string explanation() const;
    /// The long text for the folder `folderName`: `explanation()` on macOS and for the Voice
    /// Memos folder (`voiceMemos`); elsewhere a text that names the folder and says nothing of
    /// macOS, iCloud or Full Disk Access, which do not apply there.
    std::string explanation(std::string_view folderName, bool voiceMemos) const;

    /// Same case and, for `ok`, same count.
    bool operator==(const State&) const = default;

private:
    explicit State(Kind kind, std::int64_t fileCount = 0) : kind_(kind), fileCount_(fileCount) {}

    Kind kind_;
    std::int64_t fileCount_;
};

/// The default audio extensions of a watched folder: "m4a" and "wav".
inline const std::set<std::string> audioExtensions = {"m4a", "wav"};
/// The default audio extensions of the Voice Memos folder: those of every folder and "qta",
/// the form a current iPhone keeps most finished recordings in.
inline const std::set<std::string> voiceMemosExtensions = {"m4a", "qta", "wav"};

/// Probes `folder`: `notConfigured` when not `enabled` (the disk is not touched), `missing`
/// when nothing or no folder is there, `denied` when it cannot be listed (an unexpected
/// listing error is logged, and still reads as `denied`), otherwise `ok` with the number of
/// non-hidden entries whose lower-cased extension is in `extensions`, or `empty`. Never
/// fails; any thread.
State check(const std::filesystem::path& folder, const std::set<std::string>& extensions, bool enabled);

/// One listing of a watched folder: its state as `check` finds it and the names of the
/// entries it counted, in listing order (none unless the state is `ok`).
struct Listing {
    State state;
    std::vector<std::string> names;
};

/// `check`, keeping the names it counted, so that a watcher takes its state and its candidate
/// files from one listing. Same rules; never fails; any thread.
Listing list(const std::filesystem::path& folder, const std::set<std::string>& extensions, bool enabled);

/// The Voice Memos recordings folder: the first candidate that exists (the group container
/// first, then the older application-support folder), or the first when neither exists, so
/// a folder that Voice Memos creates later is found at that place. Any thread.
std::filesystem::path voiceMemosURL();

/// Asks the desktop to open the Full Disk Access list of the system settings
/// ("x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles"). Returns
/// whether a URL was handed over; the desktop opens it in the background and does not report
/// whether it could. Main thread.
bool openFullDiskAccessSettings();

} // namespace quillet::CaptureAccess
