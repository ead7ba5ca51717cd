#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

// The job status of the note of `id` in `vault` ("" when there is none or it cannot be read).
std::string statusIn(const fs::path& vault, const std::string& id)
{
    try {
        return InboxWriter::readFrontmatter(vault / "_inbox" / (id + ".md")).vdJobStatus.value_or("");
    } catch (const std::exception&) {
        return "";
    }
}

bool hasNote(const fs::path& vault, const std::string& id)
{
    std::error_code error;
    return fs::exists(vault / "_inbox" / (id + ".md"), error);
}

test::ProcessResult setup(const std::vector<std::string>& options)
{
    std::vector<std::string> arguments{"setup"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return test::runProcess(test::programPath(), arguments);
}

// The person runs `setup --vault Other` while the agent runs and the service still works on a
// capture: setup says the agent took the change, new recordings go to the new vault, and the
// capture under way finishes in its note in the old vault. When that vault is moved away, the
// agent does not make it again (nor a note in the new vault): the capture waits, says so once,
// and goes on when the vault is back.
TEST(AgentSettingsChangeTest, ANewVaultTakesNewCapturesAndThoseUnderWayFinishInTheirNote)
{
    CaptureAgentHarness agent(11);
    const fs::path first = agent.vault();
    const fs::path second = agent.home() / "Other";
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 1'000'000});  // the service holds every capture
    ASSERT_TRUE(agent.startAndWait());

    auto pending = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return statusIn(first, pending.id) == "processing"; }, 30))
        << agent.agentOutput();

    auto result = setup({"--vault", second.string(), "--no-keep-voice-memos"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("The running agent (pid " + std::to_string(agent.pid()) +
                                 ") now uses these settings.\n"),
              std::string::npos)
        << result.output;

    auto later = agent.drop(2);
    ASSERT_TRUE(test::eventually([&] { return statusIn(second, later.id) == "processing"; }, 30))
        << agent.agentOutput();
    EXPECT_FALSE(hasNote(first, later.id));
    EXPECT_TRUE(fs::exists(second / "_inbox/.audio" / (later.id + ".m4a")));

    // The old vault goes away while its capture is still at the service, which then finishes.
    const fs::path away = agent.home() / "Moved away";
    fs::rename(first, away);
    agent.setPace({.processingPolls = 0});
    const std::string waits = "the vault of " + pending.id + " is gone";
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines(waits) == 1; }, 30)) << agent.agentOutput();
    ASSERT_TRUE(test::eventually([&] { return statusIn(second, later.id) == "done"; }, 30)) << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(3));  // polls, ticks and looks at the vault
    EXPECT_FALSE(fs::exists(first)) << "the moved vault was made again";
    EXPECT_FALSE(hasNote(second, pending.id)) << "the transcript went to a note in the new vault";
    EXPECT_EQ(statusIn(away, pending.id), "processing");
    EXPECT_EQ(test::countLogLines(waits), 1);

    fs::rename(away, first);
    ASSERT_TRUE(test::eventually([&] { return statusIn(first, pending.id) == "done"; }, 30)) << agent.agentOutput();
    EXPECT_NE(test::readFile(first / "_inbox" / (pending.id + ".md")).find(CaptureAgentHarness::transcriptOf(pending.id)),
              std::string::npos);
    EXPECT_FALSE(hasNote(second, pending.id));
    EXPECT_NE(test::readFile(second / "_inbox" / (later.id + ".md")).find(CaptureAgentHarness::transcriptOf(later.id)),
              std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
}

// A settings file that cannot be used (half written, hand edited) is said once and changes
// nothing: captures go on by the settings in use. With no agent running, setup says nothing of
// one.
TEST(AgentSettingsChangeTest, AnUnusableSettingsFileIsLoggedOnceAndCapturesGoOn)
{
    CaptureAgentHarness agent(12);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    ASSERT_TRUE(agent.startAndWait());

    const std::string unusable = "changed but cannot be used";
    // Saved whole, as an editor saves: a half-written file would be a version of its own.
    writeFileAtomically(Paths::settingsFile(), "{\"vaultPath\": \"" + (agent.home() / "Elsewhere").string() + "\"");
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines(unusable) == 1; }, 15)) << agent.agentOutput();

    agent.drop(1);
    agent.drop(2);
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(test::countLogLines(unusable), 1) << "said again at a later tick";
    EXPECT_FALSE(fs::exists(agent.home() / "Elsewhere"));
    EXPECT_EQ(agent.stop(), 0);
    agent.expectConsistent(true);

    auto result = setup({"--vault", agent.vault().string(), "--no-keep-voice-memos"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output.find("running agent"), std::string::npos) << result.output;
}

} // namespace
} // namespace quillet
