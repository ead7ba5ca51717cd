#include "quillet_capture/pipeline/AfterTranscriptCommand.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <regex>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Real child processes through the login shell, in a scratch vault under a scratch home.
struct AfterTranscriptTest : ::testing::Test {
    test::ScratchHome home;
    fs::path vault = home.path() / "Vault";
    AfterTranscriptCommand command{600s};

    void SetUp() override { fs::create_directories(vault / "_inbox"); }

    void TearDown() override
    {
        // A run still going would log into whatever home comes next.
        EXPECT_TRUE(test::eventually([&] { return idle(); }, 20));
    }

    bool idle() const
    {
        for (const char* id : {"240101-120000", "240101-120001"}) {
            if (command.isRunning(id)) {
                return false;
            }
        }
        return true;
    }

    fs::path note(const std::string& id) const { return vault / "_inbox" / (id + ".md"); }

    void start(const std::string& id, const std::string& text, AfterTranscriptCommand* runner = nullptr)
    {
        (runner ? runner : &command)->transcriptWritten(id, note(id), text, vault);
    }

    bool finished(const std::string& id, AfterTranscriptCommand* runner = nullptr)
    {
        return test::eventually([&] { return !(runner ? runner : &command)->isRunning(id); }, 20);
    }

    static std::vector<std::string> messages()
    {
        QuilletLog::drain();
        std::vector<std::string> result;
        // A message may span lines (the output); lines without a time stamp continue the last.
        static const std::regex stamped(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d) )");
        for (const auto& line : test::readLines(Paths::logFile())) {
            std::smatch match;
            if (std::regex_search(line, match, stamped)) {
                result.push_back(line.substr(match.length()));
            } else if (!result.empty()) {
                result.back() += "\n" + line;
            }
        }
        return result;
    }
};

TEST_F(AfterTranscriptTest, RunsInTheVaultWithTheThreeVariablesAndLogsExitAndOutput)
{
    const std::string id = "240101-120000";
    start(id, "  printf '%s|%s|%s|%s' \"$QUILLET_ID\" \"$QUILLET_FILE\" \"$QUILLET_FOLDER\" \"$(pwd -P)\" > seen.txt\n"
              "  echo to-out; echo to-err >&2; cat; exit 3\n ");
    ASSERT_TRUE(finished(id));
    EXPECT_EQ(test::readFile(vault / "seen.txt"),
              id + "|" + note(id).string() + "|" + vault.string() + "|" + fs::canonical(vault).string());

    auto logged = messages();
    ASSERT_EQ(logged.size(), 3u) << ::testing::PrintToString(logged);
    EXPECT_TRUE(std::regex_match(logged[0], std::regex(R"(\[quillet\] after-transcript: started for 240101-120000 \(pid [1-9]\d*\))")))
        << logged[0];
    // `cat` ended at once: standard input is the null device.
    EXPECT_EQ(logged[1], "[quillet] after-transcript: 240101-120000 exited 3 after 0 s");
    EXPECT_EQ(logged[2], "[quillet] after-transcript: 240101-120000 output (end):\\nto-out\\nto-err");
}

TEST_F(AfterTranscriptTest, BlankCommandRunsAndLogsNothing)
{
    start("240101-120000", " \t\n\r  ");
    start("240101-120000", "");
    EXPECT_FALSE(command.isRunning("240101-120000"));
    EXPECT_TRUE(messages().empty());
}

// A silent command logs no output line; only the last 2000 bytes of output are logged, without
// the final line feed, on one line (its line breaks written as escapes); output that is not
// UTF-8 is repaired.
TEST_F(AfterTranscriptTest, TheOutputLineHoldsTheRepairedTailOfTheOutput)
{
    const std::string head = "[quillet] after-transcript: 240101-120000 output (end):\\n";
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
        {"true", std::nullopt},
        // 3000 "a", "END" and a line feed: the tail is 1996 "a", "END" and the line feed.
        {"head -c 3000 /dev/zero | tr '\\0' a; echo END", head + std::string(1996, 'a') + "END"},
        {"printf 'caf\\303\\251 \\351t\\351'", head + "caf\xC3\xA9 \xEF\xBF\xBDt\xEF\xBF\xBD"},
    };
    std::size_t before = 0;
    for (const auto& [script, output] : cases) {
        start("240101-120000", script);
        ASSERT_TRUE(finished("240101-120000")) << script;
        auto logged = messages();
        ASSERT_EQ(logged.size(), before + (output ? 3 : 2)) << script;
        EXPECT_EQ(logged[before + 1], "[quillet] after-transcript: 240101-120000 exited 0 after 0 s") << script;
        if (output) {
            EXPECT_EQ(logged.back(), *output);
        }
        before = logged.size();
    }
}

TEST_F(AfterTranscriptTest, SameIdIsNotStartedTwiceWhileRunningButOthersRunAlongside)
{
    const std::string wait = "while [ ! -e release ]; do sleep 0.05; done; echo released";
    start("240101-120000", wait);
    start("240101-120000", wait);
    start("240101-120001", wait);
    EXPECT_TRUE(command.isRunning("240101-120000"));
    EXPECT_TRUE(command.isRunning("240101-120001"));
    test::writeFile(vault / "release", "");
    ASSERT_TRUE(finished("240101-120000"));
    ASSERT_TRUE(finished("240101-120001"));

    // The first start's own line may be logged before or after the refusal of the second.
    auto logged = messages();
    EXPECT_EQ(std::count(logged.begin(), logged.end(),
                         "[quillet] after-transcript: 240101-120000 already running; not started again"),
              1);
    EXPECT_EQ(std::count_if(logged.begin(), logged.end(),
                            [](const std::string& m) { return m.starts_with("[quillet] after-transcript: started for "); }),
              2);

    // Idle again: the next transcript for the id runs the command again.
    start("240101-120000", "echo again");
    ASSERT_TRUE(finished("240101-120000"));
    EXPECT_EQ(messages().back(), "[quillet] after-transcript: 240101-120000 output (end):\\nagain");
}

TEST_F(AfterTranscriptTest, CommandOverTheTimeLimitIsStoppedWithEverythingItStarted)
{
    AfterTranscriptCommand quick(0.3s);
    start("240101-120000", "sleep 30 & echo $! > background.pid; echo waiting; wait", &quick);
    ASSERT_TRUE(finished("240101-120000", &quick));

    auto logged = messages();
    ASSERT_EQ(logged.size(), 3u) << ::testing::PrintToString(logged);
    EXPECT_EQ(logged[1], "[quillet] after-transcript: 240101-120000 stopped after 0 s (time limit)");
    EXPECT_EQ(logged[2], "[quillet] after-transcript: 240101-120000 output (end):\\nwaiting");

    // The background sleep belonged to the command and went with it.
    pid_t background = std::stoi(test::readFile(vault / "background.pid"));
    EXPECT_TRUE(test::eventually([&] {
        auto state = test::runProcess("/bin/ps", {"-o", "stat=", "-p", std::to_string(background)});
        return state.output.empty() || state.output.front() == 'Z';
    }));
}

TEST_F(AfterTranscriptTest, MissingVaultFolderIsLoggedAndReleasesTheId)
{
    fs::path missing = home.path() / "Gone";
    command.transcriptWritten("240101-120000", missing / "_inbox/240101-120000.md", "echo hi", missing);
    ASSERT_TRUE(finished("240101-120000"));
    EXPECT_EQ(messages(), (std::vector<std::string>{"[quillet] after-transcript: could not start for 240101-120000: " +
                                                    missing.string() + ": No such file or directory"}));
}

} // namespace
} // namespace quillet
