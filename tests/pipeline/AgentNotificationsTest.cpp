#include "quillet_capture/pipeline/AgentNotifications.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Event = CapturePipeline::CaptureEvent;
using Posted = std::pair<std::string, std::string>;

// Records what would have reached the desktop.
class RecordingNotifier final : public DesktopNotifier {
public:
    void post(const std::string& title, const std::string& body) override
    {
        std::lock_guard guard(lock_);
        posted_.emplace_back(title, body);
    }
    std::vector<Posted> posted() const
    {
        std::lock_guard guard(lock_);
        return posted_;
    }
    std::vector<std::string> titles() const
    {
        std::vector<std::string> result;
        for (const auto& [title, body] : posted()) {
            result.push_back(title);
        }
        return result;
    }

private:
    mutable std::mutex lock_;
    std::vector<Posted> posted_;
};

struct NotificationsFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    RecordingNotifier desktop;
    AppSettings record = AppSettings::defaults();
    std::vector<std::chrono::milliseconds> wakes;
    AgentNotifications notifications{
        desktop, [this] { return std::make_shared<const Settings>(record); }, clock,
        AgentNotifications::Timing{std::chrono::seconds(10), std::chrono::seconds(120)},
        [this](std::chrono::milliseconds delay) { wakes.push_back(delay); }};

    ~NotificationsFixture() override { EnvironmentCheck::setListener({}); }

    void advance(double seconds) { clock.advance(std::chrono::duration<double>(seconds)); }

    // Lets every gathered kind come due and shows it.
    void settle()
    {
        advance(121);
        notifications.flushDue();
    }

    void sent(const std::string& id) { notifications.captureEvent({Event::Kind::sent, id, ""}); }
    void ready(const std::string& id) { notifications.captureEvent({Event::Kind::transcriptReady, id, ""}); }
    void failed(const std::string& id, const std::string& status)
    {
        notifications.captureEvent({Event::Kind::failed, id, status});
    }

    static std::string id(int n) { return "240301-08" + std::to_string(1000 + n).substr(1); }
};

TEST_F(NotificationsFixture, ABurstOfOneKindIsOneSummaryNamingTheFirstFew)
{
    for (int n = 0; n < 100; ++n) {
        sent(id(n));
        advance(0.5);
    }
    notifications.flushDue();
    EXPECT_TRUE(desktop.posted().empty()) << "nothing is shown while the burst goes on";
    EXPECT_EQ(wakes.back(), std::chrono::milliseconds(9500))
        << "the agent is woken when ten quiet seconds after the last event have passed";

    advance(10);
    notifications.flushDue();
    ASSERT_EQ(desktop.posted().size(), 1u);
    EXPECT_EQ(desktop.posted()[0].first, "100 recordings sent to Veldane");
    EXPECT_EQ(desktop.posted()[0].second,
              id(0) + ", " + id(1) + ", " + id(2) + " and 97 more: their transcripts follow when Veldane has made them.");
    EXPECT_FALSE(notifications.nextDue());

    for (int n = 0; n < 100; ++n) {
        ready(id(n));
    }
    settle();
    ASSERT_EQ(desktop.posted().size(), 2u);
    EXPECT_EQ(desktop.posted()[1].first, "100 transcripts ready");

    // One alone is named as itself.
    ready(id(7));
    settle();
    ASSERT_EQ(desktop.posted().size(), 3u);
    EXPECT_EQ(desktop.posted()[2], (Posted{"Transcript ready", id(7) + ": its note has the transcript."}));
}

TEST_F(NotificationsFixture, AnEndlessStreamIsShownAtTheLongestGatheringNotPerEvent)
{
    // One event every five seconds for ten minutes never leaves ten quiet seconds.
    for (int n = 0; n < 120; ++n) {
        sent(id(n));
        advance(5);
        notifications.flushDue();
    }
    EXPECT_EQ(desktop.posted().size(), 5u) << "one summary per two minutes, not 120 notifications";
    settle();
    int total = 0;
    for (const auto& [title, body] : desktop.posted()) {
        total += std::stoi(title);
    }
    EXPECT_EQ(total, 120) << "every recording is counted once";
}

TEST_F(NotificationsFixture, TheSameCauseTwiceIsShownOnce)
{
    sent(id(1));
    sent(id(1));  // sent again by a retry of the same capture
    failed(id(2), "upload_failed");
    failed(id(2), "upload_failed");  // the same failure at the next attempt
    settle();
    EXPECT_EQ(desktop.titles(), (std::vector<std::string>{"Recording sent to Veldane", "Transcript failed"}));

    failed(id(2), "upload_failed");
    sent(id(1));
    settle();
    EXPECT_EQ(desktop.posted().size(), 2u) << "still the same causes, later";

    // Another reason is news; and once its transcript came, the capture starts afresh.
    failed(id(2), "poll_timeout");
    ready(id(1));
    settle();
    sent(id(1));
    settle();
    EXPECT_EQ(desktop.titles(), (std::vector<std::string>{"Recording sent to Veldane", "Transcript failed",
                                                          "Transcript ready", "Transcript failed",
                                                          "Recording sent to Veldane"}));
    EXPECT_EQ(desktop.posted()[3].second, id(2) + ": Veldane did not finish it in time; it is tried again by itself.");

    // A notice raised twice is one notification.
    notifications.listen();
    AgentNotifications::tokenRefused();
    AgentNotifications::tokenRefused();
    settle();
    EXPECT_EQ(desktop.titles().back(), "Pair quillet-capture again");
    EXPECT_EQ(desktop.posted().size(), 6u);
    AgentNotifications::tokenAccepted();
    settle();
    EXPECT_EQ(desktop.titles().back(), "Paired again");
}

