#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CaptureStatus.hpp"
#include "quillet_capture/pipeline/CaptureVaults.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/platform/Sha256.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <future>
#include <numeric>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using Event = CapturePipeline::CaptureEvent;
using nlohmann::json;

constexpr const char* kToken = "tok_pipeline_0123456789";

std::string statusBody(const std::string& word)
{
    return json{{"status", {{"transcription", {{"status", word}, {"model", "m1"}}}}}}.dump();
}

std::string detailBody(const std::string& key, const std::string& text, double duration = 12.4,
                       std::optional<std::string> title = std::nullopt, std::optional<int> words = std::nullopt)
{
    json result = {{"text", text}, {"language", "en"}, {"duration", duration}, {"status", "completed"}};
    if (title) {
        result["llm_title"] = *title;
    }
    if (words) {
        result["word_count"] = *words;
    }
    return json{{"success", true}, {"cache_key", key}, {"result", result}}.dump();
}

// The value of one form field of a multipart body, or nothing when the body has no such part.
std::optional<std::string> formField(const std::string& body, const std::string& name)
{
    std::string head = "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n";
    auto start = body.find(head);
    if (start == std::string::npos) {
        return std::nullopt;
    }
    start += head.size();
    return body.substr(start, body.find("\r\n--", start) - start);
}

// The pipeline of the agent without its coordinator: a scratch home and vault, the settings'
// functions replaced by fields, and polling waits in virtual time.
struct PipelineFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    fs::path vault = home.path() / "vault";
    fs::path recordings = home.path() / "Recordings";
    bool uploads = false;
    std::string baseURL = "http://127.0.0.1:9/api/v1";
    std::vector<WatchedFolder> folders = {WatchedFolder::voiceMemos(true)};
    std::mutex lock;
    std::vector<std::string> transcripts;  // ids given to the after-transcript callback
    std::vector<Event> events;
    std::unique_ptr<CapturePipeline> pipeline;

    PipelineFixture()
    {
        CapturePipeline::Environment environment{
            [this] { return vault; },
            [this] { return uploads; },
            [this] { return folders; },
            [this] { return baseURL; },
            [this](const std::string& id, const fs::path& note) {
                std::lock_guard guard(lock);
                // The note already holds its transcript when the command is told.
                EXPECT_EQ(InboxWriter::readFrontmatter(note).vdJobStatus, "done");
                transcripts.push_back(id);
            },
            &clock,
        };
        pipeline = std::make_unique<CapturePipeline>(std::move(environment), nullptr);
        pipeline->setOnCaptureEvent([this](const Event& event) {
            std::lock_guard guard(lock);
            events.push_back(event);
        });
    }

    void TearDown() override
    {
        // A task still running would log into the next test's home.
        EXPECT_TRUE(pipeline->waitUntilIdle(std::chrono::seconds(20)));
    }

    FolderWatcher::NewCapture recording(const std::string& name, const std::string& id)
    {
        test::writeFile(recordings / name, "audio of " + name);
        return {recordings / name, id, std::chrono::system_clock::now(), "voice-memos"};
    }

    InboxWriter inbox() const { return InboxWriter(vault); }
    fs::path note(const std::string& id) const { return inbox().noteURL(id); }
    InboxWriter::Frontmatter frontmatter(const std::string& id) const { return InboxWriter::readFrontmatter(note(id)); }

    // Starts `task` on the utility pool and returns at once.
    static std::future<void> launch(asio::awaitable<void> task)
    {
        return asio::co_spawn(runtime::utilityExecutor(), std::move(task), asio::use_future);
    }

    // Waits for `task`, and then for the tasks it started.
    void finish(std::future<void>& task)
    {
        ASSERT_EQ(task.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        task.get();
        ASSERT_TRUE(pipeline->waitUntilIdle(std::chrono::seconds(60)));
    }

    void await(asio::awaitable<void> task)
    {
        auto running = launch(std::move(task));
        finish(running);
    }

    void handle(FolderWatcher::NewCapture capture) { await(pipeline->handle(std::move(capture))); }

    std::vector<std::string> transcribed()
    {
        std::lock_guard guard(lock);
        return transcripts;
    }

    std::vector<std::pair<Event::Kind, std::string>> eventsOf(const std::string& id)
    {
        std::lock_guard guard(lock);
        std::vector<std::pair<Event::Kind, std::string>> result;
        for (const auto& event : events) {
            if (event.id == id) {
                result.emplace_back(event.kind, event.status);
            }
        }
        return result;
    }
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

// The same, with uploads on, a stored token and a fake service.
struct PipelineWithUploads : PipelineFixture {
    FakeVeldane fake;

    PipelineWithUploads()
    {
        uploads = true;
        baseURL = fake.baseURL();
        // ScratchHome clears the variable; the token goes to the file under the scratch home.
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string(kToken)));
    }

    // A small service of its own: every upload is stored under "ck_" + the uploaded file's
    // stem, is finished at once, and its transcript names the key.
    void serveEverything()
    {
        fake.fallback([](const FakeVeldane::Request& request) {
            if (request.method == "POST" && request.endpoint == "sources") {
                std::string marker = "filename=\"";
                auto start = request.body.find(marker) + marker.size();
                auto name = request.body.substr(start, request.body.find('"', start) - start);
                return Answer::json(json{{"status", "queued"}, {"cache_key", "ck_" + fs::path(name).stem().string()}}.dump());
            }
            if (request.method == "GET" && request.endpoint.starts_with("sources/") &&
                request.endpoint.ends_with("/status")) {
                return Answer::json(statusBody("completed"));
            }
            if (request.method == "GET" && request.endpoint.starts_with("sources/")) {
                auto key = request.endpoint.substr(8);
                return Answer::json(detailBody(key, "transcript of " + key));
            }
            return Answer::json(R"({"error":"not_found"})", 404);
        });
    }

    std::vector<std::string> endpoints() const
    {
        std::vector<std::string> result;
        for (const auto& request : fake.requests()) {
            result.push_back(request.method + " " + request.endpoint);
        }
        return result;
    }

    // The stub of a Voice Memos capture just written while uploads are on.
    static std::string stubText(const std::string& id, const std::string& created)
    {
        return "---\n"
               "id: " + id + "\n"
               "created: " + created + "\n"
               "classification: voice_memo\n"
               "status: pending\n"
               "confidence: high\n"
               "source:\n"
               "  type: audio\n"
               "  origin: voice_memo\n"
               "  audio_path: _inbox/.audio/" + id + ".m4a\n"
               "  ingestion_tool: quillet-mac\n"
               "  vd_job_status: queued\n"
               "target_skill: /transcript\n"
               "---\n"
               "\n";
    }

    // A note of an earlier run, with an audio copy.
    void earlierCapture(const std::string& id, const std::string& status, std::optional<std::string> key,
                        const std::function<void(InboxWriter::Frontmatter&)>& edit = {})
    {
        auto frontmatter = InboxWriter::Frontmatter::forCapture(id, Iso8601::parse("2024-05-01T09:30:00Z").value());
        frontmatter.vdJobStatus = status;
        frontmatter.externalId = std::move(key);
        if (edit) {
            edit(frontmatter);
        }
        inbox().ensureDirectories();
        inbox().writeMarkdown(frontmatter, "");
        test::writeFile(inbox().audioURL(id), "audio of " + id);
    }
};

