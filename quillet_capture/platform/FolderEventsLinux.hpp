#pragma once

#include <cstddef>
#include <span>
#include <vector>

// The part of the inotify back end of FolderEvents that reads no system state, apart so that
// tests can hand it records the kernel seldom writes (a queue overflow, a watch it removed).
namespace quillet::inotify {

/// What one read of an inotify descriptor asks of the watcher.
struct Batch {
    /// An entry of a watched folder changed, a watched folder itself went away, or the kernel
    /// dropped events: the owner should look.
    bool changed = false;
    /// Watch descriptors that ended or must end, each once, in the order first seen: the
    /// kernel removed them (IN_IGNORED), or their folder was deleted, moved away or unmounted.
    std::vector<int> gone;
};

/// Decodes `bytes`, whole `struct inotify_event` records with their names as read(2) returns
/// them. A record cut off at the end is ignored. An IN_IGNORED alone does not count as a
/// change: it also follows the owner's own inotify_rm_watch.
Batch decode(std::span<const std::byte> bytes);

} // namespace quillet::inotify
