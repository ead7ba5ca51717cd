#pragma once

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
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

    /// What the person knows the agent definition as: "LaunchAgent" or "systemd user unit".
    virtual std::string name() const = 0;

    /// The path to record in the agent definition for the program at `executable`: when it
    /// lies in a Homebrew Cellar (`<prefix>/Cellar/quillet-capture/<version>/bin/quillet-capture`),
    /// Homebrew's stable link `<prefix>/opt/quillet-capture/bin/quillet-capture`, which an
    /// upgrade keeps pointing at the new version; none otherwise. Pure: looks at no file.
    static std::optional<std::string> homebrewOptPath(std::string_view executable);

    /// True when `executable` lies in a build folder, which a rebuild or a cleaned checkout
    /// empties: a folder on its path is named "build" or starts with "build-", or one of its
    /// folders holds a CMakeCache.txt.
    static bool inBuildFolder(const std::filesystem::path& executable);

    /// `output` as one line: its first line that is not blank, without blanks around it.
    static std::string firstLine(std::string_view output);

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
    /// agent, refuses a translocated or downloaded location before writing anything, warns
    /// about a build folder, records Homebrew's stable path for a Cellar copy, writes the
    /// definition, reloads the agent, logs and prints the summary. Throws Error with the text
    /// to show when it cannot; when the service manager has no session for this user, the
    /// definition it wrote is removed again.
    void install(const std::string& executable, const Print& print);

    /// The `uninstall` command: unloads the agent, deletes its definition, logs and prints.
    /// Always succeeds.
    void uninstall(const Print& print);

    /// Runs `body` with the agent stopped and loads it again afterwards when its definition
    /// existed before; prints one line when it could not be restarted (with the reason in a
    /// few words) or is not installed.
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

    /// The reason in a few words when `result` of the service manager says that it has no
    /// session for this user to talk to; none otherwise.
    virtual std::optional<std::string> noSession(const ShellResult&) const { return std::nullopt; }

    /// The text that ends `install` when there is no session: what is missing (`detail` being
    /// the service manager's first line) and the ways forward.
    virtual std::string noSessionText(const std::string& detail) const { return loadFailurePrefix() + detail; }

    /// The text that refuses a location that moves or disappears (a download folder).
    virtual std::string temporaryLocationText() const = 0;

    /// What `uninstall` calls the device token that it leaves where it is.
    virtual std::string tokenName() const = 0;
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
    std::string name() const override { return "LaunchAgent"; }

    /// "gui/" followed by the user id of this process.
    static std::string domainTarget();

protected:
    /// Boots the agent out, then waits until `launchctl print` no longer finds its label
    /// (at most kBootoutWait): bootout returns before launchd has let go of it, and a
    /// bootstrap in that window fails ("Bootstrap failed: 5: Input/output error").
    void unload(const std::filesystem::path& definition) override;
    ShellResult load(const std::filesystem::path& definition) override;
    std::string loadFailurePrefix() const override { return "launchctl bootstrap failed: "; }
    std::string temporaryLocationText() const override;
    std::string tokenName() const override { return "the Keychain token"; }

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
    std::string name() const override { return "systemd user unit"; }

protected:
    void unload(const std::filesystem::path& definition) override;
    ShellResult load(const std::filesystem::path& definition) override;
    std::string loadFailurePrefix() const override { return "systemctl enable failed: "; }
    void definitionRemoved() override;
    /// systemctl's own words when it finds no user manager: it cannot reach the user's bus
    /// (no login session, no lingering), or the environment names none.
    std::optional<std::string> noSession(const ShellResult& result) const override;
    std::string noSessionText(const std::string& detail) const override;
    std::string temporaryLocationText() const override;
    std::string tokenName() const override { return "the device token"; }

private:
    ShellResult systemctl(const std::vector<std::string>& arguments) const;

    std::string systemctl_;
};

} // namespace quillet