TEST_F(PipelineWithUploads, NewRecordingIsUploadedPolledAndWritten)
{
    auto held = std::make_shared<FakeVeldane::Hold>();
    auto upload = Answer::json(R"({"status":"queued","cache_key":"ck_1","title":"x"})");
    upload.hold = held;
    fake.enqueue("POST", "sources", upload);
    fake.enqueue("GET", "sources/ck_1/status", Answer::json(statusBody("processing")));
    fake.enqueue("GET", "sources/ck_1/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_1",
                 Answer::json(detailBody("ck_1", "Hello from the park. It is sunny today.", 12.4, "A walk: the park")));

    auto capture = recording("20240131 142530.m4a", "240131-142530");
    auto created = Iso8601::format(FileTimes::created(capture.sourceURL).value());
    auto running = launch(pipeline->handle(capture));

    // While the upload is held, the vault holds the copy and the stub.
    ASSERT_TRUE(fake.waitForRequests(1));
    EXPECT_EQ(test::readFile(note("240131-142530")), stubText("240131-142530", created));
    EXPECT_EQ(test::readFile(vault / "_inbox/.audio/240131-142530.m4a"), "audio of 20240131 142530.m4a");
    EXPECT_TRUE(pipeline->isClaimed("240131-142530"));
    held->release();
    finish(running);

    EXPECT_EQ(test::readFile(note("240131-142530")),
              "---\n"
              "id: 240131-142530\n"
              "created: " + created + "\n"
              "classification: voice_memo\n"
              "status: pending\n"
              "confidence: high\n"
              "source:\n"
              "  type: audio\n"
              "  origin: voice_memo\n"
              "  audio_path: _inbox/.audio/240131-142530.m4a\n"
              "  audio_duration_sec: 12\n"
              "  ingestion_tool: quillet-mac\n"
              "  external_id: ck_1\n"
              "  vd_job_status: done\n"
              "  uploaded_at: 2023-11-14T22:13:20Z\n"
              "target_skill: /transcript\n"
              "title: \"A walk: the park\"\n"
              "---\n"
              "\n"
              "Hello from the park. It is sunny today.");

    EXPECT_EQ(endpoints(), (std::vector<std::string>{"POST sources", "GET sources/ck_1/status",
                                                     "GET sources/ck_1/status", "GET sources/ck_1"}));
    // One wait of the first back-off step between the two status questions.
    EXPECT_EQ(clock.waits(), std::vector<double>{5});

    // The upload: a Voice Memos capture with its id as the only metadata, no tags, the copy's bytes.
    auto sent = fake.requests("POST", "sources").at(0);
    EXPECT_EQ(sent.header("Authorization"), std::string("Bearer ") + kToken);
    EXPECT_EQ(formField(sent.body, "content_source"), "voice_memo");
    EXPECT_EQ(formField(sent.body, "content_source_metadata"), R"({"quillet_id":"240131-142530"})");
    EXPECT_FALSE(formField(sent.body, "tags"));
    EXPECT_FALSE(formField(sent.body, "language"));
    EXPECT_NE(sent.body.find("Content-Disposition: form-data; name=\"file\"; filename=\"240131-142530.m4a\"\r\n"
                             "Content-Type: audio/mp4\r\n\r\naudio of 20240131 142530.m4a\r\n"),
              std::string::npos)
        << sent.body;

    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 uploaded; cache_key=ck_1"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: transcript written for 240131-142530 (8 words)"), 1);
    EXPECT_EQ(transcribed(), std::vector<std::string>{"240131-142530"});
    EXPECT_EQ(eventsOf("240131-142530"), (std::vector<std::pair<Event::Kind, std::string>>{
                                             {Event::Kind::sent, ""}, {Event::Kind::transcriptReady, ""}}));
    EXPECT_FALSE(pipeline->isClaimed("240131-142530"));
}

