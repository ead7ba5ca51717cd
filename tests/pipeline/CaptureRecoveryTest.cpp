#include "quillet_capture/pipeline/CaptureRecovery.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

using namespace std::chrono_literals;

// About 1, 2, 5, 15, 30 and 60 minutes, then hourly: a capture that keeps failing costs the
// service one attempt an hour.
TEST(CaptureRecovery, PausesGrowToAnHour)
{
    std::vector<std::chrono::seconds> pauses;
    for (int attempts = 1; attempts <= 8; ++attempts) {
        pauses.push_back(CaptureRecovery::pauseAfter(attempts));
    }
    EXPECT_EQ(pauses, (std::vector<std::chrono::seconds>{1min, 2min, 5min, 15min, 30min, 60min, 60min, 60min}));
    EXPECT_EQ(CaptureRecovery::pauseAfter(3, 2s), 10s);
}

// Each failure moves the next attempt on; an attempt taken is not taken again until it fails;
// the service's "failed" is tried three more times, other failures for ever; what is forgotten
// is gone.
TEST(CaptureRecovery, AttemptsAreScheduledTakenOnceAndGivenUpOnlyForTheServicesFailure)
{
    test::ScratchDir dir;
    test::FakeClock clock;
    CaptureRecovery recovery(dir.path() / "recovery.json", clock);
    const auto start = clock.now();

    EXPECT_EQ(recovery.failed("a", "upload_failed"), start + 1min);
    EXPECT_EQ(recovery.failed("b", "failed"), start + 1min);
    EXPECT_TRUE(recovery.isWaiting("a", start));
    EXPECT_FALSE(recovery.isWaiting("c", start));
    EXPECT_TRUE(recovery.takeDue(start + 59s).empty());
    EXPECT_EQ(recovery.takeDue(start + 1min), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(recovery.takeDue(start + 1h).empty()) << "an attempt under way was taken again";
    EXPECT_FALSE(recovery.earliest().has_value());

    clock.advance(std::chrono::duration<double>(60));
    EXPECT_EQ(recovery.failed("a", "upload_failed"), clock.now() + 2min);
    EXPECT_EQ(recovery.failed("b", "failed"), clock.now() + 2min);
    EXPECT_EQ(recovery.failed("b", "failed"), clock.now() + 5min);
    EXPECT_EQ(recovery.failed("b", "failed"), std::nullopt) << "a fourth failure of the service is the last";
    EXPECT_TRUE(recovery.isWaiting("b", clock.now() + 24h));
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(recovery.failed("a", "upload_failed").has_value());
    }
    auto summary = recovery.summary();
    EXPECT_EQ(summary.waiting, 1);
    EXPECT_EQ(summary.next, clock.now() + 60min);
    EXPECT_EQ(summary.givenUp, 1);

    recovery.forget("b");
    EXPECT_FALSE(recovery.isWaiting("b", clock.now()));
    EXPECT_EQ(recovery.summary().givenUp, 0);

    // Other failures before do not use up the service's three.
    for (int i = 0; i < 5; ++i) {
        recovery.failed("c", "upload_failed");
    }
    EXPECT_TRUE(recovery.failed("c", "failed").has_value());
    EXPECT_TRUE(recovery.failed("c", "failed").has_value());
    EXPECT_TRUE(recovery.failed("c", "failed").has_value());
    EXPECT_FALSE(recovery.failed("c", "failed").has_value());
}

// The schedule outlives the agent: a restart neither forgets a capture nor counts afresh.
TEST(CaptureRecovery, TheScheduleSurvivesARestartAndABrokenFileIsEmpty)
{
    test::ScratchDir dir;
    test::FakeClock clock;
    const auto file = dir.path() / "state" / "recovery.json";
    {
        CaptureRecovery recovery(file, clock);
        recovery.failed("a", "fetch_failed");
        recovery.failed("a", "fetch_failed");
        for (int i = 0; i < 4; ++i) {
            recovery.failed("b", "failed");
        }
    }
    CaptureRecovery again(file, clock);
    auto entries = again.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries["a"].attempts, 2);
    EXPECT_EQ(entries["a"].reason, "fetch_failed");
    EXPECT_EQ(entries["a"].next, std::chrono::time_point_cast<std::chrono::seconds>(clock.now()) + 2min);
    EXPECT_EQ(again.failed("b", "failed"), std::nullopt);
    EXPECT_EQ(again.failed("a", "fetch_failed"), clock.now() + 5min);

    test::writeFile(file, "{\"a\": ");
    EXPECT_TRUE(CaptureRecovery(file, clock).entries().empty());
}

} // namespace
} // namespace quillet
