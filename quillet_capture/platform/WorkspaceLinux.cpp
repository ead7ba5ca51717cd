#include "quillet_capture/platform/Workspace.hpp"

namespace quillet {

namespace {

// Linux has no application bundles; the Apple applications asked about never exist here.
class LinuxWorkspace final : public Workspace {
public:
    bool isRunning(const std::string&) override { return false; }
    std::optional<std::string> applicationPath(const std::string&) override { return std::nullopt; }
    std::optional<std::string> openHidden(const std::string& path) override { return path + ": not found"; }
};

} // namespace

std::shared_ptr<Workspace> Workspace::system()
{
    static auto instance = std::make_shared<LinuxWorkspace>();
    return instance;
}

} // namespace quillet
