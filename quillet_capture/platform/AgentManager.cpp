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
    print("Removed the old pellam-capture " + name() + ".");
}

std::optional<std::string> AgentManager::homebrewOptPath(std::string_view executable)
{
    static constexpr std::string_view kCellar = "/Cellar/quillet-capture/";
    static constexpr std::string_view kProgram = "/bin/quillet-capture";
    auto cellar = executable.rfind(kCellar);
    if (cellar == std::string_view::npos || cellar == 0 || !executable.ends_with(kProgram)) {
        return std::nullopt;
    }
    auto versionStart = cellar + kCellar.size();
    auto versionEnd = executable.size() - kProgram.size();
    if (versionEnd <= versionStart) {
        return std::nullopt;
    }
    std::string_view version = executable.substr(versionStart, versionEnd - versionStart);
    if (version.find('/') != std::string_view::npos || version == "." || version == "..") {
        return std::nullopt;
    }
    return std::string(executable.substr(0, cellar)) + "/opt/quillet-capture/bin/quillet-capture";
}

bool AgentManager::inBuildFolder(const fs::path& executable)
{
    fs::path folder = executable.parent_path();
    for (const auto& part : folder) {
        std::string name = part.string();
        if (name == "build" || name.starts_with("build-")) {
            return true;
        }
    }
    std::error_code error;
    for (fs::path at = folder; !at.empty(); at = at.parent_path()) {
        if (fs::exists(at / "CMakeCache.txt", error)) {
            return true;
        }
        if (at == at.parent_path()) {
            break;
        }
    }
    return false;
}

std::string AgentManager::firstLine(std::string_view output)
{
    static constexpr std::string_view kBlank = " \t\r";
    while (!output.empty()) {
        auto end = output.find('\n');
        std::string_view line = output.substr(0, end);
        auto first = line.find_first_not_of(kBlank);
        if (first != std::string_view::npos) {
            return std::string(line.substr(first, line.find_last_not_of(kBlank) + 1 - first));
        }
        if (end == std::string_view::npos) {
            break;
        }
        output.remove_prefix(end + 1);
    }
    return "";
}

void AgentManager::install(const std::string& executable, const Print& print)
{
    removeOldPellamAgent(print);

    // A translocated or downloaded copy moves or disappears; an agent pointing at it would
    // break at the next login.
    if (executable.find("/AppTranslocation/") != std::string::npos ||
        executable.find("/Downloads/") != std::string::npos) {
        throw Error(temporaryLocationText());
    }

    // Homebrew replaces the Cellar folder at each upgrade and keeps its `opt` link pointing at
    // the new one; the link is recorded only when it leads to this very file.
    std::string program = executable;
    if (auto opt = homebrewOptPath(executable)) {
        std::error_code error;
        if (fs::equivalent(*opt, executable, error) && !error) {
            program = *opt;
        }
    }
    if (inBuildFolder(executable)) {
        print("Warning: this program lies in a build folder; the agent will run this very file, which a rebuild "
              "or a cleaned checkout removes.");
    }

    std::string text = definition(program);
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
    if (loaded.status != 0 && noSession(loaded)) {
        // Nothing would ever load it: a definition left behind would only claim an install.
        fs::remove(where.agentDefinition, ignored);
        throw Error(noSessionText(firstLine(loaded.output)));
    }
    if (loaded.status != 0) {
        throw Error(loadFailurePrefix() + loaded.output);
    }

    rlog("[quillet] capture-cli: " + name() + " installed (%@)", program);
    print("Installed. quillet-capture now runs at login and restarts if it stops.");
    print("  program: " + program);
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
    rlog("[quillet] capture-cli: " + name() + " removed");
    print("Removed. Capture no longer starts at login. Settings and " + tokenName() + " are kept.");
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
            std::string reason = noSession(loaded).value_or(firstLine(loaded.output));
            if (reason.empty()) {
                reason = "exit status " + std::to_string(loaded.status);
            }
            print("Could not restart the agent (" + reason + "); start it with: quillet-capture install");
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
