#include "quillet_capture/pipeline/CaptureRetry.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/cancellation_signal.hpp>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/use_future.hpp>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <future>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using Progress = CaptureRetry::Progress;
using Frontmatter = InboxWriter::Frontmatter;
using nlohmann::json;
using namespace std::chrono_literals;

// The retry batch over a pipeline that talks to a fake service, in a scratch home whose
// settings name the vault and whose user defaults hold the watermark. Uploads and polls
// answer at once; the gap between uploads runs on a clock of its own in virtual time.
struct CaptureRetryTest : ::testing::Test {
    test::ScratchHome home;
    FakeVeldane fake;
    test::FakeClock pollClock;
    test::FakeClock gapClock;
    fs::path vault = home.path() / "vault";
    InboxWriter inbox{vault};
    std::unique_ptr<CapturePipeline> pipeline;
    std::vector<Progress> progress;

    CaptureRetryTest()
    {
        // macOS keeps the defaults outside the scratch home, in the test program's own.
        UserDefaults::remove(CaptureRetry::watermarkKey);
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string("tok_retry_0123456789")));
        test::writeSettings([&](AppSettings& s) {
            s.vaultPath = vault.string();
            s.captureVeldaneEnabled = true;
            s.veldaneBaseURL = fake.baseURL();
        });
        CapturePipeline::Environment environment{
            [this] { return vault; },
            [] { return true; },
            [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
            [this] { return fake.baseURL(); },
            {},
            &pollClock,
        };
        pipeline = std::make_unique<CapturePipeline>(std::move(environment), nullptr);
        fake.fallback([](const FakeVeldane::Request& request) {
            if (request.method == "POST" && request.endpoint == "sources") {
                std::string marker = "filename=\"";
                auto start = request.body.find(marker) + marker.size();
                auto stem = fs::path(request.body.substr(start, request.body.find('"', start) - start)).stem();
                return Answer::json(json{{"status", "queued"}, {"cache_key", "ck_" + stem.string()}}.dump());
            }
            if (request.endpoint.ends_with("/status")) {
                return Answer::json(R"({"status":{"transcription":{"status":"completed"}}})");
            }
            auto key = request.endpoint.substr(std::string("sources/").size());
            return Answer::json(
                json{{"success", true}, {"cache_key", key}, {"result", {{"text", "retried " + key}}}}.dump());
        });
    }

    void TearDown() override { EXPECT_TRUE(pipeline->waitUntilIdle(20s)); }

    void setWatermark(std::chrono::system_clock::time_point at) { UserDefaults::setDate(CaptureRetry::watermarkKey, at); }

    // A capture of an earlier run; `audio` false leaves it without its audio copy.
    void capture(const std::string& id, std::optional<std::string> status, std::optional<std::string> key = {},
                 bool audio = true, std::optional<std::string> origin = {})
    {
        auto frontmatter = Frontmatter::forCapture(id, Iso8601::parse("2024-02-01T10:00:00Z").value());
        frontmatter.vdJobStatus = std::move(status);
        frontmatter.externalId = std::move(key);
        if (origin) {
            frontmatter.sourceOrigin = *origin;
        }
        inbox.ensureDirectories();
        inbox.writeMarkdown(frontmatter, "");
        if (audio) {
            test::writeFile(inbox.audioURL(id), "audio of " + id);
        }
    }

    static std::vector<std::string> sorted(std::vector<std::string> ids)
    {
        std::sort(ids.begin(), ids.end());
        return ids;
    }

    CaptureRetry retry() { return CaptureRetry(*pipeline, [this] { return inbox.inboxDirectory(); }, gapClock); }

    std::future<void> launch(CaptureRetry& batch)
    {
        auto report = [this](const Progress& step) { progress.push_back(step); };
        return asio::co_spawn(runtime::utilityExecutor(), batch.run(report), asio::use_future);
    }

    // Progress is delivered on the main event loop; the test thread runs it here.
    void deliverProgress()
    {
        auto& main = runtime::mainContext();
        main.restart();
        main.poll();
    }

    // The pipeline's upload of a capture of an earlier run, awaited.
    bool uploadExisting(const std::string& id)
    {
        auto task = asio::co_spawn(runtime::utilityExecutor(),
                                   pipeline->uploadExisting(id, std::nullopt, std::nullopt, std::nullopt),
                                   asio::use_future);
        EXPECT_EQ(task.wait_for(10s), std::future_status::ready);
        return task.get();
    }

    std::vector<Progress::Kind> kinds() const
    {
        std::vector<Progress::Kind> result;
        for (const auto& step : progress) {
            result.push_back(step.kind);
        }
        return result;
    }
};

