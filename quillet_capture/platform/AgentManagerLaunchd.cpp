#include "quillet_capture/platform/AgentManager.hpp"

#include <unistd.h>

namespace quillet {

namespace {

// Property-list strings are XML text: the three characters that XML reserves are escaped.
std::string xmlText(std::string_view text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

// The label is the base name of the property list (se.Brannick.quillet.capture).
std::string label(const Paths::Layout& layout)
{
    return layout.agentDefinition.stem().string();
}

} // namespace

LaunchdAgentManager::LaunchdAgentManager(std::string launchctl)
    : launchctl_(std::move(launchctl))
{
}

Paths::Layout LaunchdAgentManager::layout() const
{
    return Paths::layout(Platform::macOS);
}

std::string LaunchdAgentManager::domainTarget()
{
    return "gui/" + std::to_string(::getuid());
}

std::string LaunchdAgentManager::definition(const std::string& executable) const
{
    Paths::Layout where = layout();
    std::string output = xmlText(where.agentOutputFile.string());
    // The layout of Foundation's XML property lists: keys sorted, one tab per level.
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n"
           "<dict>\n"
           "\t<key>KeepAlive</key>\n"
           "\t<true/>\n"
           "\t<key>Label</key>\n"
           "\t<string>" +
           xmlText(label(where)) +
           "</string>\n"
           "\t<key>ProgramArguments</key>\n"
           "\t<array>\n"
           "\t\t<string>" +
           xmlText(executable) +
           "</string>\n"
           "\t\t<string>run</string>\n"
           "\t</array>\n"
           "\t<key>RunAtLoad</key>\n"
           "\t<true/>\n"
           "\t<key>StandardErrorPath</key>\n"
           "\t<string>" +
           output +
           "</string>\n"
           "\t<key>StandardOutPath</key>\n"
           "\t<string>" +
           output +
           "</string>\n"
           "\t<key>ThrottleInterval</key>\n"
           "\t<integer>30</integer>\n"
           "</dict>\n"
           "</plist>\n";
}

bool LaunchdAgentManager::agentLoaded()
{
    return shell(launchctl_, {"print", domainTarget() + "/" + label(layout())}).status == 0;
}

void LaunchdAgentManager::unload(const std::filesystem::path& definition)
{
    shell(launchctl_, {"bootout", domainTarget(), definition.string()});
}

ShellResult LaunchdAgentManager::load(const std::filesystem::path& definition)
{
    return shell(launchctl_, {"bootstrap", domainTarget(), definition.string()});
}

} // namespace quillet
