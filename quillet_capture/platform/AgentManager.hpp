#pragma once

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quillet {

/// The background agent: writes and removes its definition (a LaunchAgent property list or
/// a systemd user unit), loads and unloads it with the service manager, tells whether it is
/// loaded, and stops it around work that must not overlap with it. Two back ends, launchd
/// and systemd; both are plain POSIX code and run anywhere with a fake service manager.
/// Everything runs on the main thread and waits for the service manager.
class AgentManager {
public:
    /// Writes one line of console output (the commands pass `out`).
    using Print = std::function<void(std::string_view)>;

    /// Ends `install`; what() is the exact text for the user.
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    virtual ~AgentManager() = default;

    /// The manager of the platform that runs this program: launchd on macOS, systemd
    /// elsewhere. Never destroyed.
    static AgentManager& current();

    /// The locations of this back end's platform for the environment now.
    virtual Paths::Layout layout() const = 0;

    /// Where the agent definition lives (`agentPlistURL`).
    std::filesystem::path definitionFile() const { return layout().agentDefinition; }

    /// The agent definition that runs `executable` with the argument "run". Throws Error when
    /// a path cannot be written into it.
    virtual std::string definition(const std::string& executable) const = 0;

    /// True when the service manager reports the agent loaded (launchd) or active (systemd).
    virtual bool agentLoaded() = 0;

    /// When the predecessor's agent definition exists: unloads it (result ignored), deletes
    /// it (failure ignored) and prints "Removed the old pellam-capture LaunchAgent.".
    /// Otherwise does nothing.
    void removeOldPellamAgent(const Print& print);

    /// The `install` command for the program at `executable`: removes the predecessor's
    /// agent, refuses a translocated or downloaded location before writing anything, writes
    /// the definition, reloads the agent, logs and prints the summary. Throws Error with the
    /// text to show when it cannot.
    void install(const std::string& executable, const Print& print);

    /// The `uninstall` command: unloads the agent, deletes its definition, logs and prints.
    /// Always succeeds.
    void uninstall(const Print& print);

    /// Runs `body` with the agent stopped and loads it again afterwards when its definition
    /// existed before; prints a line when it could not be restarted or is not installed.
    /// `body`'s exceptions pass through after the agent was restarted.
    void withAgentStopped(const std::function<void()>& body, const Print& print);

protected:
    /// Unloads the agent defined by `definition`; the result is ignored.
    virtual void unload(const std::filesystem::path& definition) = 0;

    /// Loads the agent defined by `definition`; the result tells whether it worked.
    virtual ShellResult load(const std::filesystem::path& definition) = 0;

    /// The text before the service manager's output when `install` cannot load the agent.
    virtual std::string loadFailurePrefix() const = 0;

    /// Called after a definition was deleted.
    virtual void definitionRemoved() {}
};

/// launchd: a property list in ~/Library/LaunchAgents, loaded with `launchctl` in the
/// user's GUI domain "gui/<uid>".
class LaunchdAgentManager final : public AgentManager {
public:
    /// `launchctl`: the program to run (tests pass a fake); `clock`: where the wait after a
    /// bootout sleeps.
    explicit LaunchdAgentManager(std::string launchctl = "/bin/launchctl",
                                 runtime::Clock& clock = runtime::systemClock());

    /// How long `unload` waits at most for launchd to let go of the label after a bootout.
    static constexpr std::chrono::seconds kBootoutWait{10};

    Paths::Layout layout() const override;
    std::string definition(const std::string& executable) const override;
    bool agentLoaded() override;

    /// "gui/" followed by the user id of this process.
    static std::string domainTarget();

protected:
    /// Boots the agent out, then waits until `launchctl print` no longer finds its label
    /// (at most kBootoutWait): bootout returns before launchd has let go of it, and a
    /// bootstrap in that window fails ("Bootstrap failed: 5: Input/output error").
    void unload(const std::filesystem::path& definition) override;
    ShellResult load(const std::filesystem::path& definition) override;
    std::string loadFailurePrefix() const override { return "launchctl bootstrap failed: "; }

private:
    bool labelLoaded(const std::string& label);

    std::string launchctl_;
    runtime::Clock& clock_;
};

/// systemd: a user unit in $XDG_CONFIG_HOME/systemd/user, managed with
/// `systemctl --user`. The unit's name is the definition's file name.
class SystemdAgentManager final : public AgentManager {
public:
    /// `systemctl`: the program to run; empty finds "systemctl" through `$PATH` at each call.
    explicit SystemdAgentManager(std::string systemctl = "");

    Paths::Layout layout() const override;
    std::string definition(const std::string& executable) const override;
    bool agentLoaded() override;

protected:
    void unload(const std::filesystem::path& definition) override;
    ShellResult load(const std::filesystem::path& definition) override;
    std::string loadFailurePrefix() const override { return "systemctl enable failed: "; }
    void definitionRemoved() override;

private:
    ShellResult systemctl(const std::vector<std::string>& arguments) const;

    std::string systemctl_;
};

} // namespace quillet