TEST_F(PipelineWithUploads, CapturesFromOtherFoldersAreMarkedAsSuch)
{
    serveEverything();
    folders.push_back(WatchedFolder::generic(recordings.string(), "Phone sync"));
    auto capture = recording("talk.wav", "240301-101500");
    capture.folderId = folders.back().id;
    handle(capture);
    auto written = frontmatter("240301-101500");
    EXPECT_EQ(written.sourceType, "audio_capture");
    EXPECT_EQ(written.tags, std::vector<std::string>{"watched_folder:Phone sync"});
    EXPECT_EQ(written.vdJobStatus, "done");
    // A .wav source is kept and sent under the copy's .m4a name.
    EXPECT_NE(fake.requests("POST", "sources").at(0).body.find("filename=\"240301-101500.m4a\""), std::string::npos);

    // A folder no longer in the settings: the source type, no tag.
    auto orphan = recording("other.wav", "240301-101600");
    orphan.folderId = "gone";
    handle(orphan);
    EXPECT_EQ(frontmatter("240301-101600").sourceType, "audio_capture");
    EXPECT_TRUE(frontmatter("240301-101600").tags.empty());
}

TEST_F(PipelineWithUploads, TaskIdIsResolvedToItsCacheKey)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","task_id":"task-7"})"));
    fake.enqueue("GET", "sources/tasks/task-7", Answer::json(R"({"status":"pending"})"));
    fake.enqueue("GET", "sources/tasks/task-7", Answer::json(R"({"status":"done","result":{"cache_key":"ck_7"}})"));
    fake.enqueue("GET", "sources/ck_7/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_7", Answer::json(detailBody("ck_7", "one two three")));

    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::countLogLines(
                  "[quillet] capture pipeline: 240131-142530 queued as task task-7; resolving its cache_key"),
              1);
    EXPECT_EQ(frontmatter("240131-142530").externalId, "ck_7");
    EXPECT_EQ(frontmatter("240131-142530").vdJobStatus, "done");
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 uploaded; cache_key=ck_7"), 1);
    // The task was asked again after one pause of 5 seconds.
    EXPECT_EQ(clock.waits(), std::vector<double>{5});
}

TEST_F(PipelineWithUploads, FailedUploadsLeaveTheNoteInUploadFailed)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"error":"quota","message":"Quota used up"})", 402));
    fake.enqueue("POST", "sources", Answer::text("boom", 500));
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"accepted"})"));
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","task_id":"task-8"})"));
    fake.route("GET", "sources/tasks/task-8", [](const FakeVeldane::Request&) {
        return Answer::json(R"({"status":"pending"})");
    });

    const std::vector<std::pair<std::string, std::string>> cases = {
        {"240201-090000", "[quillet] capture pipeline: upload failed for 240201-090000: Veldane refused this "
                          "request (402): Quota used up"},
        {"240201-090001", "[quillet] capture pipeline: upload failed for 240201-090001: VD request failed (500): boom"},
        {"240201-090002", "[quillet] capture pipeline: upload for 240201-090002 returned neither cache_key nor "
                          "task_id (status accepted)"},
        {"240201-090003", "[quillet] capture pipeline: no cache_key for task task-8 (240201-090003) within 10 minutes"},
    };
    for (const auto& [id, line] : cases) {
        handle(recording(id + ".m4a", id));
        auto messages = test::logMessages();
        EXPECT_NE(std::find(messages.begin(), messages.end(), line), messages.end()) << line;
        EXPECT_EQ(frontmatter(id).vdJobStatus, "upload_failed") << id;
        EXPECT_FALSE(frontmatter(id).externalId) << id;
        EXPECT_FALSE(pipeline->isClaimed(id));
        auto expected = std::vector<std::pair<Event::Kind, std::string>>{{Event::Kind::failed, "upload_failed"}};
        if (id >= "240201-090002") {
            expected.insert(expected.begin(), {Event::Kind::sent, ""});
        }
        EXPECT_EQ(eventsOf(id), expected) << id;
    }
    // The task was asked for ten minutes of virtual time, every 5 seconds.
    auto waits = clock.waits();
    EXPECT_EQ(std::accumulate(waits.begin(), waits.end(), 0.0), 600.0);
    EXPECT_EQ(fake.requests("GET", "sources/tasks/task-8").size(), 120u);
    for (const auto& request : fake.requests()) {
        EXPECT_FALSE(request.endpoint.ends_with("/status")) << request.endpoint;
    }
    EXPECT_TRUE(transcribed().empty());

    // The status count sees them as failures.
    auto counted = CaptureStatus::count(vault / "_inbox", std::chrono::system_clock::now());
    EXPECT_EQ(counted.failed, 4);
    EXPECT_EQ(counted.pending, 0);
}

