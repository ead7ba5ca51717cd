#pragma once

#include <memory>
#include <optional>
#include <string>

namespace quillet {

/// The desktop's view of applications: whether one runs, where it is installed, and opening
/// it in the background. One back end per platform; tests substitute their own.
class Workspace {
public:
    virtual ~Workspace() = default;

    /// True when an application with `bundleId` is running now. Blocks briefly; any thread.
    virtual bool isRunning(const std::string& bundleId) = 0;

    /// Where the application with `bundleId` is installed; nothing when it is not. Any thread.
    virtual std::optional<std::string> applicationPath(const std::string& bundleId) = 0;

    /// Opens the application at `path` hidden and in the background, without activating it.
    /// Blocks until the system has accepted or refused; returns nothing on success, else the
    /// reason. Any thread.
    virtual std::optional<std::string> openHidden(const std::string& path) = 0;

    /// The workspace of this platform: Launch Services on macOS; on Linux one where no such
    /// application is ever running or installed.
    static std::shared_ptr<Workspace> system();
};

} // namespace quillet
