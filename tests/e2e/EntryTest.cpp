#include "quillet_capture/cli/Console.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

struct EntryTest : ::testing::Test {
    test::ScratchHome home;

    test::ProcessResult run(const std::vector<std::string>& arguments)
    {
        return test::runProcess(test::programPath(), arguments);
    }

    std::vector<std::string> logMessages()
    {
        std::vector<std::string> messages;
        for (const auto& line : test::readLines(home.path() / ".local/state/quillet/quillet.log")) {
            messages.push_back(line.substr(line.find(' ') + 1));
        }
        return messages;
    }
};

TEST_F(EntryTest, NoCommandOrUnknownCommandPrintsUsageAndSucceeds)
{
    toolVersion = "1.7.3";
    for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"Setup"}, {"frobnicate"}, {"RUN"}}) {
        auto result = run(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, usageText() + "\n");
    }
}

TEST_F(EntryTest, VersionFormsPrintTheVersionAlone)
{
    for (const char* word : {"version", "--version", "-v"}) {
        auto result = run({word});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_EQ(result.output, "1.7.3\n") << word;
        EXPECT_EQ(result.errors, "") << word;
    }
}

TEST_F(EntryTest, RunBeforeSetupLogsTwoLinesAndFails)
{
    auto result = run({"run"});
    EXPECT_EQ(result.status, 1);
    auto messages = logMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_TRUE(messages[0].starts_with("[quillet] capture-cli: run 1.7.3 (")) << messages[0];
    EXPECT_EQ(messages[1], "[quillet] capture-cli: no settings file -- run setup first");
    // The same lines reach standard error (the system log's echo).
    EXPECT_NE(result.errors.find("no settings file -- run setup first"), std::string::npos);
}
// The required keys of a settings file, with the Voice Memos capture switch as given.
std::string settingsWithVoiceMemos(bool enabled)
{
    return std::string(R"({"vaultPath": "~/v", "vaultName": "v", "additionalPaths": [], "refreshInterval": 60,
        "recentDays": 7, "maxFiles": 500, "includeExtensions": [], "excludeDirs": [],
        "captureVoiceMemosEnabled": )") + (enabled ? "true" : "false") + "}";
}

TEST_F(EntryTest, RunWithoutAnEnabledFolderLogsTwoLinesAndFails)
{
    test::writeFile(home.path() / ".config/quillet/settings.json", settingsWithVoiceMemos(false));
    auto result = run({"run"});
    EXPECT_EQ(result.status, 1);
    auto messages = logMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1], "[quillet] capture-cli: no watched folders enabled -- run setup");

    // A broken file reads as the defaults, whose only folder is off.
    test::writeFile(home.path() / ".config/quillet/settings.json", "{}");
    EXPECT_EQ(run({"run"}).status, 1);
    EXPECT_EQ(logMessages().back(), "[quillet] capture-cli: no watched folders enabled -- run setup");
}

TEST_F(EntryTest, SigtermStopsARunningAgentCleanly)
{
    test::writeFile(home.path() / ".config/quillet/settings.json", settingsWithVoiceMemos(true));
    test::ChildProcess agent(test::programPath(), {"run"});
    ASSERT_TRUE(test::eventually([&] { return !logMessages().empty(); }));
    // The handler is armed right after the start line; give the agent a moment to get there.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    agent.signal(SIGTERM);
    auto result = agent.wait(20);
    EXPECT_EQ(result.status, 0);
    auto messages = logMessages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "[quillet] capture-cli: stopping (SIGTERM)");
}

} // namespace
} // namespace quillet