TEST_F(PipelineWithUploads, ServiceFailureAndRefusedTranscriptEndAsFailed)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_f"})"));
    fake.enqueue("GET", "sources/ck_f/status", Answer::json(statusBody("processing")));
    fake.enqueue("GET", "sources/ck_f/status", Answer::json(statusBody("failed")));
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: VD reported failed for 240131-142530"), 1);
    EXPECT_EQ(frontmatter("240131-142530").vdJobStatus, "failed");
    EXPECT_EQ(frontmatter("240131-142530").externalId, "ck_f");
    EXPECT_EQ(eventsOf("240131-142530"), (std::vector<std::pair<Event::Kind, std::string>>{
                                             {Event::Kind::sent, ""}, {Event::Kind::failed, "failed"}}));
    EXPECT_TRUE(fake.requests("GET", "sources/ck_f").empty());

    // The plan does not cover the transcript: refused for good.
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_p"})"));
    fake.enqueue("GET", "sources/ck_p/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_p", Answer::json(R"({"plan":"pro"})", 402));
    handle(recording("20240131 142531.m4a", "240131-142531"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: retrieval refused for 240131-142531: Veldane refused "
                                  "this request for your plan (402, needs pro)"),
              1);
    EXPECT_EQ(frontmatter("240131-142531").vdJobStatus, "failed");

    // Any other transcript error leaves the service's last word for the next start.
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_e"})"));
    fake.enqueue("GET", "sources/ck_e/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_e", Answer::text("busy", 503));
    handle(recording("20240131 142532.m4a", "240131-142532"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: fetch transcript failed for 240131-142532: VD request "
                                  "failed (503): busy"),
              1);
    EXPECT_EQ(frontmatter("240131-142532").vdJobStatus, "completed");
    EXPECT_TRUE(CapturePipeline::resumableStates().contains("completed"));
    EXPECT_TRUE(transcribed().empty());
}

TEST_F(PipelineWithUploads, LibraryDocumentThatIsFinishedIsWrittenWithoutWaiting)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"duplicate_upload","cache_key":"DOC_9"})"));
    fake.enqueue("GET", "sources/DOC_9/status", Answer::json("{}"));
    fake.enqueue("GET", "sources/DOC_9", Answer::json(detailBody("DOC_9", "x", 3, std::nullopt, 42)));
    fake.enqueue("GET", "sources/DOC_9", Answer::json(detailBody("DOC_9", "the whole text", 3, std::nullopt, 42)));
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 already in VD library; cache_key=DOC_9 "
                                  "(duplicate_upload)"),
              1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 is done in VD (status completed, 42 "
                                  "words)"),
              1);
    EXPECT_EQ(InboxWriter::readBody(note("240131-142530")), "the whole text");
    EXPECT_TRUE(clock.waits().empty());
    EXPECT_EQ(transcribed(), std::vector<std::string>{"240131-142530"});
}

TEST_F(PipelineWithUploads, NineNotFoundAnswersAreWaitedOut)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_1"})"));
    for (int i = 0; i < 9; ++i) {
        fake.enqueue("GET", "sources/ck_1/status", Answer::json(R"({"detail":"Not found"})", 404));
    }
    fake.enqueue("GET", "sources/ck_1/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_1", Answer::json(detailBody("ck_1", "found at last")));
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(frontmatter("240131-142530").vdJobStatus, "done");
    EXPECT_EQ(clock.waits(), std::vector<double>(9, 5));
    EXPECT_TRUE(fake.requests("GET", "sources").empty());
    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
}

