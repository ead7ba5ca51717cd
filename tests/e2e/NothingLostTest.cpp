// The agent kept from losing, doubling or stranding recordings by what happens around it: the
// built program's `run` against the fake service, through CaptureAgentHarness.
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
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

// Recorders reuse names ("Recording.m4a"), and a sync may still be writing a file that looked
// finished. A file under a name captured before that is another file now (replaced, deleted
// and made again) is captured again, once it has stayed the same for a poll, under an id of
// its own, and what was captured before stays. One that grew (its copy in the vault is where
// it begins) is the same recording: its copy is replaced, it is transcribed again, and the
// note keeps what the user wrote in it.
TEST(NothingLost, AnotherRecordingUnderAUsedNameOrAGrownFileIsCaptured)
{
    CaptureAgentHarness agent(17);
    auto synced = agent.watchSyncedFolder();
    ASSERT_TRUE(agent.startAndWait());
    auto copies = [&] {
        std::set<std::string> contents;
        for (const auto& id : agent.noteIds()) {
            contents.insert(test::readFile(agent.inbox() / ".audio" / (id + ".m4a")));
        }
        return contents;
    };
    // Other bytes of the same length: valid audio that does not begin with the first.
    auto otherThan = [](std::string bytes, char mark) {
        bytes.back() = mark;
        return bytes;
    };

    // Replaced (renamed over), then deleted and made again, under one Voice Memos name.
    auto first = agent.drop(1);
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    auto second = otherThan(first.bytes, 'B');
    CaptureAgentHarness::place(agent.memos() / first.name, second);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 2; }, 60)) << agent.agentOutput();
    fs::remove(agent.memos() / first.name);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    auto third = otherThan(first.bytes, 'C');
    test::writeFile(agent.memos() / first.name, third);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 3; }, 60)) << agent.agentOutput();
    EXPECT_EQ(agent.noteIds(), (std::set<std::string>{first.id, first.id + "_2", first.id + "_3"}));

    // Grown in place in a synced folder, after it was captured and the user wrote in its note.
    auto when = std::chrono::time_point_cast<std::chrono::seconds>(fs::file_time_type::clock::now()) - std::chrono::hours(1);
    auto growing = synced / "memo.m4a";
    CaptureAgentHarness::place(growing, agent.fixture() + "part one", when);
    ASSERT_TRUE(test::eventually([&] { return agent.noteIds().size() == 4; }, 60)) << agent.agentOutput();
    std::string memo;
    for (const auto& id : agent.noteIds()) {
        memo = id.starts_with(first.id) ? memo : id;
    }
    auto note = agent.inbox() / (memo + ".md");
    auto done = [&] { return test::readFile(note).find("vd_job_status: done\n") != std::string::npos; };
    ASSERT_TRUE(test::eventually(done, 60)) << agent.agentOutput();
    auto written = test::readFile(note);
    auto edited = written;
    edited.insert(edited.find("\n---\n") + 1, "project: apollo\n");
    edited += "\n\nMy own words about it.";
    writeFileAtomically(note, edited, 0644);
    std::ofstream(growing, std::ios::binary | std::ios::app) << std::string(4096, 'g');

    ASSERT_TRUE(test::eventually([&] {
        return test::readFile(note).find(CaptureAgentHarness::transcriptOf(memo, 2)) != std::string::npos && done();
    }, 60)) << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(3));  // polls that would capture something again
    EXPECT_EQ(agent.stop(), 0);

    auto text = test::readFile(note);
    EXPECT_NE(text.find("\nproject: apollo\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("---\n\n" + CaptureAgentHarness::transcriptOf(memo, 2) + "\n\nMy own words about it."))
        << "the transcript of the whole recording, then the user's words, and no earlier transcript:\n" << text;
    EXPECT_NE(text.find("external_id: key-" + memo + "~2\n"), std::string::npos) << text;
    EXPECT_EQ(agent.noteIds().size(), 4u) << "a recording that grew keeps its one note";
    EXPECT_EQ(copies(), (std::set<std::string>{first.bytes, second, third,
                                               agent.fixture() + "part one" + std::string(4096, 'g')}));
    EXPECT_EQ(agent.uploadCount(), 5);
}

// A capture that failed (a copy that could not be written, an upload the service refused, a
// capture the service reported failed) is tried again by the running agent, with growing
// pauses, without a restart; status says how many wait and when; one that the service keeps
// failing waits for retry after three more attempts, also across a restart.
TEST(NothingLost, StuckCapturesAreTriedAgainByTheRunningAgent)
{
    CaptureAgentHarness agent(16);
    agent.setPollInterval(1);
    agent.setRetryMinute(1);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> refuseUploads{true};
    std::atomic<int> uploadsOfFailing{0};
    std::string failing;
    std::mutex failingLock;
    agent.setFault([&](const test::FakeVeldane::Request& request) -> std::optional<test::FakeVeldane::Answer> {
        if (request.method == "POST" && request.endpoint == "sources") {
            if (refuseUploads) {
                return test::FakeVeldane::Answer::json("storage full", 507);
            }
            std::lock_guard guard(failingLock);
            if (!failing.empty() && request.body.find("filename=\"" + failing + ".m4a\"") != std::string::npos) {
                ++uploadsOfFailing;
            }
        }
        std::lock_guard guard(failingLock);
        if (!failing.empty() && request.method == "GET" && request.endpoint == "sources/key-" + failing + "/status") {
            return test::FakeVeldane::Answer::json(R"({"status":{"transcription":{"status":"failed"}}})");
        }
        return std::nullopt;
    });
    ASSERT_TRUE(agent.startAndWait());

    // An upload refused: the note says so, status says when the next attempt is.
    auto refused = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[refused.id] == "upload_failed"; }, 60))
        << agent.agentOutput();
    // The note says it a moment before the retry file does: the failure is recorded after the
    // note's status is written.
    test::ProcessResult status;
    EXPECT_TRUE(test::eventually(
        [&] {
            status = test::runProcess(test::programPath(), {"status"});
            return status.output.find("\n  tried again: 1 capture, next attempt at ") != std::string::npos;
        },
        20))
        << status.output;
    refuseUploads = false;
    EXPECT_TRUE(test::eventually([&] { return agent.statuses()[refused.id] == "done"; }, 60)) << agent.agentOutput();

    // A copy that cannot be written (a file where the audio folder belongs).
    fs::remove_all(agent.inbox() / ".audio");
    test::writeFile(agent.inbox() / ".audio", "in the way");
    auto blocked = agent.drop(2);
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines("copyAudio failed for " + blocked.id) >= 1; }, 60))
        << agent.agentOutput();
    fs::remove(agent.inbox() / ".audio");
    EXPECT_TRUE(test::eventually([&] { return agent.statuses()[blocked.id] == "done"; }, 60)) << agent.agentOutput();

    // The service fails a capture every time: three more attempts, then it waits for retry.
    auto doomed = agent.recordingFor(3);
    {
        std::lock_guard guard(failingLock);
        failing = doomed.id;
    }
    agent.drop(3);
    EXPECT_TRUE(test::eventually(
        [&] { return test::countLogLines(doomed.id + " failed in VD 4 times; it waits for retry") == 1; }, 90))
        << agent.agentOutput();
    EXPECT_EQ(uploadsOfFailing.load(), 4);
    status = test::runProcess(test::programPath(), {"status"});
    EXPECT_NE(status.output.find("\n  failed:      1 capture the service failed 4 times -- run retry\n"),
              std::string::npos)
        << status.output;
    EXPECT_EQ(status.output.find("tried again:"), std::string::npos) << status.output;
    EXPECT_EQ(agent.stop(), 0);

    // A restart does not count afresh.
    ASSERT_TRUE(agent.startAndWait());
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(uploadsOfFailing.load(), 4);
    EXPECT_EQ(agent.statuses()[doomed.id], "failed");
}

