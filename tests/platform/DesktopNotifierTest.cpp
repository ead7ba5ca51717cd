#include "quillet_capture/platform/DesktopNotifier.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quillet {
namespace {

// The macOS notifier cannot run here; the command it runs is shared code, checked here.

const std::vector<std::string> kScript = {
    "-e", "on run argv",
    "-e", "display notification (item 3 of argv) with title (item 2 of argv)",
    "-e", "end run",
    "quillet-capture",
};

TEST(DesktopNotifier, OsascriptGetsTheTextsAsPlainArgumentsAfterAConstantScript)
{
    const std::vector<std::pair<std::string, std::string>> hostile = {
        {"Transcript ready", "240301-080000: its note has the transcript."},
        {"\" & do shell script \"touch /tmp/owned\" & \"", "end run\non run argv"},
        {"back\\slash \"quotes\" 'single'", "\\\" & (do shell script \"id\") & \\\""},
        {"-e", "do shell script \"id\""},
        {"--", "-l JavaScript"},
        {"", ""},
    };
    for (const auto& [title, body] : hostile) {
        auto command = DesktopNotifier::osascriptCommand(title, body);
        EXPECT_EQ(command.executable, "/usr/bin/osascript");
        ASSERT_EQ(command.arguments.size(), kScript.size() + 2) << title;
        EXPECT_EQ(std::vector<std::string>(command.arguments.begin(), command.arguments.begin() + kScript.size()),
                  kScript)
            << "the script never holds a text: " << title;
        EXPECT_EQ(command.arguments[kScript.size()], title);
        EXPECT_EQ(command.arguments[kScript.size() + 1], body);
    }
}

TEST(DesktopNotifier, TextsAreMadeWhatAnArgumentAndANotificationCanHold)
{
    auto command = DesktopNotifier::osascriptCommand(std::string("a\0b\tc\x7F", 6), "bad \xFF\xFE bytes\nsecond line");
    EXPECT_EQ(command.arguments[kScript.size()], "a b c ") << "no NUL (which would end the argument) nor control";
    EXPECT_EQ(command.arguments[kScript.size() + 1], "bad \xEF\xBF\xBD\xEF\xBF\xBD bytes\nsecond line");

    std::string longTitle(1000, 'x');
    std::string cut = DesktopNotifier::plainText(longTitle);
    EXPECT_EQ(cut, std::string(DesktopNotifier::longestText - 1, 'x') + "\xE2\x80\xA6");
    std::string accents;
    for (int i = 0; i < 400; ++i) {
        accents += "\xC3\xA9";  // é: cut between characters, never inside one
    }
    EXPECT_EQ(DesktopNotifier::plainText(accents).substr(0, 4), "\xC3\xA9\xC3\xA9");
    EXPECT_EQ(DesktopNotifier::plainText(accents).size(), (DesktopNotifier::longestText - 1) * 2 + 3);
}

} // namespace
} // namespace quillet