TEST_F(PipelineWithUploads, TenthNotFoundFollowsTheCaptureToItsNewKey)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_old"})"));
    fake.route("GET", "sources/ck_old/status",
               [](const FakeVeldane::Request&) { return Answer::json(R"({"detail":"Not found"})", 404); });
    json listing = {{"files",
                     {{{"cache_key", "ck_gone"}, {"original_filename", "240131-142530.m4a"}, {"status", "failed"}},
                      {{"cache_key", "ck_other"}, {"original_filename", "240101-000000.m4a"}},
                      {{"cache_key", "ck_new"}, {"original_filename", "240131-142530.m4a"}, {"status", "queued"}}}},
                    {"count", 3},
                    {"has_more", false}};
    fake.enqueue("GET", "sources", Answer::json(listing.dump()));
    fake.enqueue("GET", "sources/ck_new/status", Answer::json(statusBody("completed")));
    fake.enqueue("GET", "sources/ck_new", Answer::json(detailBody("ck_new", "moved but whole")));
    handle(recording("20240131 142530.m4a", "240131-142530"));

    EXPECT_EQ(fake.requests("GET", "sources/ck_old/status").size(), 10u);
    ASSERT_EQ(fake.requests("GET", "sources").size(), 1u);
    EXPECT_EQ(fake.requests("GET", "sources")[0].queryItem("limit"), "100");
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 found in the source list"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 moved in VD: ck_old -> ck_new"), 1);
    EXPECT_EQ(test::countLogLines("giving up"), 0);
    auto written = frontmatter("240131-142530");
    EXPECT_EQ(written.vdJobStatus, "done");
    EXPECT_EQ(written.externalId, "ck_new");
    EXPECT_EQ(InboxWriter::readBody(note("240131-142530")), "moved but whole");
    // A wait after each of the first nine not-found answers, and one after the move.
    EXPECT_EQ(clock.waits(), std::vector<double>(10, 5));
    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
}

TEST_F(PipelineWithUploads, TenthNotFoundWithoutAnyKeyGivesUp)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_old"})"));
    fake.route("GET", "sources/ck_old/status",
               [](const FakeVeldane::Request&) { return Answer::json(R"({"detail":"Not found"})", 404); });
    fake.enqueue("GET", "sources", Answer::json(R"({"files":[],"count":0,"has_more":false})"));
    fake.enqueue("POST", "sources", Answer::text("down", 500));
    handle(recording("20240131 142530.m4a", "240131-142530"));

    EXPECT_EQ(test::countLogLines(
                  "[quillet] capture pipeline: 240131-142530 not in the source list; uploading again to learn its key"),
              1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: VD has no document for 240131-142530 (cache_key "
                                  "ck_old); giving up"),
              1);
    EXPECT_EQ(frontmatter("240131-142530").vdJobStatus, "failed");
    EXPECT_EQ(eventsOf("240131-142530"), (std::vector<std::pair<Event::Kind, std::string>>{
                                             {Event::Kind::sent, ""}, {Event::Kind::failed, "failed"}}));
    // The second upload carries the capture's upload profile.
    auto uploadsSent = fake.requests("POST", "sources");
    ASSERT_EQ(uploadsSent.size(), 2u);
    EXPECT_EQ(formField(uploadsSent[1].body, "content_source"), "voice_memo");
    EXPECT_EQ(formField(uploadsSent[1].body, "tags"), "voice-memo,quillet-mac");
    EXPECT_EQ(formField(uploadsSent[1].body, "content_source_metadata"), R"({"quillet_id":"240131-142530"})");
    EXPECT_FALSE(pipeline->isClaimed("240131-142530"));
    EXPECT_TRUE(transcribed().empty());
}

TEST_F(PipelineWithUploads, PollingBacksOffWithElapsedTimeAndStopsAfterSixHours)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_slow"})"));
    fake.route("GET", "sources/ck_slow/status",
               [](const FakeVeldane::Request&) { return Answer::json(statusBody("processing")); });
    handle(recording("20240131 142530.m4a", "240131-142530"));

    // 5 s until a minute has passed, 30 s until ten minutes, 120 s until an hour, then 300 s.
    std::vector<double> expected;
    expected.insert(expected.end(), 12, 5);
    expected.insert(expected.end(), 18, 30);
    expected.insert(expected.end(), 25, 120);
    expected.insert(expected.end(), 60, 300);
    EXPECT_EQ(clock.waits(), expected);
    EXPECT_EQ(fake.requests("GET", "sources/ck_slow/status").size(), expected.size() + 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: polling timed out for 240131-142530 (>360 min)"), 1);
    EXPECT_EQ(frontmatter("240131-142530").vdJobStatus, "poll_timeout");
    EXPECT_EQ(eventsOf("240131-142530"), (std::vector<std::pair<Event::Kind, std::string>>{
                                             {Event::Kind::sent, ""}, {Event::Kind::failed, "poll_timeout"}}));
    EXPECT_FALSE(pipeline->isClaimed("240131-142530"));
}

