#pragma once

#include <asio/any_io_executor.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace quillet {

/// Wakes its owner when the entries of watched folders change, so that the next poll can come
/// early. An event only wakes: it names no file, it may come when nothing new is there, and
/// some changes bring none (a folder that cannot be watched, a file written on a network
/// volume by another computer), so the poll stays the truth and keeps its own interval.
///
/// Not recursive: only entries directly in a watched folder count. What wakes: on Linux
/// (inotify) an entry created, deleted, renamed in or out, its attributes changed, or a file
/// closed after writing; writes to a file that stays open do not, so a recording being written
/// wakes the poll once, when its writer closes it. On macOS (kqueue) any change to the
/// folder's list of entries or to its attributes.
///
/// The owner calls `watch` with its folders at every poll (one stat per folder) and debounces
/// `changed` before polling: copying one file brings several calls. Neither back end has a
/// thread of its own: on Linux the executor's event loop waits for the inotify descriptor; on
/// macOS a dispatch source on the system's thread pool reads the kqueue and posts what it
/// read to the executor (Asio cannot wait for a kqueue, which takes no ioctl).
///
/// When the system has no watches or descriptors left, one line is logged and the object does
/// nothing from then on: every folder is left to polling.
class FolderEvents {
public:
    /// Returns an errno value with which arming `folder` fails, or 0 to arm it as usual. Tests
    /// use it to play a system without watches or descriptors left, or a folder that cannot be
    /// watched.
    using ArmFault = std::function<int(const std::filesystem::path& folder)>;

    /// `changed` is called on `executor`, a serial queue's (runtime::SerialQueue::executor(): one
    /// thread runs its work and waits for its descriptors), after events in one or more watched
    /// folders, once per batch the system hands over, and also when the system dropped events
    /// (its queue overflowed), which means "look at everything". It may destroy this object or
    /// call `watch`. No folder is watched until `watch` is called. Any thread.
    FolderEvents(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault = {});

    /// Stops every watch. Once it returns on the executor's thread, `changed` is not called
    /// again. On the executor's thread.
    ~FolderEvents();

    FolderEvents(const FolderEvents&) = delete;
    FolderEvents& operator=(const FolderEvents&) = delete;

    /// Makes the watched set exactly `folders` (absolute paths): watches the listed folders
    /// that exist and are not watched yet, watches again those that were replaced (another
    /// folder at the path) or whose watch ended (the folder was deleted, moved away or its
    /// volume unmounted), and stops watching folders no longer listed. A folder that does not
    /// exist or cannot be watched is left to polling and tried again at the next call. Never
    /// throws. On the executor's thread.
    void watch(const std::vector<std::filesystem::path>& folders);

    /// The folders with a live watch now, in path order. On the executor's thread.
    std::vector<std::filesystem::path> watched() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace quillet