TEST_F(NotificationsFixture, AFolderLostThenRegainedIsTwoNotifications)
{
    notifications.listen();
    EnvironmentCheck::notifyOnce("test-folder-missing", "Synced folder not found", "Synced does not exist.");
    EnvironmentCheck::notifyOnce("test-folder-missing", "Synced folder not found", "Synced does not exist.");
    settle();
    EnvironmentCheck::resolve("test-folder-missing", "Synced can be read again", "Synced: 1 file visible");
    EnvironmentCheck::resolve("test-folder-missing", "Synced can be read again", "Synced: 1 file visible");
    settle();
    EXPECT_EQ(desktop.posted(), (std::vector<Posted>{{"Synced folder not found", "Synced does not exist."},
                                                     {"Synced can be read again", "Synced: 1 file visible"}}));

    // A notice kept to the log reaches neither the desktop nor, when resolved, the listener.
    EnvironmentCheck::notifyOnce("test-folder-empty", "Synced: readable but no audio files", "...",
                                 EnvironmentCheck::Reach::logOnly);
    EnvironmentCheck::resolve("test-folder-empty", "Synced can be read again", "Synced: 1 file visible");
    // Resolving what was never raised says nothing.
    EnvironmentCheck::resolve("test-never-raised", "Back", "body");
    settle();
    EXPECT_EQ(desktop.posted().size(), 2u);
}

TEST_F(NotificationsFixture, NoticesOfOneKindTogetherAreOne)
{
    notifications.listen();
    for (int n = 0; n < 4; ++n) {
        AgentNotifications::failureNoted(id(n), "failed", true, home.path() / "vault");
    }
    settle();
    ASSERT_EQ(desktop.posted().size(), 1u);
    EXPECT_EQ(desktop.posted()[0].first, "Capture waits for retry (4)");
    EXPECT_NE(desktop.posted()[0].second.find(id(3)), std::string::npos);
    for (int n = 0; n < 4; ++n) {
        ready(id(n));  // a transcript ends what the person was asked to do for it
    }
    AgentNotifications::failureNoted(id(0), "failed", true, home.path() / "vault");
    settle();
    EXPECT_EQ(desktop.titles().back(), "Capture waits for retry") << desktop.titles().size();
}

TEST_F(NotificationsFixture, TheSettingsOfTheMomentOfShowingDecide)
{
    record.notifyVoiceMemoSent = false;
    sent(id(1));
    ready(id(1));
    failed(id(2), "failed");
    settle();
    EXPECT_EQ(desktop.titles(), (std::vector<std::string>{"Transcript ready", "Transcript failed"}));

    record.notifyVoiceMemoSent = std::nullopt;  // absent counts as on
    record.notifyTranscriptReady = false;
    record.notifyTranscriptFailed = false;
    sent(id(3));
    ready(id(4));
    failed(id(5), "failed");
    settle();
    EXPECT_EQ(desktop.titles().back(), "Recording sent to Veldane");
    EXPECT_EQ(desktop.posted().size(), 3u);

    // Gathered while on, turned off before it was due: not shown.
    record = AppSettings::defaults();
    sent(id(6));
    record.notifications = false;
    notifications.listen();
    AgentNotifications::planRequired("");
    ready(id(6));
    failed(id(7), "failed");
    settle();
    EXPECT_EQ(desktop.posted().size(), 3u) << "notifications off shows nothing at all";

    record.notifications = true;
    sent(id(8));
    settle();
    EXPECT_EQ(desktop.posted().size(), 4u);
}

TEST_F(NotificationsFixture, EveryNotificationShownIsLoggedAndNoOtherIs)
{
    sent(id(1));
    sent(id(2));
    settle();
    record.notifyTranscriptReady = false;
    ready(id(1));
    settle();
    EXPECT_EQ(test::countLogLines("[quillet] notification: "), 1);
    EXPECT_EQ(test::countLogLines("[quillet] notification: 2 recordings sent to Veldane -- " + id(1) + ", " + id(2) +
                                  ": their transcripts follow when Veldane has made them."),
              1);
}

TEST_F(NotificationsFixture, AVaultThatRefusesWritesIsNamedOnlyThen)
{
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root writes anywhere";
    }
    notifications.listen();
    auto vault = home.path() / "vault";
    fs::create_directories(vault / "_inbox");
    AgentNotifications::failureNoted(id(1), "copy_failed", false, vault);
    settle();
    EXPECT_TRUE(desktop.posted().empty()) << "a copy that failed in a writable vault is tried again, nothing more";

    fs::permissions(vault / "_inbox", fs::perms::owner_write, fs::perm_options::remove);
    AgentNotifications::failureNoted(id(1), "copy_failed", false, vault);
    AgentNotifications::failureNoted(id(2), "copy_failed", false, vault);
    settle();
    fs::permissions(vault / "_inbox", fs::perms::owner_write, fs::perm_options::add);
    ASSERT_EQ(desktop.posted().size(), 1u);
    EXPECT_EQ(desktop.posted()[0].first, "Vault not writable");
    EXPECT_NE(desktop.posted()[0].second.find((vault / "_inbox").string()), std::string::npos);
}

} // namespace
} // namespace quillet
