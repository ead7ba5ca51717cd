// The agent kept from losing, doubling or stranding recordings by what happens around it: the
// built program's `run` against the fake service, through CaptureAgentHarness.
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <atomic>
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

// Recordings that arrive while the agent is stopped are captured at its next start, whether the
// folder was missing or empty at the first start or the state file was lost in between; what
// the vault holds already is not captured a second time, and the unreadable state file is kept.
TEST(NothingLost, WhatArrivesWhileTheAgentIsStoppedIsCapturedAfterNoFirstIndexOrALostStateFile)
{
    CaptureAgentHarness agent(9);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    // Voice Memos has not made its folder yet: there is nothing to index.
    fs::remove_all(agent.memos());
    ASSERT_TRUE(agent.startAndWait());
    EXPECT_EQ(agent.stop(), 0);

    fs::create_directories(agent.memos());
    agent.drop(1);
    ASSERT_TRUE(agent.startAndWait());
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);

    const std::string garbage = "{\"seenByFolder\": {\"voice-memos\": ";
    writeFileAtomically(Paths::stateFile(), garbage);
    agent.drop(2);
    ASSERT_TRUE(agent.startAndWait());
    EXPECT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(3));  // polls that would take recording 1 again
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(agent.uploadCount(), 2) << "the recording the vault held was uploaded again";
    agent.expectConsistent(true);

    std::vector<fs::path> kept;
    for (const auto& entry : fs::directory_iterator(Paths::stateFile().parent_path())) {
        if (entry.path().filename().string().starts_with("state.json.unreadable-")) {
            kept.push_back(entry.path());
        }
    }
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(test::readFile(kept[0]), garbage);
    EXPECT_EQ(test::countLogLines("[quillet] capture: state file " + Paths::stateFile().string() +
                                  " cannot be read; kept it as " + kept[0].string()),
              1);
}

// A capture whose upload failed before `retry` was ever run is retried by the first `retry`:
// the watermark was fixed when the agent first started, before the capture was made.
TEST(NothingLost, TheFirstRetryRetriesWhatFailedBeforeIt)
{
    CaptureAgentHarness agent(10);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> refuse{true};
    agent.setFault([&](const test::FakeVeldane::Request& request) -> std::optional<test::FakeVeldane::Answer> {
        if (refuse && request.method == "POST" && request.endpoint == "sources") {
            return test::FakeVeldane::Answer::json("storage full", 507);
        }
        return std::nullopt;
    });
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[recording.id] == "upload_failed"; }, 60))
        << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);

    refuse = false;
    auto result = test::runProcess(test::programPath(), {"retry"}, {}, 120);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_TRUE(result.output.starts_with("Uploading 1 capture...\n  1/1  " + recording.id +
                                          "\nUploaded 1, skipped 0, failed 0.\n"))
        << result.output;
    EXPECT_NE(agent.statuses()[recording.id], "upload_failed");
}

} // namespace
} // namespace quillet
