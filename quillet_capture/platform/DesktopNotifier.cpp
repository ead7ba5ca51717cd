#include "quillet_capture/platform/DesktopNotifier.hpp"

#include "quillet_capture/util/Utf8.hpp"

namespace quillet {

std::string DesktopNotifier::plainText(std::string_view text)
{
    std::u32string characters = Utf8::codePoints(text);
    for (auto& character : characters) {
        if ((character < 0x20 && character != U'\n') || character == 0x7F) {
            character = U' ';
        }
    }
    if (characters.size() > longestText) {
        characters.resize(longestText - 1);
        characters += U'\u2026';
    }
    return Utf8::encoded(characters);
}

Process::Command DesktopNotifier::osascriptCommand(const std::string& title, const std::string& body)
{
    // osascript passes the arguments after the script to its run handler as a list of strings.
    // Its option parsing stops at the first argument that is not an option; that is always the
    // fixed "quillet-capture", so a text beginning with "-" cannot become an option (say, "-e"
    // with a line of script).
    return {"/usr/bin/osascript",
            {
                "-e", "on run argv",
                "-e", "display notification (item 3 of argv) with title (item 2 of argv)",
                "-e", "end run",
                "quillet-capture",
                plainText(title),
                plainText(body),
            }};
}

} // namespace quillet