TEST_F(PipelineWithUploads, StartResumesUnfinishedCaptures)
{
    serveEverything();
    earlierCapture("240101-080000", "queued", "ck_kept");
    earlierCapture("240101-080001", "upload_failed", std::nullopt);
    earlierCapture("240101-080002", "processing", "");
    earlierCapture("240101-080003", "queued", std::nullopt, [](InboxWriter::Frontmatter& f) {
        f.classification = CapturePipeline::recordingClassification;
        f.sourceOrigin = CapturePipeline::recordingOrigin;
        f.recorderSource = "Zoom";
        f.recorderMicrophone = "MacBook Microphone";
    });
    earlierCapture("240101-080004", "done", "ck_done");
    earlierCapture("240101-080005", "skipped", std::nullopt);
    earlierCapture("240101-080006", "failed", "ck_failed");
    earlierCapture("240101-080007", "poll_timeout", "ck_late");

    // With uploads off nothing is resumed.
    uploads = false;
    await(pipeline->resumeUnfinished());
    EXPECT_EQ(fake.requestCount(), 0u);
    EXPECT_EQ(test::countLogLines("resuming"), 0);

    uploads = true;
    pipeline->start();
    ASSERT_TRUE(test::eventually([&] { return transcribed().size() == 5; }, 30));
    ASSERT_TRUE(pipeline->waitUntilIdle(std::chrono::seconds(20)));

    auto resumed = transcribed();
    std::sort(resumed.begin(), resumed.end());
    EXPECT_EQ(resumed, (std::vector<std::string>{"240101-080000", "240101-080001", "240101-080002", "240101-080003",
                                                 "240101-080007"}));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: started"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: resuming 5 unfinished capture(s)"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240101-080000 resumed (polling ck_kept)"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240101-080007 resumed (polling ck_late)"), 1);
    for (const char* id : {"240101-080001", "240101-080002", "240101-080003"}) {
        EXPECT_EQ(test::countLogLines(std::string("[quillet] capture pipeline: ") + id + " resumed (uploading again)"), 1);
        EXPECT_EQ(test::countLogLines(std::string("[quillet] capture retry: ") + id + " uploaded; cache_key=ck_" + id),
                  1);
        EXPECT_EQ(frontmatter(id).externalId, std::string("ck_") + id);
    }
    EXPECT_EQ(frontmatter("240101-080000").externalId, "ck_kept");
    EXPECT_EQ(InboxWriter::readBody(note("240101-080000")), "transcript of ck_kept");
    // Finished, skipped and failed captures are left to the retry batch.
    EXPECT_EQ(frontmatter("240101-080005").vdJobStatus, "skipped");
    EXPECT_EQ(frontmatter("240101-080006").vdJobStatus, "failed");
    EXPECT_TRUE(fake.requests("GET", "sources/ck_done/status").empty());
    EXPECT_TRUE(fake.requests("GET", "sources/ck_failed/status").empty());

    // Each upload with the profile of its note.
    auto sent = fake.requests("POST", "sources");
    ASSERT_EQ(sent.size(), 3u);
    for (const auto& request : sent) {
        bool meeting = request.body.find("filename=\"240101-080003.m4a\"") != std::string::npos;
        if (meeting) {
            EXPECT_EQ(formField(request.body, "content_source"), "meeting");
            EXPECT_EQ(formField(request.body, "tags"), "meeting,quillet-mac");
            EXPECT_EQ(json::parse(formField(request.body, "content_source_metadata").value()),
                      (json{{"quillet_id", "240101-080003"},
                            {"recorder_source", "Zoom"},
                            {"microphone", "MacBook Microphone"},
                            {"channel_layout", "All audio"},
                            {"meeting_started_at", "2024-05-01T09:30:00Z"}}));
        } else {
            EXPECT_EQ(formField(request.body, "content_source"), "voice_memo");
            EXPECT_EQ(formField(request.body, "tags"), "voice-memo,quillet-mac");
        }
    }
    pipeline->stop();
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: stopped"), 1);
}

TEST_F(PipelineWithUploads, SameFileReportedTwiceIsHandledOnce)
{
    auto held = std::make_shared<FakeVeldane::Hold>();
    auto upload = Answer::json(R"({"status":"queued","cache_key":"ck_1"})");
    upload.hold = held;
    fake.enqueue("POST", "sources", upload);
    fake.route("GET", "sources/ck_1/status",
               [](const FakeVeldane::Request&) { return Answer::json(statusBody("completed")); });
    fake.route("GET", "sources/ck_1", [](const FakeVeldane::Request&) { return Answer::json(detailBody("ck_1", "once")); });

    auto capture = recording("20240131 142530.m4a", "240131-142530");
    auto first = launch(pipeline->handle(capture));
    auto second = launch(pipeline->handle(capture));
    ASSERT_TRUE(test::eventually([] {
        return test::countLogLines("[quillet] capture pipeline: 240131-142530 is already being handled; skipping") == 1;
    }));
    ASSERT_TRUE(fake.waitForRequests(1));
    held->release();
    finish(first);
    finish(second);

    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
    EXPECT_EQ(transcribed(), std::vector<std::string>{"240131-142530"});
    EXPECT_EQ(test::countLogLines("already being handled"), 1);

    // Once written, a third report of the file does nothing at all.
    auto before = test::readFile(note("240131-142530"));
    fs::remove(inbox().audioURL("240131-142530"));
    handle(capture);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 already has its transcript; skipping"), 1);
    EXPECT_EQ(test::readFile(note("240131-142530")), before);
    EXPECT_FALSE(fs::exists(inbox().audioURL("240131-142530")));
    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
}