TEST_F(CaptureRetryTest, WatermarkIsStoredAndLoggedOnce)
{
    auto before = std::chrono::system_clock::now();
    auto first = CaptureRetry::retryWatermark();
    EXPECT_GE(first, before - 1s);
    EXPECT_LE(first, std::chrono::system_clock::now());
    // The first call returns the watermark as stored, which later calls and runs read back.
    auto second = CaptureRetry::retryWatermark();
    EXPECT_EQ(second, first);
    EXPECT_EQ(test::logMessages(), std::vector<std::string>{"[quillet] capture retry: watermark set to " +
                                                            Iso8601::format(first) +
                                                            " \u2014 captures older than this are never retried"});
    EXPECT_EQ(UserDefaults::date(CaptureRetry::watermarkKey), first);
    UserDefaults::remove(CaptureRetry::watermarkKey);
    EXPECT_EQ(UserDefaults::date(CaptureRetry::watermarkKey), std::nullopt);
    CaptureRetry::retryWatermark();
    EXPECT_EQ(test::countLogLines("watermark set to"), 2);
    if (Paths::current() != Platform::linux) {
        return;
    }

    // Linux: the user defaults file under the home holds it as ISO 8601 text.
    auto stored = json::parse(test::readFile(Paths::defaultsFile()));
    EXPECT_TRUE(stored[CaptureRetry::watermarkKey].is_string());
    EXPECT_EQ(Iso8601::parse(stored[CaptureRetry::watermarkKey].get<std::string>()),
              UserDefaults::date(CaptureRetry::watermarkKey));

    // A stored value that is not a date is replaced.
    test::writeFile(Paths::defaultsFile(), R"({"quillet.captureRetry.watermark": 12})");
    CaptureRetry::retryWatermark();
    EXPECT_EQ(test::countLogLines("watermark set to"), 3);
}

TEST_F(CaptureRetryTest, RetryableStates)
{
    Frontmatter note = Frontmatter::forCapture("240201-100000", std::chrono::system_clock::now());
    EXPECT_TRUE(CaptureRetry::isRetryable(note)) << "no status counts as skipped";
    for (const char* word : {"skipped", "upload_failed", "poll_timeout", "failed", "paywalled"}) {
        note.vdJobStatus = word;
        EXPECT_TRUE(CaptureRetry::isRetryable(note)) << word;
    }
    for (const char* word : {"pending", "processing", "completed", "done", "unknown"}) {
        note.vdJobStatus = word;
        EXPECT_FALSE(CaptureRetry::isRetryable(note)) << word;
    }
    note.vdJobStatus = "queued";
    EXPECT_TRUE(CaptureRetry::isRetryable(note));
    note.externalId = "";
    EXPECT_TRUE(CaptureRetry::isRetryable(note));
    note.externalId = "ck_1";
    EXPECT_FALSE(CaptureRetry::isRetryable(note));
}

TEST_F(CaptureRetryTest, SelectionKeepsRecordingsOlderThanTheWatermarkAndNeedsTheAudio)
{
    capture("240201-100000", "skipped");
    capture("240201-100001", "failed", std::nullopt, false);
    capture("240201-100002", "queued", "ck_1");
    capture("240201-100003", "queued");
    capture("240201-100004", "done", "ck_2");
    capture("240201-100005", "upload_failed", std::nullopt, true, "quillet_recorder");
    capture("240201-100006", "poll_timeout", "ck_3", true, "pellam_recorder");
    capture("240201-100007", "paywalled");
    capture("240201-100008", std::nullopt);
    test::writeFile(inbox.inboxDirectory() / "notes.txt", "not a note");
    test::writeFile(inbox.inboxDirectory() / "240201-100009.md", "no frontmatter here");
    test::writeFile(inbox.audioURL("240201-100009"), "audio");

    // Every note was made before the watermark: only the companion recorder's are retried.
    setWatermark(std::chrono::system_clock::now() + 1h);
    EXPECT_EQ(sorted(CaptureRetry::pendingIds()), (std::vector<std::string>{"240201-100005", "240201-100006"}));
    EXPECT_EQ(CaptureRetry::pendingCount(), 2);

    setWatermark(std::chrono::system_clock::now() - 1h);
    EXPECT_EQ(sorted(CaptureRetry::pendingIds()),
              (std::vector<std::string>{"240201-100000", "240201-100003", "240201-100005", "240201-100006",
                                        "240201-100007", "240201-100008"}));
    EXPECT_EQ(sorted(CaptureRetry::ids(std::set<std::string>{"failed", "done"})),
              std::vector<std::string>{"240201-100004"});
    EXPECT_EQ(test::countLogLines("watermark set to"), 0);

    // An inbox that cannot be listed selects nothing.
    fs::remove_all(inbox.inboxDirectory());
    EXPECT_TRUE(CaptureRetry::pendingIds().empty());
}

