#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// The built program in a scratch home that is set up, paired and whose settings point at a
// fake service, with a `systemctl` and a URL opener that only note that they were called: a
// command that acts leaves a trace in the home or at the service.
struct HelpAndOptionsTest : ::testing::Test {
    test::ScratchHome home;
    test::FakeVeldane fake;
    test::ScratchDir bin;
    fs::path vault = home.path() / "vault";
    fs::path watched = home.path() / "Recordings";

    HelpAndOptionsTest()
    {
        toolVersion = "1.7.3";
        fs::create_directories(vault / "_inbox");
        fs::create_directories(watched);
        test::writeWav(watched / "before.wav", 8000, 16000);
        test::writeSettings([&](AppSettings& s) {
            s.vaultPath = vault.string();
            s.veldaneBaseURL = fake.baseURL();
            s.captureVeldaneEnabled = true;
            s.watchedFoldersRaw = std::vector{WatchedFolder::generic(watched.string())};
        });
        test::writeFile(Paths::credentialsFile(), "tok_abcdefghijklmnopqrstuvwxyz");
        for (const char* tool : {"systemctl", "open-url"}) {
            test::writeFile(bin.path() / tool, std::string("#!/bin/sh\necho \"$@\" >> '") +
                                                   (home.path() / (std::string(tool) + ".calls")).string() + "'\n");
            fs::permissions(bin.path() / tool, fs::perms::owner_all);
        }
    }

    test::ProcessResult run(const std::vector<std::string>& arguments)
    {
        return test::runProcess(test::programPath(), arguments,
                                {{"PATH", bin.path().string() + ":" + std::getenv("PATH")},
                                 {"QUILLET_TOKEN_STORE", "file"},
                                 {"QUILLET_URL_OPENER", (bin.path() / "open-url").string()}},
                                30);
    }

