#include "quillet_capture/capture/VoiceMemosKeeper.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "tests/support/LogLines.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace quillet {
namespace {

// A workspace whose answers the test sets, counting what it was asked.
class ScriptedWorkspace final : public Workspace {
public:
    std::atomic<bool> running{false};
    std::atomic<bool> installed{true};
    std::atomic<int> runningQueries{0};
    std::atomic<int> launches{0};

    void failLaunchesWith(std::string reason)
    {
        std::lock_guard guard(lock_);
        launchError_ = std::move(reason);
    }

    bool isRunning(const std::string& bundleId) override
    {
        EXPECT_EQ(bundleId, "com.apple.VoiceMemos");
        ++runningQueries;
        return running;
    }

    std::optional<std::string> applicationPath(const std::string& bundleId) override
    {
        EXPECT_EQ(bundleId, "com.apple.VoiceMemos");
        if (!installed) {
            return std::nullopt;
        }
        return "/System/Applications/VoiceMemos.app";
    }

    std::optional<std::string> openHidden(const std::string& path) override
    {
        EXPECT_EQ(path, "/System/Applications/VoiceMemos.app");
        ++launches;
        std::lock_guard guard(lock_);
        return launchError_;
    }

private:
    std::mutex lock_;
    std::optional<std::string> launchError_;
};

struct VoiceMemosKeeperTest : ::testing::Test {
    test::ScratchHome home;
    runtime::SerialQueue queue{"quillet.test.keeper"};
    std::shared_ptr<ScriptedWorkspace> workspace = std::make_shared<ScriptedWorkspace>();
    VoiceMemosKeeper keeper{workspace, queue.executor()};

    static bool logged(const std::string& message)
    {
        return test::eventually([&] {
            auto all = test::logMessages();
            return std::find(all.begin(), all.end(), message) != all.end();
        });
    }
};

TEST_F(VoiceMemosKeeperTest, StartTwiceMakesOneTimerWhoseFirstCheckComesAfterASecond)
{
    workspace->running = true;
    keeper.start();
    keeper.start();
    EXPECT_TRUE(keeper.isOn());
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{"[quillet] voice memos keeper: on (check every 300s)"}));
    EXPECT_EQ(workspace->runningQueries, 0);

    // The first check: Voice Memos runs, so nothing is launched or logged.
    ASSERT_TRUE(test::eventually([&] { return workspace->runningQueries.load() >= 1; }, 5));
    queue.drain();
    EXPECT_EQ(workspace->runningQueries, 1); // one timer, and the next check is minutes away
    EXPECT_EQ(workspace->launches, 0);
    EXPECT_EQ(test::logMessages().size(), 1u);
}

TEST_F(VoiceMemosKeeperTest, ApplyOffLogsOffOnceAndApplyOnStartsAgain)
{
    keeper.apply(false);
    EXPECT_TRUE(test::logMessages().empty());

    keeper.apply(true);
    keeper.apply(true);
    keeper.apply(false);
    keeper.apply(false);
    EXPECT_FALSE(keeper.isOn());
    keeper.apply(true);
    EXPECT_TRUE(keeper.isOn());
    keeper.apply(false);
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{
                              "[quillet] voice memos keeper: on (check every 300s)",
                              "[quillet] voice memos keeper: off",
                              "[quillet] voice memos keeper: on (check every 300s)",
                              "[quillet] voice memos keeper: off",
                          }));
}

TEST_F(VoiceMemosKeeperTest, LaunchesHiddenWhenNotRunningAndLogsTheOutcome)
{
    workspace->installed = false;
    keeper.ensureRunning();
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{"[quillet] voice memos keeper: Voice Memos.app not found"}));
    EXPECT_EQ(workspace->launches, 0);

    workspace->installed = true;
    keeper.ensureRunning();
    EXPECT_TRUE(logged("[quillet] voice memos keeper: launched Voice Memos (hidden)"));

    workspace->failLaunchesWith("The application could not be launched.");
    keeper.ensureRunning();
    EXPECT_TRUE(logged("[quillet] voice memos keeper: launch failed -- The application could not be launched."));
    EXPECT_EQ(workspace->launches, 2);

    workspace->running = true;
    keeper.ensureRunning();
    EXPECT_EQ(workspace->launches, 2);
}

TEST_F(VoiceMemosKeeperTest, ThisPlatformsWorkspace)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "the macOS workspace asks the real Launch Services";
    }
    VoiceMemosKeeper linuxKeeper(Workspace::system(), queue.executor());
    EXPECT_FALSE(linuxKeeper.isVoiceMemosRunning());
    linuxKeeper.ensureRunning();
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{"[quillet] voice memos keeper: Voice Memos.app not found"}));
}

} // namespace
} // namespace quillet
