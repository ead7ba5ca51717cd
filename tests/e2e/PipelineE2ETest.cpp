#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <cstdio>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using nlohmann::json;

constexpr const char* kToken = "tok_e2e_0123456789abcdef";

// The agent as it runs at login: the built program's `run` in a scratch home with a Voice
// Memos folder, uploads on, a stored token and the service faked on 127.0.0.1.
struct PipelineE2ETest : ::testing::Test {
    test::ScratchHome home;
    FakeVeldane fake;
    fs::path memos = Paths::voiceMemosCandidates().at(0);
    fs::path vault = home.path() / "Notes";
    fs::path afterFile = home.path() / "after.txt";
    std::string fixture = test::readFile(fs::path(QUILLET_SOURCE_DIR) / "tests/fixtures/short-1500ms.m4a");

    PipelineE2ETest()
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string(kToken)));
        test::writeSettings([&](AppSettings& s) {
            s.vaultPath = vault.string();
            s.vaultName = "Notes";
            s.captureVoiceMemosEnabled = true;
            s.captureVeldaneEnabled = true;
            s.keepVoiceMemosRunning = false;
            s.watchedFoldersRaw = std::vector{WatchedFolder::voiceMemos(true)};
            s.veldaneBaseURL = fake.baseURL();
            s.afterTranscriptCommand = "printf '%s\\n' \"$QUILLET_ID\" \"$QUILLET_FILE\" \"$QUILLET_FOLDER\" \"$PWD\" > " +
                                       afterFile.string() + ".part && mv " + afterFile.string() + ".part " +
                                       afterFile.string();
        });
        fs::create_directories(memos);
    }

    // A file appears whole, as a finished download does: written under a hidden name, renamed.
    void drop(const std::string& name, const std::string& bytes)
    {
        test::writeFile(memos / ("." + name + ".part"), bytes);
        fs::rename(memos / ("." + name + ".part"), memos / name);
    }
};

