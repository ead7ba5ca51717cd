#pragma once

#include <filesystem>
#include <optional>

namespace quillet::AudioDuration {

/// The duration in seconds of the audio file at `file`: on macOS the number that
/// `/usr/bin/afinfo -b` prints (read by `CaptureGuards::parseDuration`), absent when afinfo
/// cannot be started, exits with a non-zero status or prints no duration; on Linux the length
/// from TagLib's audio properties, absent when TagLib reads no audio from the file or reports
/// a length of zero (what it does for files it cannot measure). Blocks; any thread.
std::optional<double> read(const std::filesystem::path& file);

} // namespace quillet::AudioDuration
