#include "quillet_capture/platform/AgentManager.hpp"

#include "quillet_capture/util/Utf8.hpp"

#include <unistd.h>

namespace quillet {

namespace {

// `text` with control characters, and every byte above 0x7F when the text is not UTF-8,
// written \xNN, so that the error below shows the path on one line as it is.
std::string visible(std::string_view text)
{
    bool valid = Utf8::isValid(text);
    std::string shown;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !valid)) {
            static constexpr char kHex[] = "0123456789ABCDEF";
            shown += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
        } else {
            shown += c;
        }
    }
    return shown;
}

// Property-list strings are XML text: the three characters that XML reserves are escaped.
// XML cannot hold control characters (a line break or carriage return would come back
// changed) nor bytes that are not UTF-8, and launchd would refuse the list with an opaque
// error; such a path is refused here with one that says what to do.
std::string xmlText(std::string_view text)
{
    bool control = false;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        control = control || byte < 0x20 || byte == 0x7F;
    }
    if (control || !Utf8::isValid(text) || text.find("\xEF\xBF\xBE") != std::string_view::npos ||
        text.find("\xEF\xBF\xBF") != std::string_view::npos) {
        throw AgentManager::Error("A LaunchAgent cannot hold this path (it has control characters or is not UTF-8): " +
                                  visible(text) + ". Move quillet-capture to a folder whose path has neither.");
    }
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

LaunchdAgentManager::LaunchdAgentManager(std::string launchctl, runtime::Clock& clock)
    : launchctl_(std::move(launchctl)),
      clock_(clock)
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

bool LaunchdAgentManager::labelLoaded(const std::string& name)
{
    return shell(launchctl_, {"print", domainTarget() + "/" + name}).status == 0;
}

bool LaunchdAgentManager::agentLoaded()
{
    return labelLoaded(label(layout()));
}

void LaunchdAgentManager::unload(const std::filesystem::path& definition)
{
    shell(launchctl_, {"bootout", domainTarget(), definition.string()});
    constexpr runtime::Clock::Seconds kPause{0.1};
    auto deadline = clock_.now() + kBootoutWait;
    while (labelLoaded(definition.stem().string()) && clock_.now() < deadline) {
        clock_.sleep(kPause);
    }
}

std::string LaunchdAgentManager::temporaryLocationText() const
{
    return "Move the quillet-capture folder somewhere permanent first (for example\n"
           "~/Applications/quillet-capture/) and run install from there. The LaunchAgent\n"
           "and the Full Disk Access grant both point at this exact path.";
}

ShellResult LaunchdAgentManager::load(const std::filesystem::path& definition)
{
    return shell(launchctl_, {"bootstrap", domainTarget(), definition.string()});
}

} // namespace quillet