TEST_F(PipelineE2ETest, NewRecordingBecomesATranscribedNoteAndOldOnesAreLeft)
{
    for (int i = 0; i < 50; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "20240101 1000%02d.m4a", i);
        test::writeFile(memos / name, fixture);
    }
    auto held = std::make_shared<FakeVeldane::Hold>();
    auto upload = Answer::json(R"({"status":"queued","cache_key":"ck_e2e"})");
    upload.hold = held;
    fake.enqueue("POST", "sources", upload);
    fake.route("GET", "sources/ck_e2e/status", [](const FakeVeldane::Request&) {
        return Answer::json(R"({"status":{"transcription":{"status":"completed","word_count":8}}})");
    });
    fake.route("GET", "sources/ck_e2e", [](const FakeVeldane::Request&) {
        return Answer::json(json{{"success", true},
                                 {"cache_key", "ck_e2e"},
                                 {"result",
                                  {{"text", "This is the transcript of a short memo."},
                                   {"language", "en"},
                                   {"duration", 1.5},
                                   {"llm_title", "Short test memo"},
                                   {"status", "completed"}}}}
                                .dump());
    });

    test::ChildProcess agent(test::programPath(), {"run"}, {{"QUILLET_TOKEN_STORE", "file"}});
    ASSERT_TRUE(test::eventually(
        [&] { return test::countLogLines("[quillet] capture: [Voice Memos] initial index complete (50 existing files marked seen)") == 1; },
        10));
    const std::string id = "240315-093000";
    auto dropped = std::chrono::system_clock::now();
    drop("20240315 093000.m4a", fixture);
    auto created = Iso8601::format(FileTimes::created(memos / "20240315 093000.m4a").value());

    // The first tick comes 2 s after the start and the guards wait 2 s for a stable size; a
    // drop that just missed it waits for the next tick, 30 s later.
    ASSERT_TRUE(fake.waitForRequests(1, 40)) << test::readFile(Paths::logFile());
    fs::path note = vault / "_inbox" / (id + ".md");
    EXPECT_EQ(test::readFile(note), "---\n"
                                    "id: 240315-093000\n"
                                    "created: " + created + "\n"
                                    "classification: voice_memo\n"
                                    "status: pending\n"
                                    "confidence: high\n"
                                    "source:\n"
                                    "  type: audio\n"
                                    "  origin: voice_memo\n"
                                    "  audio_path: _inbox/.audio/240315-093000.m4a\n"
                                    "  ingestion_tool: quillet-mac\n"
                                    "  vd_job_status: queued\n"
                                    "target_skill: /transcript\n"
                                    "---\n"
                                    "\n");
    EXPECT_EQ(test::readFile(vault / "_inbox/.audio" / (id + ".m4a")), fixture);
    held->release();

    ASSERT_TRUE(test::eventually([&] { return fs::exists(afterFile); }, 20)) << test::readFile(Paths::logFile());
    auto written = InboxWriter::readFrontmatter(note);
    ASSERT_TRUE(written.uploadedAt);
    EXPECT_GE(*written.uploadedAt, std::chrono::floor<std::chrono::seconds>(dropped));
    EXPECT_LE(*written.uploadedAt, std::chrono::system_clock::now());
    EXPECT_EQ(test::readFile(note), "---\n"
                                    "id: 240315-093000\n"
                                    "created: " + created + "\n"
                                    "classification: voice_memo\n"
                                    "status: pending\n"
                                    "confidence: high\n"
                                    "source:\n"
                                    "  type: audio\n"
                                    "  origin: voice_memo\n"
                                    "  audio_path: _inbox/.audio/240315-093000.m4a\n"
                                    "  audio_duration_sec: 2\n"
                                    "  ingestion_tool: quillet-mac\n"
                                    "  external_id: ck_e2e\n"
                                    "  vd_job_status: done\n"
                                    "  uploaded_at: " + Iso8601::format(*written.uploadedAt) + "\n"
                                    "target_skill: /transcript\n"
                                    "title: Short test memo\n"
                                    "---\n"
                                    "\n"
                                    "This is the transcript of a short memo.");

    // The after-transcript command ran in the vault with the capture's variables.
    EXPECT_EQ(test::readLines(afterFile),
              (std::vector<std::string>{id, note.string(), vault.string(), vault.string()}));
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines("[quillet] after-transcript: " + id + " exited 0 after ") == 1; }));

    // One upload of the recording's bytes, one status question, one transcript fetch.
    auto uploads = fake.requests("POST", "sources");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].header("Authorization"), std::string("Bearer ") + kToken);
    EXPECT_NE(uploads[0].body.find("filename=\"240315-093000.m4a\"\r\nContent-Type: audio/mp4\r\n\r\n" + fixture +
                                   "\r\n"),
              std::string::npos);
    EXPECT_EQ(fake.requests("GET", "sources/ck_e2e/status").size(), 1u);
    EXPECT_EQ(fake.requests("GET", "sources/ck_e2e").size(), 1u);

    // None of the fifty old recordings became a capture.
    std::vector<fs::path> notes;
    for (const auto& entry : fs::directory_iterator(vault / "_inbox")) {
        if (entry.path().extension() == ".md") {
            notes.push_back(entry.path());
        }
    }
    EXPECT_EQ(notes, std::vector<fs::path>{note});
    EXPECT_EQ(test::countLogLines("new file -- "), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Voice Memos] new file -- 20240315 093000.m4a -> 240315-093000"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: 240315-093000 uploaded; cache_key=ck_e2e"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] capture pipeline: transcript written for 240315-093000 (8 words)"), 1);
    EXPECT_EQ(test::countLogLines("[quillet] after-transcript: started for 240315-093000 (pid "), 1);

    agent.signal(SIGTERM);
    auto result = agent.wait(10);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(test::logMessages().back(), "[quillet] capture-cli: stopping (SIGTERM)");
}

} // namespace
} // namespace quillet
