#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string_view>

namespace quillet {

/// When each watched folder was first watched: the line between the recordings that were
/// already there (history, never captured) and those that arrived for the program to capture.
/// Kept in "first-watched.json" beside the state file and never in it, so that a state file
/// that is lost or unreadable cannot take it along: a folder indexed afresh then still
/// captures every recording that arrived after this moment. A moment, once kept, never moves.
/// The file maps folder ids to milliseconds since 1970 (UTC). Any thread; calls of one
/// process are serialised.
namespace FirstWatched {

using TimePoint = std::chrono::system_clock::time_point;

/// The file beside the state file of `Paths`.
std::filesystem::path defaultFile();

/// The moment kept for `folderId` in `file`; when none is kept (or the file is unreadable),
/// keeps `fallback` and returns it. A failed write is logged; `fallback` is returned anyway.
TimePoint fix(std::string_view folderId, TimePoint fallback, const std::filesystem::path& file = defaultFile());

/// The moment kept for `folderId`, if any.
std::optional<TimePoint> find(std::string_view folderId, const std::filesystem::path& file = defaultFile());

} // namespace FirstWatched

} // namespace quillet
