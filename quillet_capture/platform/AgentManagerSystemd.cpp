#include "quillet_capture/platform/AgentManager.hpp"

namespace quillet {

namespace {

// ExecStart= splits its value at blanks and expands "%" specifiers and "$" variables, so a
// path with any of these is quoted and escaped; a plain path is written as it is.
std::string execArgument(std::string_view path)
{
    bool plain = path.find_first_of(" \t\"'\\%$;") == std::string_view::npos;
    if (plain) {
        return std::string(path);
    }
    std::string quoted = "\"";
    for (char c : path) {
        switch (c) {
        case '"':
            quoted += "\\\"";
            break;
        case '\\':
            quoted += "\\\\";
            break;
        case '%':
            quoted += "%%";
            break;
        case '$':
            quoted += "$$";
            break;
        default:
            quoted += c;
        }
    }
    return quoted + "\"";
}

// StandardOutput=append: takes the rest of the line as the path; only specifiers expand.
std::string specifierSafe(std::string_view path)
{
    std::string escaped;
    for (char c : path) {
        escaped += c;
        if (c == '%') {
            escaped += '%';
        }
    }
    return escaped;
}

} // namespace

SystemdAgentManager::SystemdAgentManager(std::string systemctl)
    : systemctl_(std::move(systemctl))
{
}

Paths::Layout SystemdAgentManager::layout() const
{
    return Paths::layout(Platform::linux);
}

std::string SystemdAgentManager::definition(const std::string& executable) const
{
    std::string output = specifierSafe(layout().agentOutputFile.string());
    return "[Unit]\n"
           "Description=quillet-capture: voice recordings to transcribed notes\n"
           "\n"
           "[Service]\n"
           "ExecStart=" +
           execArgument(executable) +
           " run\n"
           "Restart=always\n"
           "RestartSec=30\n"
           "StandardOutput=append:" +
           output +
           "\n"
           "StandardError=append:" +
           output +
           "\n"
           "\n"
           "[Install]\n"
           "WantedBy=default.target\n";
}

ShellResult SystemdAgentManager::systemctl(const std::vector<std::string>& arguments) const
{
    std::string program = systemctl_;
    if (program.empty()) {
        auto found = Process::findInPath("systemctl");
        if (!found) {
            return {-1, "systemctl: not found in PATH"};
        }
        program = *found;
    }
    std::vector<std::string> all{"--user"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return shell(program, all);
}

bool SystemdAgentManager::agentLoaded()
{
    return systemctl({"is-active", "--quiet", definitionFile().filename().string()}).status == 0;
}

void SystemdAgentManager::unload(const std::filesystem::path& definition)
{
    systemctl({"disable", "--now", definition.filename().string()});
}

ShellResult SystemdAgentManager::load(const std::filesystem::path& definition)
{
    // systemd reads unit files only when told to; without this a rewritten unit keeps its
    // old command line.
    ShellResult reloaded = systemctl({"daemon-reload"});
    if (reloaded.status != 0) {
        return reloaded;
    }
    return systemctl({"enable", "--now", definition.filename().string()});
}

std::optional<std::string> SystemdAgentManager::noSession(const ShellResult& result) const
{
    for (std::string_view words : {"Failed to connect to bus", "Failed to connect to user scope bus",
                                   "$DBUS_SESSION_BUS_ADDRESS and $XDG_RUNTIME_DIR not defined"}) {
        if (result.output.find(words) != std::string::npos) {
            return "no systemd user session here";
        }
    }
    return std::nullopt;
}

std::string SystemdAgentManager::noSessionText(const std::string& detail) const
{
    return "There is no systemd user session here (systemctl --user: " + detail +
           ").\n"
           "Log in to a desktop or SSH session with a user manager, or run `loginctl enable-linger $USER`\n"
           "once, then install again; or run `quillet-capture run` under another supervisor.";
}

std::string SystemdAgentManager::temporaryLocationText() const
{
    return "Move quillet-capture somewhere permanent first (for example ~/.local/bin/) and run\n"
           "install from there. The systemd user unit points at this exact path.";
}

void SystemdAgentManager::definitionRemoved()
{
    systemctl({"daemon-reload"});
}

} // namespace quillet
