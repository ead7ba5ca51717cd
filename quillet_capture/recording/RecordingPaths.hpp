#pragma once

#include <filesystem>
#include <string_view>

namespace quillet::RecordingPaths {

/// The companion recorder's folder: "quillet/Recordings" in the application-support folder
/// (the XDG data folder on Linux). Computed from the environment at each call.
std::filesystem::path root();

/// The folder of one recording: `root()` plus the recording id.
std::filesystem::path workFolder(std::string_view id);

/// The sidecar of one recording: "recording.json" in its work folder.
std::filesystem::path sidecarFile(std::string_view id);

} // namespace quillet::RecordingPaths