// What the user writes into a note while its transcript is pending (words under the stub, a
// key of their own) is still there when the agent writes the transcript.
TEST(NothingLost, WhatTheUserWritesInAPendingNoteSurvivesTheTranscript)
{
    CaptureAgentHarness agent(15);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> hold{true};
    agent.setFault([&](const test::FakeVeldane::Request& request) -> std::optional<test::FakeVeldane::Answer> {
        if (hold && request.method == "GET" && request.endpoint.ends_with("/status")) {
            return test::FakeVeldane::Answer::json(R"({"status":{"transcription":{"status":"processing"}}})");
        }
        return std::nullopt;
    });
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[recording.id] == "processing"; }, 60))
        << agent.agentOutput();

    auto note = agent.inbox() / (recording.id + ".md");
    auto text = test::readFile(note);
    text.insert(text.find("\ncreated: ") + 1, "project: apollo\n");
    text += "Call Anna about the budget.\n";
    writeFileAtomically(note, text);
    hold = false;
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);

    auto done = test::readFile(note);
    EXPECT_NE(done.find("\nproject: apollo\ncreated: "), std::string::npos) << done;
    EXPECT_TRUE(done.ends_with("---\n\n" + CaptureAgentHarness::transcriptOf(recording.id) +
                               "\n\nCall Anna about the budget."))
        << done;
}

