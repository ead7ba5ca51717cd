#pragma once

#include "quillet_capture/config/WatchedFolder.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quillet {

class CaptureIdentities;
class CaptureStateStore;

/// The deliberate way back to recordings that were already in a watched folder (Voice Memos or
/// any other) when it was first watched: the first index marked them seen, and this forgets
/// them again so that the agent's next poll captures them like new ones, through the agent's
/// own journal. It neither copies nor uploads anything itself.
namespace CaptureImport {

using TimePoint = std::chrono::system_clock::time_point;

/// One picked recording: its file name and when it was made (from a Voice Memos name, else
/// the file's modification time; nothing when neither can be read).
struct Picked {
    std::string name;
    std::optional<TimePoint> date;
    bool operator==(const Picked&) const = default;
};

/// What `queueExisting` did (or, in a dry run, would do) in one folder.
struct Result {
    std::string folderPath;  // the folder that was read
    int picked = 0;          // recordings selected
    int wereSeen = 0;        // of them, how many were in the seen set and were forgotten
    int deleted = 0;         // left out: in Recently Deleted in Voice Memos
    int removed = 0;         // left out: their notes were made and the person removed them
    /// The picked recordings that have a title in Voice Memos: file name and title.
    std::vector<std::pair<std::string, std::string>> titles = {};
    std::string folderId = {};
    /// The picked recordings, by name.
    std::vector<Picked> recordings = {};
    int duplicates = 0;  // left out: the same file or bytes as a recording picked before
    /// The agent has not indexed the folder yet (or it was never watched): nothing in it is
    /// history yet, so nothing is picked.
    bool notIndexed = false;
    /// The folder does not exist (only said when several folders were asked for).
    bool missing = false;
};

/// Whether queueing changes anything.
enum class Mode { queue, dryRun };

/// The recordings picked from the Voice Memos folder.
struct Selection {
    WatchedFolder folder;            // the built-in Voice Memos folder, enabled
    std::vector<std::string> names;  // file names, ascending
};

/// The one failure: the folder could not be listed (`unreadable`). what() is
/// "Cannot read " + path + ": " + reason.
class Failure : public std::runtime_error {
public:
    enum class Kind { unreadable };

    /// `reason` is the system's description of the listing error.
    static Failure unreadable(std::string path, std::string reason);

    Kind kind() const { return Kind::unreadable; }
    const std::string& path() const { return path_; }
    const std::string& reason() const { return reason_; }

private:
    Failure(std::string path, std::string reason);

    std::string path_;
    std::string reason_;
};

/// The Voice Memos folder (CaptureAccess::voiceMemosURL) and the names in it, hidden ones
/// included, whose lower-cased extension is an audio extension (m4a, wav), sorted. With
/// `since`, only names that begin with eight digits forming a day ("yyyyMMdd", the local day
/// of `since`) on or after that day: Voice Memos names start with their recording day, so the
/// day in the name decides, not a file date. Throws Failure when the folder cannot be listed
/// (also when it does not exist). Any thread.
Selection voiceMemosRecordings(std::optional<TimePoint> since);

/// Whether the note of the recording `name` of a folder was made and the person removed it.
using RemovedByPerson = std::function<bool(const std::string& name)>;

/// Selects as above, leaves out what the Voice Memos library has in Recently Deleted and what
/// `removedByPerson` says the person removed, and forgets the selected names in `store`'s Voice Memos set (which keeps the folder marked as
/// indexed) and, in `identities`, that their recordings were there before capture was set
/// up; logs how many were queued when there were any. Throws Failure from the selection.
/// Any thread.
Result queueExisting(std::optional<TimePoint> since, CaptureStateStore& store,
                     CaptureIdentities* identities = nullptr, const RemovedByPerson& removedByPerson = nullptr);

/// The same on the agent's shared state store.
Result queueExisting(std::optional<TimePoint> since, const RemovedByPerson& removedByPerson = nullptr);

/// The recordings of the generic folder `folder` that were there before it was first watched
/// (the moment kept in `firstWatchedFile`): its audio files (the folder's extensions, else the
/// default audio set; hidden names and what is no regular file skipped) modified before that
/// moment and, with `since`, on or after `since`, sorted by name. Files that the seen set
/// holds as captured are left out. None when no moment is kept or `store` has not indexed the
/// folder. Throws Failure when the folder cannot be listed. Any thread.
Selection folderRecordings(const WatchedFolder& folder, std::optional<TimePoint> since, const CaptureStateStore& store,
                           const std::filesystem::path& firstWatchedFile);

/// Whether the note of recording `name` of the folder `folderId` was removed by the person.
using RemovedFromFolder = std::function<bool(const std::string& folderId, const std::string& name)>;
/// Told after each batch of the queueing: how many recordings are queued so far, of how many.
using Progress = std::function<void(int done, int total)>;

/// `queueExisting` over several watched folders (the Voice Memos one as above, the others by
/// `folderRecordings`), one Result per folder in order. A file picked in an earlier folder
/// (the same file, or the same bytes) is picked once: later ones are counted as duplicates and
/// stay seen. With `Mode::dryRun` nothing is written and nothing logged. A folder that cannot
/// be listed throws Failure before anything is queued, so that a failure changes nothing;
/// only among several folders is one that does not exist reported as `missing` instead. Any
/// thread.
std::vector<Result> queueFolders(const std::vector<WatchedFolder>& folders, std::optional<TimePoint> since,
                                 CaptureStateStore& store, CaptureIdentities* identities,
                                 const RemovedFromFolder& removedByPerson, Mode mode, const Progress& progress = nullptr,
                                 const std::filesystem::path& firstWatchedFile = {});

} // namespace CaptureImport
} // namespace quillet
