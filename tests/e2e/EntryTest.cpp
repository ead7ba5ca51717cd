#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

TEST(EntryTest, NoCommandOrUnknownCommandPrintsUsageAndVersionFormsTheVersionAlone)
{
    test::ScratchHome home;
    toolVersion = "1.7.3";
    for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"Setup"}, {"frobnicate"}, {"RUN"}}) {
        auto result = test::runProcess(test::programPath(), arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, usageText() + "\n");
    }
    for (const char* word : {"version", "--version", "-v"}) {
        auto result = test::runProcess(test::programPath(), {word});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_EQ(result.output, "1.7.3\n") << word;
        EXPECT_EQ(result.errors, "") << word;
    }
}

// `run` without settings, with Voice Memos off, or with a broken settings file (which reads as
// the defaults, whose only folder is off, and is said to be broken) logs its start line and
// why, and fails.
TEST(EntryTest, RunWithoutSettingsOrAnEnabledFolderLogsTwoLinesAndFails)
{
    struct Case {
        std::optional<std::string> settings;
        std::string why;
        bool broken = false;
    };
    const std::vector<Case> cases = {
        {std::nullopt, "no settings file -- run setup first"},
        {R"({"vaultPath": "~/v", "vaultName": "v", "additionalPaths": [], "refreshInterval": 60, "recentDays": 7,
             "maxFiles": 500, "includeExtensions": [], "excludeDirs": [], "captureVoiceMemosEnabled": false})",
         "no watched folders enabled -- run setup"},
        {"{}", "no watched folders enabled -- run setup", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings.value_or("no settings"));
        test::ScratchHome home;
        if (c.settings) {
            test::writeFile(Paths::settingsFile(), *c.settings);
        }
        auto result = test::runProcess(test::programPath(), {"run"});
        EXPECT_EQ(result.status, 1);
        auto messages = test::logMessages();
        ASSERT_EQ(messages.size(), c.broken ? 3u : 2u);
        EXPECT_TRUE(messages[0].starts_with("[quillet] capture-cli: run 1.7.3 (")) << messages[0];
        if (c.broken) {
            EXPECT_TRUE(messages[1].starts_with("[quillet] capture-cli: settings file " +
                                                Paths::settingsFile().string() + " cannot be used ("))
                << messages[1];
        }
        EXPECT_EQ(messages.back(), "[quillet] capture-cli: " + c.why);
        // The same lines reach standard error (the system log's echo).
        EXPECT_NE(result.errors.find(c.why), std::string::npos);
    }
}

} // namespace
} // namespace quillet