TEST_F(CaptureRetryTest, RunUploadsOneAtATimeWithAGapAndReportsProgress)
{
    setWatermark(std::chrono::system_clock::now() - 1h);
    capture("240201-100000", "skipped");
    capture("240201-100001", "upload_failed");
    capture("240201-100002", "done", "ck_done");
    capture("240201-100003", "failed", "ck_bad");
    auto listing = CaptureRetry::ids(inbox.inboxDirectory(), CaptureRetry::isRetryable, CaptureRetry::retryWatermark());
    ASSERT_EQ(listing.size(), 3u);
    // The one the listing offers second is refused by the service.
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_first"})"));
    fake.enqueue("POST", "sources", Answer::text("overloaded", 503));

    auto batch = retry();
    auto running = launch(batch);
    ASSERT_EQ(running.wait_for(30s), std::future_status::ready);
    running.get();
    ASSERT_TRUE(pipeline->waitUntilIdle(20s));
    deliverProgress();

    EXPECT_FALSE(batch.isRunning());
    EXPECT_EQ(fake.requests("POST", "sources").size(), 3u);
    EXPECT_EQ(fake.maxConcurrent("sources"), 1u);
    EXPECT_EQ(gapClock.waits(), (std::vector<double>{2, 2, 2}));

    EXPECT_EQ(InboxWriter::readFrontmatter(inbox.noteURL(listing[0])).externalId, "ck_first");
    EXPECT_EQ(InboxWriter::readBody(inbox.noteURL(listing[0])), "retried ck_first");
    EXPECT_EQ(test::countLogLines("[quillet] capture retry: " + listing[0] + " uploaded; cache_key=ck_first"), 1);
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox.noteURL(listing[1])).vdJobStatus, "upload_failed");
    EXPECT_EQ(test::countLogLines("[quillet] capture retry: upload failed for " + listing[1] +
                                  ": VD request failed (503): overloaded"),
              1);
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox.noteURL(listing[2])).vdJobStatus, "done");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox.noteURL("240201-100002")).externalId, "ck_done");

    // A retry sends the plain upload: the content source and the id, no tags.
    for (const auto& request : fake.requests("POST", "sources")) {
        EXPECT_NE(request.body.find("name=\"content_source\"\r\n\r\nvoice_memo\r\n"), std::string::npos);
        EXPECT_EQ(request.body.find("name=\"tags\""), std::string::npos);
        EXPECT_NE(request.body.find("{\"quillet_id\":\"2402"), std::string::npos);
    }

    EXPECT_EQ(kinds(), (std::vector<Progress::Kind>{Progress::Kind::scanning, Progress::Kind::uploading,
                                                    Progress::Kind::uploading, Progress::Kind::failed,
                                                    Progress::Kind::uploading, Progress::Kind::finished}));
    ASSERT_EQ(progress.size(), 6u);
    EXPECT_EQ(progress[3].id, listing[1]);
    EXPECT_EQ(progress[4].index, 3);
    EXPECT_EQ(progress[4].total, 3);
    EXPECT_EQ(progress[5].succeeded, 2);
    EXPECT_EQ(progress[5].failedCount, 1);
}

