// The agent kept from losing, doubling or stranding recordings by what happens around it: the
// built program's `run` against the fake service, through CaptureAgentHarness.
#include "quillet_capture/config/WatchedFolder.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

// A folder entered more than once in the settings (as written, with a trailing slash, through
// a link) is one folder: each recording in it is captured and uploaded once.
TEST(NothingLost, AFolderListedTwiceCapturesEachRecordingOnce)
{
    CaptureAgentHarness agent(8);
    auto synced = agent.home() / "Synced";
    fs::create_directories(synced);
    fs::create_symlink(synced, agent.home() / "link");
    agent.editSettings([&](AppSettings& settings) {
        settings.watchedFoldersRaw = std::vector<WatchedFolder>{
            WatchedFolder::voiceMemos(true), WatchedFolder::generic(synced.string()),
            WatchedFolder::generic(synced.string() + "/"), WatchedFolder::generic((agent.home() / "link").string())};
    });
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    ASSERT_TRUE(agent.startAndWait());

    auto when = std::chrono::time_point_cast<std::chrono::seconds>(fs::file_time_type::clock::now()) -
                std::chrono::hours(1);
    for (int i = 0; i < 3; ++i) {
        CaptureAgentHarness::place(synced / ("memo " + std::to_string(i) + ".m4a"),
                                   agent.fixture() + "memo " + std::to_string(i), when + std::chrono::minutes(i));
    }
    EXPECT_TRUE(test::eventually([&] { return agent.noteIds().size() >= 3 && agent.uploadCount() >= 3; }, 60))
        << agent.agentOutput();
    // Several more polls, in which a second watcher of the folder would hand the files over again.
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(agent.noteIds().size(), 3u);
    EXPECT_EQ(agent.uploadCount(), 3);
}

} // namespace
} // namespace quillet
