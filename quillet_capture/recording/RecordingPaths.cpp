#include "quillet_capture/recording/RecordingPaths.hpp"

#include "quillet_capture/platform/Paths.hpp"

namespace quillet::RecordingPaths {

std::filesystem::path root()
{
    return Paths::recordingsRoot();
}

std::filesystem::path workFolder(std::string_view id)
{
    return root() / id;
}

std::filesystem::path sidecarFile(std::string_view id)
{
    return workFolder(id) / "recording.json";
}

} // namespace quillet::RecordingPaths
