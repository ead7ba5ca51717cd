#include "quillet_capture/platform/AgentManager.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

AgentManager& AgentManager::current()
{
    static AgentManager* manager = Paths::current() == Platform::macOS
                                       ? static_cast<AgentManager*>(new LaunchdAgentManager())
                                       : static_cast<AgentManager*>(new SystemdAgentManager());
    return *manager;
}

void AgentManager::removeOldPellamAgent(const Print& print)
{
    fs::path old = layout().oldAgentDefinition;
    std::error_code error;
    if (!fs::exists(old, error)) {
        return;
    }
    unload(old);
    fs::remove(old, error);
    definitionRemoved();
    print("Removed the old pellam-capture LaunchAgent.");
}

void AgentManager::install(const std::string& executable, const Print& print)
{
    removeOldPellamAgent(print);

    // A translocated or downloaded copy moves or disappears; an agent pointing at it would
    // break at the next login.
    if (executable.find("/AppTranslocation/") != std::string::npos ||
        executable.find("/Downloads/") != std::string::npos) {
        throw Error("Move the quillet-capture folder somewhere permanent first (for example\n"
                    "~/Applications/quillet-capture/) and run install from there. The LaunchAgent\n"
                    "and the Full Disk Access grant both point at this exact path.");
    }

    std::string text = definition(executable);
    Paths::Layout where = layout();
    std::error_code ignored;
    fs::create_directories(where.logFolder, ignored);
    // The agent's output carries every log line, like the log, which is owner-only; the
    // service manager would create the file readable by everyone, and keeps the mode of one
    // that exists.
    int output = openRegularFile(where.agentOutputFile, O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (output >= 0) {
        ::fchmod(output, 0600);
        ::close(output);
    }

    try {
        fs::create_directories(where.agentDefinition.parent_path());
        writeFileAtomically(where.agentDefinition, text, 0644);
    } catch (const std::system_error& error) {
        throw Error("Could not write " + where.agentDefinition.string() + ": " + error.code().message());
    }

    // Unloading first makes a second install replace a loaded older copy.
    unload(where.agentDefinition);
    ShellResult loaded = load(where.agentDefinition);
    if (loaded.status != 0) {
        throw Error(loadFailurePrefix() + loaded.output);
    }

    rlog("[quillet] capture-cli: LaunchAgent installed (%@)", executable);
    print("Installed. quillet-capture now runs at login and restarts if it stops.");
    print("  program: " + executable);
    print("  agent:   " + where.agentDefinition.string());
    print("");
    print("Check it with: quillet-capture status");
}

void AgentManager::uninstall(const Print& print)
{
    fs::path file = definitionFile();
    unload(file);
    std::error_code ignored;
    if (fs::remove(file, ignored)) {
        definitionRemoved();
    }
    rlog("[quillet] capture-cli: LaunchAgent removed");
    print("Removed. Capture no longer starts at login. Settings and the Keychain token are kept.");
}

void AgentManager::withAgentStopped(const std::function<void()>& body, const Print& print)
{
    fs::path file = definitionFile();
    std::error_code ignored;
    const bool installed = fs::exists(file, ignored);
    if (agentLoaded()) {
        unload(file);
    }

    auto restart = [&] {
        if (!installed) {
            print("The capture agent is not installed. Run: quillet-capture install");
            return;
        }
        ShellResult loaded = load(file);
        if (loaded.status != 0) {
            print("Could not restart the agent: " + loaded.output + ". Run: quillet-capture install");
        }
    };
    try {
        body();
    } catch (...) {
        restart();
        throw;
    }
    restart();
}

} // namespace quillet