TEST_F(PipelineWithUploads, RecordingIdIsNotTakenOverByAVoiceMemo)
{
    serveEverything();
    earlierCapture("240131-142530", "done", "ck_meeting", [](InboxWriter::Frontmatter& f) {
        f.classification = CapturePipeline::recordingClassification;
        f.sourceOrigin = CapturePipeline::recordingOrigin;
    });
    auto meetingNote = test::readFile(note("240131-142530"));
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240131-142530 is a recording's id; capturing 20240131 "
                                  "142530.m4a as 240131-142530_2"),
              1);
    EXPECT_EQ(test::readFile(note("240131-142530")), meetingNote);
    EXPECT_EQ(frontmatter("240131-142530_2").vdJobStatus, "done");
    EXPECT_EQ(transcribed(), std::vector<std::string>{"240131-142530_2"});
}

TEST_F(PipelineWithUploads, VaultThatCannotBeWrittenEndsTheCaptureWithALogLine)
{
    // The inbox is a file: nothing can be copied into it.
    fs::create_directories(vault);
    test::writeFile(vault / "_inbox", "not a folder");
    handle(recording("20240131 142530.m4a", "240131-142530"));
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: copyAudio failed for 240131-142530: "), 1);
    EXPECT_EQ(fake.requestCount(), 0u);
    EXPECT_FALSE(pipeline->isClaimed("240131-142530"));
    fs::remove(vault / "_inbox");

    // The vault goes away while the service works on the capture.
    auto held = std::make_shared<FakeVeldane::Hold>();
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"ck_1"})"));
    auto status = Answer::json(statusBody("completed"));
    status.hold = held;
    fake.enqueue("GET", "sources/ck_1/status", status);
    fake.enqueue("GET", "sources/ck_1", Answer::json(detailBody("ck_1", "lost")));
    auto running = launch(pipeline->handle(recording("20240131 142531.m4a", "240131-142531")));
    ASSERT_TRUE(fake.waitForRequests(2));
    fs::rename(vault / "_inbox", vault / "_inbox.moved");
    test::writeFile(vault / "_inbox", "not a folder");
    held->release();
    finish(running);

    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: cannot set 240131-142531 to completed: "), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: fetch transcript failed for 240131-142531: "), 1);
    EXPECT_EQ(test::readFile(vault / "_inbox"), "not a folder");
    EXPECT_EQ(InboxWriter::readFrontmatter(vault / "_inbox.moved/240131-142531.md").vdJobStatus, "queued");
    EXPECT_TRUE(transcribed().empty());
    EXPECT_FALSE(pipeline->isClaimed("240131-142531"));
}

// The vault's ledger records each note and copy the pipeline makes (with the copy's digest);
// a note the person removed is never made again: not for the same file offered again, not for
// the file grown, not for a transcript that arrives after the note went.
TEST_F(PipelineWithUploads, ANoteThePersonRemovedIsNeverMadeAgain)
{
    serveEverything();
    auto capture = recording("20240131 142530.m4a", "240131-142530");
    handle(capture);
    NoteLedger ledger(vault);
    auto record = ledger.read().at("240131-142530");
    EXPECT_TRUE(record.made.has_value());
    EXPECT_EQ(record.source.folderId, "voice-memos");
    EXPECT_EQ(record.source.name, "20240131 142530.m4a");
    EXPECT_EQ(record.sha256, Sha256::ofFile(capture.sourceURL)) << "the digest is the copied bytes'";
    EXPECT_EQ(record.externalIds, (std::set<std::string>{"ck_240131-142530"}));
    const auto requests = fake.requests().size();

    fs::remove(note("240131-142530"));
    handle(capture);
    test::writeFile(capture.sourceURL, "audio of 20240131 142530.m4a, and more");
    auto grown = capture;
    grown.grown = true;
    handle(grown);
    EXPECT_FALSE(fs::exists(note("240131-142530")));
    EXPECT_EQ(test::readFile(inbox().audioURL("240131-142530")), "audio of 20240131 142530.m4a")
        << "the copy of a removed note is not replaced";
    EXPECT_EQ(fake.requests().size(), requests) << "nothing is sent for it";
    EXPECT_EQ(test::countLogLines("the note of 240131-142530 was removed from the inbox; its recording "
                                  "20240131 142530.m4a is left alone"),
              2);

    // Removed while its upload is under way: the transcript is not written into a new note.
    auto held = std::make_shared<FakeVeldane::Hold>();
    auto upload = Answer::json(R"({"status":"queued","cache_key":"ck_2"})");
    upload.hold = held;
    fake.enqueue("POST", "sources", upload);
    auto second = recording("20240131 150000.m4a", "240131-150000");
    auto running = launch(pipeline->handle(second));
    ASSERT_TRUE(fake.waitForRequests(requests + 1));
    fs::remove(note("240131-150000"));
    held->release();
    finish(running);
    EXPECT_FALSE(fs::exists(note("240131-150000")));
    EXPECT_EQ(test::countLogLines("the note of 240131-150000 was removed from the inbox; its transcript is not "
                                  "written"),
              1);
}

