#pragma once

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/capture/CaptureGuards.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/library/VoiceMemosLibrary.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quillet {

class CaptureIntake;

/// Lists one watched folder and reports each new recording in it once: it drops what the
/// state store has seen, runs the capture guards, derives the recording's start time and id,
/// and marks the file seen before handing it over. Used only on the coordinator's queue.
class FolderWatcher {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// What the watcher hands to the pipeline.
    struct NewCapture {
        std::filesystem::path sourceURL;
        std::string canonicalId;
        TimePoint timestamp;
        std::string folderId;
        /// The recording captured before under `canonicalId`, grown since: its copy in the
        /// vault is to be replaced and its transcript made again.
        bool grown = false;
        /// What the Voice Memos library knows of the recording; nothing when it does not
        /// list it.
        std::optional<LibraryRecording> recording = {};
        bool operator==(const NewCapture&) const = default;
    };

    /// What the watcher asks of the vault.
    struct Vault {
        /// True when the vault already holds the capture of `file` under `canonicalId` (its id
        /// before any suffix for a twin of the same second); with an empty `file`, true when
        /// the vault has a note under exactly `canonicalId`.
        std::function<bool(const std::string& canonicalId, const std::filesystem::path& file)> holds;
        /// The vault's audio copy of the capture `canonicalId`.
        std::function<std::filesystem::path(const std::string& canonicalId)> copyOf;
        /// The person renamed the recording of `canonicalId` in Voice Memos from `from` to
        /// `to`: its note takes the new title if it still holds `from`. True when that is
        /// settled (written, or the note's title is the person's), false to be asked again.
        std::function<bool(const std::string& canonicalId, const std::string& from, const std::string& to)> retitle;
    };

    /// A watcher of `folder` (a copy) over `store`. `clock` gives "now" and the guards'
    /// stability waits; `probes` replace the guards' file-system probes in tests. Each new
    /// capture is written to `intake` (when given) before it is marked seen. `vault` tells the
    /// first index which recordings the vault holds already, and a poll whether a captured
    /// file that changed is the same recording grown; `firstWatchedFile` keeps when the
    /// folder was first watched. With `identities`, the Voice Memos folder's watcher reads the
    /// Voice Memos library beside its recordings (copies of it, when needed, go to
    /// `libraryCopies`): a recording it knows is captured once under the library's id whatever
    /// its files do, carries its title, folder and date, and is not captured when the person
    /// deleted it first.
    FolderWatcher(WatchedFolder folder, CaptureStateStore& store, bool runGuards = true,
                  runtime::Clock& clock = runtime::systemClock(), CaptureGuards::Probes probes = {},
                  CaptureIntake* intake = nullptr, Vault vault = {}, std::filesystem::path firstWatchedFile = {},
                  CaptureIdentities* identities = nullptr, std::filesystem::path libraryCopies = {});

    const WatchedFolder& folder() const { return folder_; }

    /// The folder's access state for its URL, extensions and enabled flag.
    CaptureAccess::State accessState() const;

    /// The folder's audio files in listing order (hidden files skipped, extension filter
    /// applied), or nothing when the folder is not usable or cannot be listed.
    std::optional<std::vector<std::filesystem::path>> candidateFiles() const;

    /// One listing of the folder: its access state and the names of its candidate files, in
    /// listing order (none unless usable). The coordinator's tick takes both from it.
    CaptureAccess::Listing listing() const;

    /// On a folder the store has never seen: marks seen, in one write and without capturing
    /// them, the candidates that were there before the folder was first watched (their
    /// modification time is earlier than the moment kept in `FirstWatched`, which is fixed now
    /// when none is kept) and those whose capture the vault holds already; logs the count and
    /// returns it. The others stay unseen, for the next poll to capture: recordings that
    /// arrived while the agent was stopped before its first index ended, or after the state
    /// file was lost. The folder counts as indexed afterwards even when it is empty. Returns
    /// 0 at once on a folder the store has seen (keeping, for a folder indexed before
    /// moments were kept, the time of its index as the moment).
    int runInitialIndex();

    /// The new recordings of this poll, in listing order, each already marked seen. The
    /// guards look at all of them together, so that a burst of recordings costs one stability
    /// wait. A captured file that changed and has stayed the same for a poll is handed over
    /// again: as `grown` under its id when its copy in the vault is where it begins, else as
    /// another recording under an id of its own; one whose bytes are its copy's is only
    /// marked seen as it is now.
    std::vector<NewCapture> poll();
    /// The same over `listing`, a listing of this folder just taken; nothing when it is not
    /// usable (a folder without audio files still has its library looked at).
    std::vector<NewCapture> poll(const CaptureAccess::Listing& listing);

private:
    /// The extensions to take: the folder's own, or the default audio set.
    std::set<std::string> extensions() const;
    /// What tells `file` from another file under its name, and a file changed in place: "size:
    /// modification time in ns:inode:status change time in ns:device"; nothing when it is not
    /// a regular file.
    static std::optional<std::string> fileIdentity(const std::filesystem::path& file);
    /// The fields of an identity, in order.
    static std::vector<std::string> identityFields(std::string_view identity);
    /// True when the identity `now` is the file that `kept` was (an identity kept before the
    /// status change time was, "size:modification time:inode", matches on those).
    static bool sameFile(const std::string& now, const std::string& kept);
    /// How a new name relates to a capture of this folder made under another name.
    enum class Earlier { renamed, copied };
    struct EarlierCapture {
        std::string name;
        std::string canonicalId;
        Earlier how;
    };
    /// The earlier capture that the new file `name` is: the same file renamed (same inode,
    /// device, size and modification time), or the same bytes (compared only with captures
    /// of its size); nothing when none.
    std::optional<EarlierCapture> earlierCapture(const std::filesystem::path& file, const std::string& name) const;
    /// What changes when entries of `folder` are created, deleted or renamed.
    static std::optional<std::string> folderStamp(const std::filesystem::path& folder);
    /// True when the captured file `name` (its entry `seen`) is now another file, or has
    /// changed, and has stayed the same since the last poll.
    bool changedSinceCapture(const std::filesystem::path& file, const std::string& name,
                             const CaptureStateStore::State::SeenEntry& seen);
    /// How a captured file that changed relates to its copy in the vault.
    enum class Change { another, grown, same };
    static Change compareWithCopy(const std::filesystem::path& file, const std::filesystem::path& copy);
    /// When the first `size` bytes of a file and of its copy both begin a WAVE file: puts the
    /// file's RIFF, "ds64" and data sizes into `copy` (where the copy has them), so that a
    /// recording whose sizes were written after its capture still begins with its copy. True
    /// when a size differed.
    static bool takeWaveSizes(const char* file, char* copy, std::size_t size);
    /// Why `file` is no recording to take ("a symbolic link", "not a regular file"), or
    /// nothing when it is a regular file or cannot be looked at.
    static std::optional<std::string> notARecording(const std::filesystem::path& file);
    /// The start time of the recording `name` in `root`: from the name for Voice Memos, else
    /// the file's date.
    std::optional<TimePoint> startTime(const std::filesystem::path& root, const std::string& name) const;

    /// Marks seen, once per Voice Memos folder indexed before ".qta" files were recordings,
    /// the ".qta" files made before the folder was first watched: history, as its other files
    /// were at its first index.
    void indexQtaHistory();
    /// The seen-set entry that says the folder's ".qta" files were indexed (a hidden name,
    /// which no listing offers).
    static constexpr std::string_view kQtaIndexedMarker = ".quillet-qta-indexed";

    /// Looks at the library again (cheap when it is unchanged) and logs a change of its
    /// health. True when what it knows changed.
    bool refreshLibrary();
    /// The library when its rows can be trusted now (read, or busy since a good read).
    const VoiceMemosLibrary* usableLibrary() const;
    /// The recording that the library lists for the file `name` (its own file, or the other
    /// form of it); nothing when none or without a library.
    const LibraryRecording* recordingOf(std::string_view name) const;
    /// Another file of the recording `name` (the same name with another extension) that the
    /// seen set holds as captured or as history: its name and entry; nothing when none.
    std::optional<std::pair<std::string, CaptureStateStore::State::SeenEntry>>
    siblingSeen(const std::string& name, const CaptureAccess::Listing& listed) const;
    /// The capture of `recording` made from another of its files in the folder before the
    /// library knew of it, now recorded as its identity; nothing when there is none.
    std::optional<CaptureIdentities::Entry> adoptedIdentity(const LibraryRecording& recording, const std::string& name,
                                                            const CaptureAccess::Listing& listed);
    /// After the library changed: renames in Voice Memos reach the notes that still hold the
    /// title this program wrote, and recordings waiting a day for their download are named.
    void followLibrary(const CaptureAccess::Listing& listed, bool changed);

    WatchedFolder folder_;
    CaptureStateStore& store_;
    bool runGuards_;
    runtime::Clock& clock_;
    CaptureGuards::Probes probes_;
    CaptureIntake* intake_;
    Vault vault_;
    std::filesystem::path firstWatchedFile_;
    /// The names skipped as no recording, each logged once while this watcher lives.
    std::set<std::string> reported_;
    /// Captured files seen changed, with what they were at the last poll.
    std::map<std::string, std::string> changing_;
    std::optional<std::string> folderStamp_;
    CaptureIdentities* identities_;
    std::unique_ptr<VoiceMemosLibrary> library_;
    std::optional<VoiceMemosLibrary::Health> reportedHealth_;
    /// Renames in Voice Memos whose note could not be settled yet.
    bool retitlePending_ = false;
    /// Library ids named in the log as waiting for their download, and when the waits were
    /// last looked at.
    std::set<std::string> reportedWaiting_;
    std::optional<TimePoint> waitsLookedAt_;
};

} // namespace quillet
