// Recordings of a current iPhone, as the Voice Memos library describes them: the built
// program's `run` against the fake service, through CaptureAgentHarness.
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/LibraryFixture.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>


#include <chrono>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

std::optional<InboxWriter::Frontmatter> noteOf(const CaptureAgentHarness& agent, const std::string& id)
{
    try {
        return InboxWriter::readFrontmatter(agent.inbox() / (id + ".md"));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

TEST(VoiceMemosLibrary, AListedQtaBecomesATitledNoteInSecondsAndItsOtherFileChangesNothing)
{
    CaptureAgentHarness agent(41);
    agent.setPace({.processingPolls = 0});
    int work = agent.library().addFolder("Work");
    ASSERT_TRUE(agent.startAndWait());

    // A fresh .qta: without the library it would wait ten minutes as a recording in progress.
    const auto dropped = std::chrono::steady_clock::now();
    auto recording = agent.dropListed(1, "Call with Dana", 0, work);
    const auto database = test::factsOf(agent.memos() / "CloudRecordings.db");
    const auto wal = test::factsOf(agent.memos() / "CloudRecordings.db-wal");
    ASSERT_TRUE(test::eventually([&] { return noteOf(agent, recording.id).has_value(); }, 20)) << agent.agentOutput();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - dropped).count();
    EXPECT_LT(seconds, 10) << "a listed .qta is captured like any finished file";
    std::printf("[ library  ] a listed .qta reached the vault %.1f s after it arrived\n", seconds);

    auto note = noteOf(agent, recording.id);
    EXPECT_EQ(note->title.value_or(""), "Call with Dana");
    EXPECT_EQ(note->voiceMemosId.value_or(""), "REC-1");
    EXPECT_EQ(note->voiceMemosFolder.value_or(""), "Work");
    EXPECT_EQ(note->created, std::chrono::system_clock::from_time_t(1709280000 + 61)) << "when it was recorded";
    EXPECT_EQ(note->audioDurationSec, 2);
    EXPECT_EQ(note->classification, "voice_memo");
    EXPECT_TRUE(test::readFile(agent.inbox() / ".audio" / (recording.id + ".m4a")) == recording.bytes)
        << "the copy holds the recording's bytes unchanged";
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    EXPECT_EQ(noteOf(agent, recording.id)->title.value_or(""), "Call with Dana")
        << "the service's title does not replace the person's";

    // Voice Memos writes its .m4a beside the .qta: the same recording, not a second one.
    ASSERT_TRUE(agent.joinTwin());
    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_EQ(agent.noteIds(), (std::set<std::string>{recording.id}));
    EXPECT_EQ(agent.uploadCount(), 1);
    EXPECT_EQ(test::countLogLines("is the Voice Memos recording " + recording.id + " again"), 1);

    auto status = test::runProcess(test::programPath(), {"status"});
    EXPECT_NE(status.output.find("  library:     readable, 1 recording, 0 waiting for download, 0 in Recently "
                                 "Deleted\n"),
              std::string::npos)
        << status.output;
    EXPECT_EQ(agent.stop(), 0);

    // Read many times, written never.
    EXPECT_EQ(test::factsOf(agent.memos() / "CloudRecordings.db"), database);
    EXPECT_EQ(test::factsOf(agent.memos() / "CloudRecordings.db-wal"), wal);
    agent.expectConsistent(true);
}

TEST(VoiceMemosLibrary, EditsAndRenamesInVoiceMemosReachTheNoteAndThePersonsWordsStay)
{
    CaptureAgentHarness agent(42);
    agent.setPace({.processingPolls = 0});
    agent.setPollInterval(1);
    agent.library();
    ASSERT_TRUE(agent.startAndWait());
    auto recording = agent.dropListed(2, "Draft idea");
    ASSERT_TRUE(agent.waitUntilAllDone(60)) << agent.agentOutput();
    const auto notePath = agent.inbox() / (recording.id + ".md");
    test::writeFile(notePath, test::readFile(notePath) + "\n\nMy own words about it.\n");

    // Renamed in Voice Memos: the note still holds the title written from the library.
    agent.library().setTitle("REC-2", "Final idea");
    ASSERT_TRUE(test::eventually([&] { return noteOf(agent, recording.id)->title == "Final idea"; }, 20))
        << agent.agentOutput();

    // Trimmed in Voice Memos: other audio under the same library id.
    const std::string trimmed = recording.bytes.substr(0, recording.bytes.size() - 40) + "trimmed in Voice Memos";
    CaptureAgentHarness::place(agent.memos() / recording.name, trimmed);
    ASSERT_TRUE(test::eventually(
        [&] {
            auto body = InboxWriter::readBody(notePath);
            return body.find(CaptureAgentHarness::transcriptOf(recording.id, 2)) != std::string::npos;
        },
        30))
        << agent.agentOutput();
    EXPECT_TRUE(test::readFile(agent.inbox() / ".audio" / (recording.id + ".m4a")) == trimmed);
    auto body = InboxWriter::readBody(notePath);
    EXPECT_NE(body.find("My own words about it."), std::string::npos) << body;
    EXPECT_EQ(body.find(CaptureAgentHarness::transcriptOf(recording.id, 1) + "\n"), std::string::npos)
        << "the first take's transcript goes";
    EXPECT_EQ(noteOf(agent, recording.id)->title.value_or(""), "Final idea");
    EXPECT_EQ(agent.noteIds().size(), 1U);
    EXPECT_EQ(agent.uploadCount(), 2);

    // A title the person typed into the note is theirs: a later rename leaves it.
    auto text = test::readFile(notePath);
    auto at = text.find("title: Final idea");
    ASSERT_NE(at, std::string::npos) << text;
    text.replace(at, std::string("title: Final idea").size(), "title: My name for it");
    test::writeFile(notePath, text);
    agent.library().setTitle("REC-2", "Renamed again");
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(noteOf(agent, recording.id)->title.value_or(""), "My name for it");
    EXPECT_EQ(agent.stop(), 0);
}

TEST(VoiceMemosLibrary, DeletedFirstIsNeverCapturedAndNotYetDownloadedIsCapturedWhenItComes)
{
    CaptureAgentHarness agent(43);
    agent.setPace({.processingPolls = 0});
    agent.setPollInterval(1);
    auto& library = agent.library();
    ASSERT_TRUE(agent.startAndWait());

    // Thrown away before it was captured.
    auto deleted = agent.recordingFor(3);
    deleted.name = fs::path(deleted.name).replace_extension(".qta").string();
    library.add({"REC-3", deleted.name, std::chrono::system_clock::now(), 4.0, "Oops", std::nullopt, true, ""});
    CaptureAgentHarness::place(agent.memos() / deleted.name, deleted.bytes);
    // Listed, its audio still in iCloud.
    auto waiting = agent.recordingFor(4);
    waiting.name = fs::path(waiting.name).replace_extension(".qta").string();
    library.add({"REC-4", waiting.name, std::chrono::system_clock::now(), 4.0, "Later", std::nullopt, false, ""});

    ASSERT_TRUE(test::eventually(
        [&] { return test::countLogLines(deleted.name + " is in Recently Deleted in Voice Memos") > 0; }, 20))
        << agent.agentOutput();
    auto status = test::runProcess(test::programPath(), {"status"});
    EXPECT_NE(status.output.find("  library:     readable, 2 recordings, 1 waiting for download (oldest recorded "),
              std::string::npos)
        << status.output;
    EXPECT_NE(status.output.find(", 1 in Recently Deleted\n"), std::string::npos) << status.output;

    CaptureAgentHarness::place(agent.memos() / waiting.name, waiting.bytes);
    ASSERT_TRUE(test::eventually([&] { return noteOf(agent, waiting.id).has_value(); }, 20)) << agent.agentOutput();
    EXPECT_EQ(noteOf(agent, waiting.id)->title.value_or(""), "Later");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(agent.noteIds(), (std::set<std::string>{waiting.id}));
    EXPECT_EQ(test::countLogLines(deleted.name + " is in Recently Deleted in Voice Memos"), 1) << "said once";
    EXPECT_EQ(agent.stop(), 0);
}

} // namespace
} // namespace quillet
