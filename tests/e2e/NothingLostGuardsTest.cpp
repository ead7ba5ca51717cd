// The agent's guards never throw a recording away for what it was at one look: the built
// program's `run` against the fake service, through CaptureAgentHarness, with recordings placed
// in a watched folder that is not Voice Memos.
#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/WavBytes.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

// Writes `bytes` over `file` in place (the same inode, the same size when `bytes` has it) and
// puts its modification time back, as `touch -r` after an edit does.
void rewriteInPlace(const fs::path& file, const std::string& bytes)
{
    const auto modified = fs::last_write_time(file);
    {
        std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    fs::last_write_time(file, modified);
}

// The contents of the audio copies in the vault.
std::multiset<std::string> copies(const CaptureAgentHarness& agent)
{
    std::multiset<std::string> contents;
    for (const auto& entry : fs::directory_iterator(agent.inbox() / ".audio")) {
        if (entry.path().extension() == ".m4a") {
            contents.insert(test::readFile(entry.path()));
        }
    }
    return contents;
}

// A WAV file whose header still says 0 data bytes (a recorder that writes its sizes only when
// it stops) is judged by the samples it holds, and captured; once its sizes are written it is
// the same recording, grown. One skipped as too short is
// captured once it holds enough: grown while the agent runs, finished while it is stopped, or
// rewritten in place with the same size and its modification time put back. What stays too
// short stays skipped, and nothing is captured twice.
TEST(NothingLost, AWavFileIsJudgedByItsSamplesAndASkippedFileAgainWhenItChanges)
{
    CaptureAgentHarness agent(31);
    auto synced = agent.watchSyncedFolder();
    ASSERT_TRUE(agent.startAndWait());
    auto skipped = [&](const std::string& name) {
        return test::eventually([&] { return test::countLogLines("skipping " + name + " (audio too short") >= 1; }, 60);
    };

    // 3 s of samples behind a header that says 0: captured at once.
    const auto unfinished = test::wavBytes(8000, 24000, 0);
    CaptureAgentHarness::place(synced / "dictation.wav", unfinished);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 1 && agent.uploadCount() == 1; }, 60))
        << agent.agentOutput();
    // The recorder goes on and writes the sizes when it stops: the same recording, grown (its
    // copy replaced, uploaded again), not a second one.
    const auto dictation = test::wavBytes(8000, 32000);
    rewriteInPlace(synced / "dictation.wav", dictation);
    ASSERT_TRUE(test::eventually([&] { return agent.uploadCount() == 2; }, 60)) << agent.agentOutput();
    EXPECT_EQ(agent.noteIds().size(), 1u);

    // 0.3 s: skipped; it goes on recording (its header still says 0.3 s): captured.
    CaptureAgentHarness::place(synced / "grows.wav", test::wavBytes(8000, 2400));
    ASSERT_TRUE(skipped("grows.wav")) << agent.agentOutput();
    std::ofstream(synced / "grows.wav", std::ios::binary | std::ios::app) << test::wavBytes(8000, 16000).substr(44);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 2; }, 60)) << agent.agentOutput();

    // Same size, other bytes, modification time put back: 0.2 s of 96 kHz become 2.5 s of 8 kHz.
    CaptureAgentHarness::place(synced / "take.wav", test::wavBytes(96000, 20000));
    ASSERT_TRUE(skipped("take.wav")) << agent.agentOutput();
    const auto retaken = test::wavBytes(8000, 20000);
    rewriteInPlace(synced / "take.wav", retaken);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 3; }, 60)) << agent.agentOutput();

    // Skipped, and finished while the agent is stopped: captured at its next start.
    CaptureAgentHarness::place(synced / "later.wav", test::wavBytes(8000, 2400));
    CaptureAgentHarness::place(synced / "short.wav", test::wavBytes(8000, 2000));
    ASSERT_TRUE(skipped("later.wav") && skipped("short.wav")) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    const auto finished = test::wavBytes(8000, 12000);
    rewriteInPlace(synced / "later.wav", finished);
    ASSERT_TRUE(agent.startAndWait());
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 4 && agent.uploadCount() == 5; }, 60))
        << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(4));  // polls that would capture something again
    EXPECT_EQ(agent.stop(), 0);

    EXPECT_EQ(agent.noteIds().size(), 4u);
    EXPECT_EQ(agent.uploadCount(), 5);
    EXPECT_EQ(copies(agent), (std::multiset<std::string>{dictation, test::readFile(synced / "grows.wav"), retaken,
                                                         finished}));
    EXPECT_EQ(test::countLogLines("skipping short.wav (audio too short (0.25s < 0.50s))"), 1)
        << "a file that stays too short is judged once, across a restart too";
}

// In a watched folder that is not Voice Memos, a recording renamed, or copied under another
// name ("meeting (1).m4a"), is the recording captured before: one note, one upload, one line
// in the log, across a restart. A captured file rewritten in place with other bytes of the same
// size and its modification time put back is noticed, and captured as another recording beside
// the first.
TEST(NothingLost, ARenamedOrCopiedRecordingIsCapturedOnceAndARewriteIsNoticed)
{
    CaptureAgentHarness agent(32);
    auto synced = agent.watchSyncedFolder();
    ASSERT_TRUE(agent.startAndWait());
    const auto first = agent.fixture() + "the meeting";
    CaptureAgentHarness::place(synced / "memo.m4a", first);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 1 && agent.uploadCount() == 1; }, 60))
        << agent.agentOutput();
    const auto id = *agent.noteIds().begin();

    fs::rename(synced / "memo.m4a", synced / "meeting.m4a");
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines("meeting.m4a is memo.m4a renamed") == 1; }, 60))
        << agent.agentOutput();
    fs::copy_file(synced / "meeting.m4a", synced / "meeting (1).m4a");
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines("meeting (1).m4a is a copy of ") == 1; }, 60))
        << agent.agentOutput();
    EXPECT_EQ(test::countLogLines("(captured as " + id + "); not capturing it twice"), 2);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(agent.stop(), 0);
    ASSERT_TRUE(agent.startAndWait());
    std::this_thread::sleep_for(std::chrono::seconds(4));  // polls after a restart
    EXPECT_EQ(agent.noteIds().size(), 1u) << agent.agentOutput();
    EXPECT_EQ(agent.uploadCount(), 1);

    const auto second = agent.fixture() + "THE MEETING";
    rewriteInPlace(synced / "meeting.m4a", second);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 2 && agent.uploadCount() == 2; }, 60))
        << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(agent.noteIds().size(), 2u);
    EXPECT_EQ(agent.noteIds().count(id), 1u) << "the first capture stays";
    EXPECT_EQ(copies(agent), (std::multiset<std::string>{first, second}));
    EXPECT_EQ(test::countLogLines("not capturing it twice"), 2);
}

} // namespace
} // namespace quillet