TEST(PipelineStatics, RecordingMetadataAndOrigins)
{
    auto metadata = CapturePipeline::recordingMetadata("240501-093000", "Teams", "USB mic", "Left/Right",
                                                       Iso8601::parse("2024-05-01T09:30:00Z").value() +
                                                           std::chrono::milliseconds(750));
    EXPECT_EQ(metadata, (std::map<std::string, std::string>{{"quillet_id", "240501-093000"},
                                                            {"recorder_source", "Teams"},
                                                            {"microphone", "USB mic"},
                                                            {"channel_layout", "Left/Right"},
                                                            {"meeting_started_at", "2024-05-01T09:30:00Z"}}));
    EXPECT_TRUE(CapturePipeline::isRecordingOrigin(std::string("quillet_recorder")));
    EXPECT_TRUE(CapturePipeline::isRecordingOrigin(std::string("pellam_recorder")));
    EXPECT_FALSE(CapturePipeline::isRecordingOrigin(std::string("voice_memo")));
    EXPECT_FALSE(CapturePipeline::isRecordingOrigin(std::nullopt));
}

// After a change of vault, a capture begun in the vault named before finishes in its note
// there, in a later run too; a capture no run kept a vault for (an older agent's) is in the
// vault named now; a kept vault that is not there is left alone, never made again.
TEST_F(PipelineWithUploads, EachCaptureFinishesInTheVaultOfItsNote)
{
    serveEverything();
    const fs::path other = home.path() / "Other";
    const fs::path gone = home.path() / "Moved away";
    InboxWriter(other).ensureDirectories();
    CaptureVaults vaults(home.path() / "capture-vaults.json");
    fs::path current = other;
    CapturePipeline::Environment environment{
        [&] {
            std::lock_guard guard(lock);
            return current;
        },
        [] { return true; },
        [this] { return folders; },
        [this] { return baseURL; },
        [this](const std::string& id, const fs::path&) {
            std::lock_guard guard(lock);
            transcripts.push_back(id);
        },
        &clock,
    };
    environment.vaults = &vaults;

    // Begun in the first vault by an earlier run, which kept its vault.
    earlierCapture("240101-080000", "queued", "ck_240101-080000");
    earlierCapture("240101-080001", "upload_failed", std::nullopt);
    vaults.record("240101-080000", vault);
    vaults.record("240101-080001", vault);
    // An older agent's capture in the vault named now, and one whose vault was moved away.
    auto older = InboxWriter::Frontmatter::forCapture("240101-080002", clock.now());
    older.vdJobStatus = "queued";
    InboxWriter(other).writeMarkdown(older, "");
    test::writeFile(InboxWriter(other).audioURL("240101-080002"), "audio of 240101-080002");
    vaults.record("240101-080003", gone);

    {
        CapturePipeline restarted(environment, nullptr);
        await(restarted.resumeUnfinished());
        ASSERT_TRUE(restarted.waitUntilIdle(std::chrono::seconds(20)));
        EXPECT_EQ(restarted.vaultOf("240101-080003"), gone);
    }
    for (const char* id : {"240101-080000", "240101-080001"}) {
        EXPECT_EQ(frontmatter(id).vdJobStatus, "done") << id;
        EXPECT_NE(test::readFile(note(id)).find(std::string("transcript of ck_") + id), std::string::npos);
        EXPECT_FALSE(fs::exists(InboxWriter(other).noteURL(id))) << "a fresh note in the vault named now";
        EXPECT_EQ(vaults.find(id), std::nullopt) << "a finished capture keeps no vault";
    }
    EXPECT_EQ(InboxWriter::readFrontmatter(InboxWriter(other).noteURL("240101-080002")).vdJobStatus, "done");
    EXPECT_EQ(vaults.find("240101-080003"), gone) << "kept for a start that finds the vault";
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_EQ(CaptureVaults(home.path() / "capture-vaults.json").all(),
              (std::map<std::string, fs::path>{{"240101-080003", gone}}));
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

// Another recording handed over under the name of one whose note is still being written: the
// first capture's end does not take the second one's entry with it.
TEST(CaptureIntake, AnEntryIsRemovedOnlyByItsOwnCapture)
{
    test::ScratchDir dir;
    CaptureIntake intake(dir.path() / "intake.json");
    auto when = std::chrono::system_clock::now();
    intake.add({"voice-memos", "Recording.m4a", dir.path() / "Recording.m4a", "240131-142530", when});
    intake.add({"voice-memos", "Recording.m4a", dir.path() / "Recording.m4a", "240131-142530_2", when});
    intake.remove("voice-memos", "Recording.m4a", "240131-142530");
    auto kept = CaptureIntake(dir.path() / "intake.json").entries();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].canonicalId, "240131-142530_2");
    intake.remove("voice-memos", "Recording.m4a", "240131-142530_2");
    EXPECT_TRUE(CaptureIntake(dir.path() / "intake.json").entries().empty());
}

} // namespace
} // namespace quillet
