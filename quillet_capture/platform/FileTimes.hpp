#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

namespace quillet::FileTimes {

/// When `file` was created (its birth time), or its last modification when the file system
/// keeps no birth time; nothing when the file cannot be read. Any thread.
std::optional<std::chrono::system_clock::time_point> created(const std::filesystem::path& file);

} // namespace quillet::FileTimes
