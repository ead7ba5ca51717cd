#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/FakeNotificationBus.hpp"
#include "tests/support/LogLines.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Record = test::FakeNotificationBus::Record;

// The running agent on a desktop: what reaches the notification service on the session bus,
// for a burst of recordings, a failure and a folder lost and found again; and the same agent
// on a machine with no bus at all.

std::vector<std::string> summaries(const std::vector<Record>& records)
{
    std::vector<std::string> result;
    for (const auto& record : records) {
        result.push_back(record.summary);
    }
    return result;
}

TEST(DesktopNotificationsE2E, ABurstAFailureAndAFolderFoundAgainEachReachTheDesktopOnce)
{
    test::FakeNotificationBus bus;
    if (!bus.available()) {
        GTEST_SKIP() << bus.why();
    }
    test::CaptureAgentHarness agent(7);
    auto synced = agent.watchSyncedFolder();
    agent.setEnvironment("DBUS_SESSION_BUS_ADDRESS", bus.address());
    agent.setEnvironment("QUILLET_NOTIFICATION_QUIET_MS", "4000");
    std::atomic<bool> refuse{false};
    std::string refused;
    std::mutex refusedLock;
    agent.setFault([&](const test::FakeVeldane::Request& request) -> std::optional<test::FakeVeldane::Answer> {
        std::lock_guard guard(refusedLock);
        if (refuse && request.method == "POST" && request.endpoint == "sources" &&
            request.body.find("filename=\"" + refused + ".m4a\"") != std::string::npos) {
            return test::FakeVeldane::Answer::json("storage full", 507);
        }
        return std::nullopt;
    });
    ASSERT_TRUE(agent.startAndWait());

    // A burst: five recordings at once are one notification when sent and one when ready.
    for (int i = 1; i <= 5; ++i) {
        agent.drop(i);
    }
    ASSERT_TRUE(agent.waitUntilAllDone(90));
    auto records = bus.waitFor(2, 30);
    ASSERT_EQ(summaries(records),
              (std::vector<std::string>{"5 recordings sent to Veldane", "5 transcripts ready"}))
        << agent.agentOutput();
    EXPECT_EQ(records[0].app, "quillet-capture");

    // A failure: one notification, whose body names the capture.
    {
        std::lock_guard guard(refusedLock);
        refused = agent.recordingFor(6).id;
        refuse = true;
    }
    agent.drop(6);
    records = bus.waitFor(3, 30);
    ASSERT_EQ(records.size(), 3u) << agent.agentOutput();
    EXPECT_EQ(records[2], (Record{"quillet-capture", "Transcript failed",
                                  refused + ": the upload to Veldane failed; it is tried again by itself."}));

    // The watched folder lost, then found again.
    auto away = synced.parent_path() / "Synced.away";
    fs::rename(synced, away);
    records = bus.waitFor(4, 30);
    ASSERT_EQ(records.size(), 4u) << agent.agentOutput();
    EXPECT_EQ(records[3].summary, "Synced folder not found");
    fs::rename(away, synced);
    records = bus.waitFor(5, 30);
    ASSERT_EQ(records.size(), 5u) << agent.agentOutput();
    EXPECT_EQ(records[4].summary, "Synced can be read again");

    EXPECT_EQ(agent.stop(), 0);
    // Nothing more came, and each one shown is in the log.
    EXPECT_EQ(bus.records().size(), 5u);
    EXPECT_EQ(test::countLogLines("[quillet] notification: "), 5);
    EXPECT_EQ(test::countLogLines("no desktop notification shown"), 0);
}

TEST(DesktopNotificationsE2E, WithNoBusAtAllTheAgentCapturesAsEverAndSaysItOnce)
{
    test::CaptureAgentHarness agent(8);
    agent.watchSyncedFolder();
    agent.setEnvironment("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (agent.home() / "no-bus").string());
    agent.setEnvironment("QUILLET_NOTIFICATION_QUIET_MS", "500");
    ASSERT_TRUE(agent.startAndWait());
    for (int i = 1; i <= 3; ++i) {
        agent.drop(i);
    }
    ASSERT_TRUE(agent.waitUntilAllDone(90));
    ASSERT_TRUE(test::eventually([] { return test::countLogLines("[quillet] notification: 3 transcripts ready") == 1; },
                                 20));
    EXPECT_EQ(agent.stop(), 0);
    agent.expectConsistent(true);
    EXPECT_EQ(test::countLogLines("[quillet] notification: 3 recordings sent to Veldane"), 1);
    EXPECT_EQ(test::countLogLines("no desktop notification shown"), 1);
}

} // namespace
} // namespace quillet
