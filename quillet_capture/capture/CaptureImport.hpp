#pragma once

#include "quillet_capture/config/WatchedFolder.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quillet {

class CaptureIdentities;
class CaptureStateStore;

/// The deliberate way back to recordings that were already in Voice Memos when capture was
/// set up: the first index marked them seen, and this forgets them again so that the agent's
/// next poll captures them like new ones. It neither copies nor uploads anything itself.
namespace CaptureImport {

using TimePoint = std::chrono::system_clock::time_point;

/// What `queueExisting` did.
struct Result {
    std::string folderPath;  // the Voice Memos folder that was read
    int picked = 0;          // recordings selected
    int wereSeen = 0;        // of them, how many were in the seen set and were forgotten
    int deleted = 0;         // left out: in Recently Deleted in Voice Memos
    int removed = 0;         // left out: their notes were made and the person removed them
    /// The picked recordings that have a title in Voice Memos: file name and title.
    std::vector<std::pair<std::string, std::string>> titles = {};
};

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

} // namespace CaptureImport
} // namespace quillet