    // Every file under the home with its bytes, size and time: what a command must leave.
    std::map<std::string, std::optional<test::FileFacts>> homeNow() const
    {
        std::map<std::string, std::optional<test::FileFacts>> files;
        for (const auto& entry : fs::recursive_directory_iterator(home.path())) {
            files[entry.path().string()] = entry.is_regular_file() ? test::factsOf(entry.path()) : std::nullopt;
        }
        return files;
    }
};

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(HelpAndOptionsTest, HelpOfEveryCommandPrintsItsHelpAndDoesNothingElse)
{
    const auto before = homeNow();
    for (const auto& command : commandTable()) {
        const std::string& word = command.words.front();
        const std::string expected = helpText(command) + "\n";
        const std::vector<std::vector<std::string>> asks = {
            {word, "--help"},
            {word, "-h"},
            {"help", word},
            // Whatever else is on the line: help wins over options, values and typos.
            {word, "--vault", (home.path() / "elsewhere").string(), "--bogus", "-h"},
            {word, "extra", "--help", "--since"},
        };
        for (const auto& ask : asks) {
            SCOPED_TRACE(testing::PrintToString(ask));
            auto result = run(ask);
            EXPECT_EQ(result.status, 0) << result.errors;
            EXPECT_EQ(result.output, expected);
            EXPECT_EQ(result.errors, "");
        }
        // Every option of the command is in its help, with its value.
        for (const auto& option : command.options) {
            EXPECT_NE(expected.find(option.name + (option.placeholder.empty() ? "" : " " + option.placeholder)),
                      std::string::npos)
                << word << " " << option.name;
        }
        EXPECT_NE(expected.find("Example: quillet-capture " + word), std::string::npos) << word;
        EXPECT_NE(expected.find("Exit status: 0"), std::string::npos) << word;
        EXPECT_NE(expected.find("Changes: "), std::string::npos) << word;
    }
    EXPECT_EQ(homeNow(), before) << "a request for help wrote, moved or removed a file";
    EXPECT_EQ(fake.requestCount(), 0u) << "a request for help reached the service";
    EXPECT_FALSE(fs::exists(Paths::agentDefinition())) << "a request for help installed the agent";

    auto usage = run({"help"});
    EXPECT_EQ(usage.status, 0);
    EXPECT_EQ(usage.output, usageText() + "\n");
    auto unknown = run({"help", "frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.output, "");
    EXPECT_EQ(linesOf(unknown.errors).size(), 1u) << unknown.errors;
}

TEST_F(HelpAndOptionsTest, WrongOptionsAreRefusedWithOneLineBeforeAnythingHappens)
{
    std::vector<std::vector<std::string>> wrong;
    for (const auto& command : commandTable()) {
        const std::string& word = command.words.front();
        wrong.push_back({word, "--bogus"});
        wrong.push_back({word, "-x"});
        if (command.maxOperands == 0) {
            wrong.push_back({word, "stray"});
        }
        for (const auto& option : command.options) {
            if (option.value == Option::Value::none) {
                wrong.push_back({word, option.name + "=yes"});
                if (!option.repeatable) {
                    wrong.push_back({word, option.name, option.name});
                }
                continue;
            }
            // Without its value: at the end, or followed by another option.
            wrong.push_back({word, option.name});
            wrong.push_back({word, option.name, "--verbose"});
            if (option.value == Option::Value::day) {
                wrong.push_back({word, option.name, "2025-13-01"});
                wrong.push_back({word, option.name, "yesterday"});
            }
            if (option.value == Option::Value::folder) {
                wrong.push_back({word, option.name, ""});
            }
        }
    }
    // The mistakes a person makes: a typo, a value forgotten before the next option.
    wrong.push_back({"setup", "--vaul", (home.path() / "x").string()});
    wrong.push_back({"setup", "--vault", "--no-upload"});
    wrong.push_back({"import-existing", "--sinc", "2025-01-01"});
    wrong.push_back({"status", "-q"});
    wrong.push_back({"retry", "--all"});
    wrong.push_back({"help", "setup", "sync"});

    const auto before = homeNow();
    for (const auto& arguments : wrong) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        auto result = run(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.output, "");
        auto lines = linesOf(result.errors);
        ASSERT_EQ(lines.size(), 1u) << result.errors;
        EXPECT_TRUE(lines[0].starts_with(arguments[0] + ": ")) << lines[0];
    }
    EXPECT_EQ(homeNow(), before) << "a refused command line wrote, moved or removed a file";
    EXPECT_EQ(fake.requestCount(), 0u) << "a refused command line reached the service";

    auto typo = run({"setup", "--vaul", "x"});
    EXPECT_EQ(typo.errors,
              "setup: unknown option \"--vaul\"; did you mean --vault? (see quillet-capture setup --help)\n");
    auto missing = run({"import-existing", "--since"});
    EXPECT_EQ(missing.errors,
              "import-existing: --since needs a value: YYYY-MM-DD (see quillet-capture import-existing --help)\n");
}

TEST_F(HelpAndOptionsTest, OneShotCommandsKeepTheirLogLinesOffTheTerminalUnlessAskedFor)
{
    // setup logs when it fixes the retry watermark; the line belongs in the log file.
    auto quiet = run({"setup", "--vault", vault.string(), "--watch", watched.string()});
    ASSERT_EQ(quiet.status, 0) << quiet.errors;
    EXPECT_EQ(quiet.errors, "");
    EXPECT_EQ(quiet.output.find("[quillet]"), std::string::npos) << quiet.output;
    auto logged = test::logMessages();
    ASSERT_FALSE(logged.empty()) << "setup logged nothing: the check below would prove nothing";

    // The same command twice: without --verbose its log lines stay off the terminal, with it
    // they show there too.
    const auto logLines = test::logMessages().size();
    auto installed = run({"install"});
    ASSERT_EQ(installed.status, 0) << installed.errors;
    EXPECT_EQ(installed.errors.find("[quillet]"), std::string::npos) << installed.errors;
    ASSERT_GT(test::logMessages().size(), logLines) << "install logged nothing: the check would prove nothing";
    auto verbose = run({"install", "--verbose"});
    ASSERT_EQ(verbose.status, 0) << verbose.errors;
    EXPECT_NE(verbose.errors.find("[quillet] "), std::string::npos) << verbose.errors;
    EXPECT_EQ(verbose.output.find("[quillet]"), std::string::npos) << verbose.output;
}

} // namespace
} // namespace quillet