TEST_F(CaptureRetryTest, SecondRunIsRefusedAndHandledIdsAreSkipped)
{
    setWatermark(std::chrono::system_clock::now() - 1h);
    capture("240201-100000", "skipped");
    capture("240201-100001", "skipped");
    auto held = std::make_shared<FakeVeldane::Hold>();
    auto first = Answer::json(R"({"status":"queued","cache_key":"ck_held"})");
    first.hold = held;
    fake.enqueue("POST", "sources", first);

    auto batch = retry();
    auto running = launch(batch);
    ASSERT_TRUE(fake.waitForRequests(1));
    EXPECT_TRUE(batch.isRunning());

    // A second run of the same batch returns at once and reports nothing.
    std::vector<Progress> secondProgress;
    auto again = asio::co_spawn(runtime::utilityExecutor(),
                                batch.run([&](const Progress& step) { secondProgress.push_back(step); }),
                                asio::use_future);
    ASSERT_EQ(again.wait_for(10s), std::future_status::ready);

    // The id held by the batch is not taken by another path meanwhile.
    auto held0 = fake.requests("POST", "sources").at(0).body.find("240201-100000") != std::string::npos
                     ? std::string("240201-100000")
                     : std::string("240201-100001");
    EXPECT_FALSE(uploadExisting(held0));
    EXPECT_EQ(test::countLogLines("[quillet] capture retry: " + held0 + " is already being handled; skipping"), 1);

    held->release();
    ASSERT_EQ(running.wait_for(30s), std::future_status::ready);
    ASSERT_TRUE(pipeline->waitUntilIdle(20s));
    deliverProgress();
    EXPECT_TRUE(secondProgress.empty());
    EXPECT_FALSE(batch.isRunning());
    EXPECT_EQ(fake.requests("POST", "sources").size(), 2u);
    EXPECT_EQ(kinds().front(), Progress::Kind::scanning);
    EXPECT_EQ(kinds().back(), Progress::Kind::finished);
    EXPECT_EQ(progress.back().succeeded, 2);

    // Without its audio copy a capture is not sent.
    fs::remove(inbox.audioURL("240201-100001"));
    EXPECT_FALSE(uploadExisting("240201-100001"));
    EXPECT_EQ(test::countLogLines("[quillet] capture retry: no local audio for 240201-100001; skipping"), 1);
    EXPECT_EQ(fake.requests("POST", "sources").size(), 2u);
}

TEST_F(CaptureRetryTest, CancelledRunStopsAndLeavesTheNextRunFree)
{
    setWatermark(std::chrono::system_clock::now() - 1h);
    capture("240201-100000", "skipped");
    capture("240201-100001", "skipped");
    // The pause between uploads is real here: the run is cancelled while it waits.
    CaptureRetry batch(*pipeline, [this] { return inbox.inboxDirectory(); }, runtime::systemClock());
    auto strand = asio::make_strand(runtime::utilityExecutor());
    asio::cancellation_signal cancel;
    auto report = [this](const Progress& step) { progress.push_back(step); };
    auto running = asio::co_spawn(strand, batch.run(report), asio::bind_cancellation_slot(cancel.slot(), asio::use_future));
    ASSERT_TRUE(test::eventually([] { return test::countLogLines("uploaded; cache_key=") == 1; }));
    asio::post(strand, [&cancel] { cancel.emit(asio::cancellation_type::terminal); });
    ASSERT_EQ(running.wait_for(10s), std::future_status::ready);
    EXPECT_NO_THROW(running.get());
    ASSERT_TRUE(pipeline->waitUntilIdle(20s));
    deliverProgress();
    EXPECT_FALSE(batch.isRunning());
    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
    EXPECT_EQ(kinds(), (std::vector<Progress::Kind>{Progress::Kind::scanning, Progress::Kind::uploading,
                                                    Progress::Kind::finished}));

    // The next run takes what is left.
    progress.clear();
    auto next = asio::co_spawn(strand, batch.run(report), asio::use_future);
    ASSERT_EQ(next.wait_for(10s), std::future_status::ready);
    ASSERT_TRUE(pipeline->waitUntilIdle(20s));
    deliverProgress();
    EXPECT_EQ(fake.requests("POST", "sources").size(), 2u);
    EXPECT_EQ(progress.back().kind, Progress::Kind::finished);
    EXPECT_EQ(progress.back().succeeded, 1);
}

} // namespace
} // namespace quillet