// One agent at a time works on a state folder: a second `run` (a second login, a copy started
// by hand) stops at once, naming the first, instead of capturing and uploading everything a
// second time; import-existing, which must not race an agent, says which process to stop.
TEST(NothingLost, OneAgentAtATimeWorksOnAStateFolder)
{
    CaptureAgentHarness agent(12);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    ASSERT_TRUE(agent.startAndWait());
    const std::string pid = std::to_string(agent.pid());

    auto second = test::runProcess(test::programPath(), {"run"}, {{"QUILLET_POLL_INTERVAL_SECONDS", "1"}}, 20);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.errors.find("[quillet] capture-cli: another agent is already running (pid " + pid +
                                 ") -- not starting a second one\n"),
              std::string::npos)
        << second.errors;
    auto import = test::runProcess(test::programPath(), {"import-existing"}, {}, 30);
    EXPECT_EQ(import.status, 1);
    EXPECT_NE(import.errors.find("Another quillet-capture run is working on this state folder (pid " + pid +
                                 "). Stop it (kill " + pid + "), then run this command again.\n"),
              std::string::npos)
        << import.errors;

    agent.drop(1);
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(agent.uploadCount(), 1);
    // The lock goes with the agent.
    ASSERT_TRUE(agent.startAndWait());
    EXPECT_EQ(agent.stop(), 0);
}

// A FIFO where a note, the settings, the token, the state or the log belongs holds no command
// and no agent: each is read without waiting for a writer and taken for unreadable.
TEST(NothingLost, AFifoWhereAFileBelongsHangsNothing)
{
    CaptureAgentHarness agent(13);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    ASSERT_TRUE(agent.startAndWait());
    agent.drop(1);
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);

    ASSERT_EQ(::mkfifo((agent.inbox() / "x.md").c_str(), 0600), 0);
    for (const char* command : {"status", "retry", "sync"}) {
        auto result = test::runProcess(test::programPath(), {command}, {}, 30);
        EXPECT_LT(result.status, 128) << command << " hung: " << result.errors;
    }
    for (const auto& file : {Paths::settingsFile(), Paths::credentialsFile(), Paths::stateFile(), Paths::logFile()}) {
        auto aside = file;
        aside += ".aside";
        fs::rename(file, aside);
        ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0) << file;
        auto result = test::runProcess(test::programPath(), {"status"}, {}, 30);
        EXPECT_EQ(result.status, 0) << file << ": " << result.errors;
        fs::remove(file);
        fs::rename(aside, file);
    }

    // The agent with a FIFO for its log still starts, and stops when asked.
    fs::rename(Paths::logFile(), agent.home() / "log.aside");
    ASSERT_EQ(::mkfifo(Paths::logFile().c_str(), 0600), 0);
    auto run = test::runProcess("/bin/sh",
                                {"-c", "\"$0\" run & agent=$!; sleep 3; kill -TERM $agent; wait $agent; echo \"ended $?\"",
                                 test::programPath()},
                                {{"QUILLET_POLL_INTERVAL_SECONDS", "1"}}, 40);
    EXPECT_EQ(run.output, "ended 0\n") << run.errors;
    EXPECT_NE(run.errors.find(Paths::logFile().string() +
                              " is not a regular file; log lines go to standard error only\n"),
              std::string::npos)
        << run.errors;
    EXPECT_NE(run.errors.find("[quillet] capture-cli: stopping (SIGTERM)"), std::string::npos) << run.errors;
    fs::remove(Paths::logFile());
}

// A token file that others can read (restored from a backup, copied by hand) is made
// owner-only when it is next read, and the log says so.
TEST(NothingLost, ATokenFileThatOthersCanReadIsMadeOwnerOnly)
{
    CaptureAgentHarness agent(14);
    ASSERT_EQ(::chmod(Paths::credentialsFile().c_str(), 0644), 0);
    auto result = test::runProcess(test::programPath(), {"status"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(fs::status(Paths::credentialsFile()).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_NE(result.errors.find("[quillet] token store: " + Paths::credentialsFile().string() +
                                 " was readable by others; made it owner-only (0600)"),
              std::string::npos)
        << result.errors;
    EXPECT_NE(result.output.find("  paired:      yes ("), std::string::npos) << result.output;
}

} // namespace
} // namespace quillet
