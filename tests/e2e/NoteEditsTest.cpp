// The agent and the person edit the same note: whatever the person's editor does while a
// transcript arrives, their words survive and the transcript reaches them.

#include "tests/e2e/CaptureAgentHarness.hpp"

#include "quillet_capture/util/AtomicFile.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

// Holds every capture at "processing" until `release` is set.
void holdTranscripts(CaptureAgentHarness& agent, std::atomic<bool>& hold)
{
    agent.setFault([&hold](const test::FakeVeldane::Request& request) -> std::optional<test::FakeVeldane::Answer> {
        if (hold && request.method == "GET" && request.endpoint.ends_with("/status")) {
            return test::FakeVeldane::Answer::json(R"({"status":{"transcription":{"status":"processing"}}})");
        }
        return std::nullopt;
    });
}

// A note broken by the person when the transcript arrives stays byte for byte; the transcript
// waits beside it, `status` says the person is needed, and once the note is fixed the
// transcript is written into it by itself.
TEST(NoteEdits, ANoteBrokenWhenTheTranscriptArrivesKeepsTheWordsAndGetsItLater)
{
    CaptureAgentHarness agent(31);
    agent.setPollInterval(1);
    agent.setRetryMinute(2);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> hold{true};
    holdTranscripts(agent, hold);
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[recording.id] == "processing"; }, 60))
        << agent.agentOutput();

    const auto note = agent.inbox() / (recording.id + ".md");
    const std::string stub = test::readFile(note);
    const std::string broken = "Typed above the block by mistake\n" + stub + "\nMy words from the meeting.\n";
    writeFileAtomically(note, broken);
    hold = false;

    const auto beside = agent.inbox() / (recording.id + ".transcript.md");
    ASSERT_TRUE(test::eventually([&] { return fs::exists(beside); }, 60)) << agent.agentOutput();
    EXPECT_EQ(test::readFile(beside), CaptureAgentHarness::transcriptOf(recording.id) + "\n");
    EXPECT_EQ(test::readFile(note), broken);
    EXPECT_NE(agent.agentOutput().find("the note of " + recording.id + " does not parse"), std::string::npos)
        << agent.agentOutput();
    auto status = test::runProcess(test::programPath(), {"status"}, {}, 30);
    EXPECT_NE(status.output.find("needs you:   1 note whose frontmatter does not parse (" + recording.id + ".md)"),
              std::string::npos)
        << status.output;
    // Nothing is written into the note while it stays broken.
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(test::readFile(note), broken);

    // The person removes the stray line: the next attempt writes the transcript in.
    writeFileAtomically(note, stub + "\nMy words from the meeting.\n");
    ASSERT_TRUE(agent.waitUntilAllDone(90)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    auto done = test::readFile(note);
    EXPECT_TRUE(done.ends_with(CaptureAgentHarness::transcriptOf(recording.id) + "\n\nMy words from the meeting."))
        << done;
    EXPECT_EQ(agent.uploadCount(), 1);
}

// An editor that saves by truncating the file and writing it again, over and over while the
// transcript arrives: the note ends with the person's words and the transcript, never a
// fresh note.
TEST(NoteEdits, AnEditorsTruncatingSaveDuringTheTranscriptLosesNothing)
{
    CaptureAgentHarness agent(32);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> hold{true};
    holdTranscripts(agent, hold);
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[recording.id] == "processing"; }, 60))
        << agent.agentOutput();
    const auto note = agent.inbox() / (recording.id + ".md");

    std::atomic<bool> editing{true};
    std::thread editor([&] {
        // The editor's buffer: the note as it was opened, with the person's words. Each save
        // truncates the file, writes the buffer a moment later, and a change made on disk by
        // someone else is loaded into the buffer before the next save, as editors do.
        std::string buffer = test::readFile(note) + "\nNotes typed during the call.\n";
        while (editing) {
            int fd = ::open(note.c_str(), O_WRONLY | O_TRUNC);
            if (fd >= 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                [[maybe_unused]] auto written = ::write(fd, buffer.data(), buffer.size());
                ::close(fd);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            if (auto now = test::readFile(note); now != buffer && !now.empty()) {
                buffer = now;
            }
        }
    });
    hold = false;
    bool done = test::eventually(
        [&] { return test::readFile(note).find(CaptureAgentHarness::transcriptOf(recording.id)) != std::string::npos; },
        60);
    editing = false;
    editor.join();
    ASSERT_TRUE(done) << agent.agentOutput();
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    auto text = test::readFile(note);
    EXPECT_NE(text.find("Notes typed during the call."), std::string::npos) << text;
    EXPECT_NE(text.find(CaptureAgentHarness::transcriptOf(recording.id)), std::string::npos) << text;
    EXPECT_EQ(agent.noteIds().size(), 1u);
}

// Lists and titles as Obsidian writes them, typed into the pending note, come through the
// transcript byte for byte, and so does a title in a block scalar when a grown recording is
// transcribed again.
TEST(NoteEdits, ObsidianListsAndBlockScalarsAreKeptByteForByte)
{
    CaptureAgentHarness agent(33);
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    std::atomic<bool> hold{true};
    holdTranscripts(agent, hold);
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return agent.statuses()[recording.id] == "processing"; }, 60))
        << agent.agentOutput();
    const auto note = agent.inbox() / (recording.id + ".md");
    auto text = test::readFile(note);
    const std::string mine = "title: |\n  Budget review\n  with Anna\ntags:\n  - important-project\n  - 'q3'\n"
                             "# reviewed by me\naliases:\n  - budget\n";
    text.insert(text.find("\n---\n") + 1, mine);
    writeFileAtomically(note, text);
    hold = false;
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    auto done = test::readFile(note);
    EXPECT_NE(done.find("title: |\n  Budget review\n  with Anna\ntags:\n  - important-project\n  - 'q3'\n"),
              std::string::npos)
        << done;
    EXPECT_NE(done.find("# reviewed by me\naliases:\n  - budget\n"), std::string::npos) << done;

    // The recording grows: transcribed again, the note keeps the same lines.
    ASSERT_TRUE(agent.growCaptured(4096));
    ASSERT_TRUE(test::eventually(
        [&] { return test::readFile(note).find(CaptureAgentHarness::transcriptOf(recording.id, 2)) != std::string::npos; },
        90))
        << agent.agentOutput();
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    auto again = test::readFile(note);
    EXPECT_NE(again.find("title: |\n  Budget review\n  with Anna\ntags:\n  - important-project\n  - 'q3'\n"),
              std::string::npos)
        << again;
    EXPECT_NE(again.find("# reviewed by me\naliases:\n  - budget\n"), std::string::npos) << again;
}

} // namespace
} // namespace quillet
