#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include "quillet_capture/runtime/Tasks.hpp"

#include <gtest/gtest.h>

#include <future>

namespace quillet {
namespace {

namespace fs = std::filesystem;

struct PipelineFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    fs::path vault = home.path() / "vault";
    fs::path recordings = home.path() / "Recordings";
    bool uploads = false;
    std::string baseURL = "http://127.0.0.1:9/api/v1";
    std::vector<std::string> transcripts;
    std::unique_ptr<CapturePipeline> pipeline;

    PipelineFixture()
    {
        CapturePipeline::Environment environment{
            [this] { return vault; },
            [this] { return uploads; },
            [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
            [this] { return baseURL; },
            [this](const std::string& id, const fs::path&) { transcripts.push_back(id); },
            &clock,
        };
        pipeline = std::make_unique<CapturePipeline>(std::move(environment), nullptr);
    }

    FolderWatcher::NewCapture recording(const std::string& name, const std::string& id)
    {
        test::writeFile(recordings / name, "audio of " + name);
        return {recordings / name, id, std::chrono::system_clock::now(), "voice-memos"};
    }

    // Runs `task` on the utility pool and waits for its end, and then for the tasks it started.
    void await(asio::awaitable<void> task)
    {
        std::promise<void> done;
        runtime::spawn(
            [](asio::awaitable<void> task, std::promise<void>& done) -> asio::awaitable<void> {
                co_await std::move(task);
                done.set_value();
            }(std::move(task), done));
        ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
        ASSERT_TRUE(pipeline->waitUntilIdle(std::chrono::seconds(20)));
    }

    void handle(FolderWatcher::NewCapture capture) { await(pipeline->handle(std::move(capture))); }
};

TEST_F(PipelineFixture, WithUploadsOffTheCaptureIsCopiedAndNotedOnce)
{
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::readFile(vault / "_inbox/.audio/240131-142530.m4a"), "audio of 20240131 142530.m4a");
    auto note = InboxWriter::readFrontmatter(vault / "_inbox/240131-142530.md");
    EXPECT_EQ(note.vdJobStatus, "skipped");
    EXPECT_EQ(note.sourceType, "audio");
    EXPECT_EQ(note.audioPath, "_inbox/.audio/240131-142530.m4a");
    EXPECT_EQ(test::countLogLines("VD upload disabled; 240131-142530 remains pending in vault"), 1);
    EXPECT_FALSE(pipeline->isClaimed("240131-142530"));
}

} // namespace
} // namespace quillet

#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

namespace quillet {
namespace {

// A crash between the watcher's hand-over and the stub note must not lose the recording.
TEST(CaptureIntake, HandedOverCapturesWithoutANoteAreCapturedAgainAfterACrash)
{
    test::ScratchHome home;
    test::FakeClock clock;
    auto vault = home.path() / "vault";
    auto recordings = home.path() / "Recordings";
    test::writeFile(recordings / "20240131 142530.m4a", "audio");
    CaptureStateStore store(home.path() / "state.json", home.path() / "legacy.json", clock);
    {
        // The watcher's half: journal, then seen; then the process dies.
        CaptureIntake intake(home.path() / "intake.json");
        intake.add({"voice-memos", "20240131 142530.m4a", recordings / "20240131 142530.m4a", "240131-142530",
                    clock.now()});
        intake.add({"voice-memos", "20240131 150000.m4a", recordings / "20240131 150000.m4a", "240131-150000",
                    clock.now()});
    }
    CaptureIntake intake(home.path() / "intake.json");
    ASSERT_EQ(intake.entries().size(), 2u);

    CapturePipeline pipeline(
        CapturePipeline::Environment{
            [&] { return vault; },
            [] { return false; },
            [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
            [] { return std::string("http://127.0.0.1:9/api/v1"); },
            {},
            &clock,
            {},
            &intake,
            &store,
        },
        nullptr);
    pipeline.recoverIntake();
    ASSERT_TRUE(test::eventually([&] { return intake.entries().empty(); }));
    ASSERT_TRUE(pipeline.waitUntilIdle(std::chrono::seconds(10)));
    EXPECT_EQ(test::readFile(vault / "_inbox/.audio/240131-142530.m4a"), "audio");
    EXPECT_TRUE(fs::exists(vault / "_inbox/240131-142530.md"));
    EXPECT_TRUE(store.hasSeen("20240131 142530.m4a", "voice-memos"));
    EXPECT_FALSE(fs::exists(vault / "_inbox/240131-150000.md")) << "a vanished file is dropped";
    EXPECT_TRUE(CaptureIntake(home.path() / "intake.json").entries().empty()) << "the journal file is empty too";
}

} // namespace
} // namespace quillet
