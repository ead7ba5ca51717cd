#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <set>
#include <vector>

namespace quillet::FolderEventsWatchSet {

/// The part of `FolderEvents::watch` that both back ends share: makes the watched set of
/// `state` exactly `folders`. `State` has `available` (false once the system has nothing left),
/// `watches` (a map from folder to a watch with `device` and `inode`), `drop(iterator)` and
/// `arm(folder, stat of folder)`. A folder that is another folder now (another inode at the
/// path) or whose watch ended is armed again; one no longer listed is dropped.
template <typename State>
void reconcile(State& state, const std::vector<std::filesystem::path>& folders)
{
    if (!state.available) {
        return;
    }
    const std::set<std::filesystem::path> wanted(folders.begin(), folders.end());
    for (auto it = state.watches.begin(); it != state.watches.end();) {
        auto next = std::next(it);
        if (!wanted.count(it->first)) {
            state.drop(it);
        }
        it = next;
    }
    for (const auto& folder : wanted) {
        struct stat info {};
        const bool present = ::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
        auto it = state.watches.find(folder);
        if (it != state.watches.end()) {
            if (present && it->second.device == info.st_dev && it->second.inode == info.st_ino) {
                continue;
            }
            state.drop(it);
        }
        if (present) {
            state.arm(folder, info);
            if (!state.available) {
                return;
            }
        }
    }
}

/// The folders with a live watch, in path order.
template <typename State>
std::vector<std::filesystem::path> watched(const State& state)
{
    std::vector<std::filesystem::path> folders;
    for (const auto& entry : state.watches) {
        folders.push_back(entry.first);
    }
    return folders;
}

} // namespace quillet::FolderEventsWatchSet
