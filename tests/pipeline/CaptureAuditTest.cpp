#include "quillet_capture/pipeline/CaptureAudit.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <map>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using State = CaptureAudit::State;
using Item = CaptureAudit::Item;
using TimePoint = std::chrono::system_clock::time_point;

// A vault and a watched folder holding one recording in every state the audit knows, with
// the state, retry and ledger records the agent would have left for each.
struct AuditFixture {
    test::ScratchDir dir;
    fs::path vault = dir.path() / "vault";
    fs::path folder = dir.path() / "Recordings";
    InboxWriter inbox{vault};
    NoteLedger ledger{vault};
    CaptureAudit::Sources sources;
    TimePoint now = std::chrono::system_clock::now();
    WatchedFolder watched = WatchedFolder::generic((dir.path() / "Recordings").string(), "Recordings");

    AuditFixture()
    {
        fs::create_directories(folder);
        sources.vaultRoot = vault;
        sources.folders = {watched};
        sources.now = now;
        sources.agentRunning = true;
        sources.uploads = true;
        sources.tokenPresent = true;
        seen(std::string(CaptureStateStore::indexedMarker), "", "");
    }

    void seen(const std::string& name, const std::string& id, const std::string& file, const std::string& judged = "")
    {
        sources.state.seenByFolder[watched.id][name] = {now, id, file, judged};
    }

    // A capture made by the pipeline: the file in the folder, its copy, its note, the ledger.
    void captured(const std::string& id, const std::string& status, std::optional<std::string> key = std::nullopt)
    {
        const auto name = id + ".m4a";
        test::writeFile(folder / name, "audio of " + id);
        auto copy = inbox.copyAudio(folder / name, id);
        ledger.copyWritten(id, copy.sha256, copy.size, now);
        auto note = InboxWriter::Frontmatter::forCapture(id, now - std::chrono::hours(1));
        note.vdJobStatus = status;
        note.externalId = key;
        inbox.writeStub(note);
        ledger.noteMade(id, {watched.id, name}, note.created, now);
        seen(name, id, "1:2:3");
    }

    std::map<std::string, Item> byTitle(const CaptureAudit::Options& options = {}) const
    {
        std::map<std::string, Item> items;
        for (auto& item : CaptureAudit::run(sources, options)) {
            auto title = item.title.empty() ? item.id : item.title;
            EXPECT_TRUE(items.emplace(title, std::move(item)).second) << title << " came out twice";
        }
        return items;
    }
};

void expectState(const std::map<std::string, Item>& items, const std::string& title, State state,
                 const std::string& reasonPart)
{
    auto found = items.find(title);
    ASSERT_NE(found, items.end()) << title << " is not accounted for";
    EXPECT_EQ(CaptureAudit::words(found->second.state), CaptureAudit::words(state)) << title << ": "
                                                                                    << found->second.reason;
    EXPECT_NE(found->second.reason.find(reasonPart), std::string::npos)
        << title << ": \"" << found->second.reason << "\" lacks \"" << reasonPart << "\"";
}

TEST(CaptureAudit, AccountsForEveryRecordingOnceWithItsStateAndReason)
{
    AuditFixture f;
    // Captured: transcribed, at the service, failed with a later try.
    f.captured("251101-090000", "done", "key-1");
    f.captured("251102-090000", "queued", "key-2");
    f.captured("251103-090000", "upload_failed");
    f.sources.recovery["251103-090000"] = {1, 0, f.now + std::chrono::minutes(5), "upload_failed"};
    // Needs you: the automatic tries are over; the token refused; the copy deleted; a note that
    // does not parse; a copy whose note was never made here.
    f.captured("251104-090000", "upload_failed");
    f.sources.recovery["251104-090000"] = {9, 3, std::nullopt, "failed"};
    f.captured("251105-090000", "needs_pairing");
    f.captured("251106-090000", "done", "key-6");
    fs::remove(f.inbox.audioURL("251106-090000"));
    f.captured("251107-090000", "done", "key-7");
    test::writeFile(f.inbox.noteURL("251107-090000"), "---\ntitle: [unclosed\n---\nwords\n");
    test::writeFile(f.inbox.audioURL("251108-090000"), "stray audio");
    // Removed by you: a captured note deleted (its copy stays), a synced note deleted.
    f.captured("251109-090000", "done", "key-9");
    fs::remove(f.inbox.noteURL("251109-090000"));
    f.ledger.noteMade("251110-090000", {}, f.now, f.now, "key-10");
    // Waiting: a file still being written, a file of a folder not looked at yet.
    test::writeFile(f.folder / "251111-090000.m4a", "still arriving");
    // Skipped: history, too short, a name without a time, a renamed capture, not audio.
    test::writeFile(f.folder / "old.m4a", "history");
    f.seen("old.m4a", "250101-000000", "");
    test::writeFile(f.folder / "tiny.m4a", "x");
    f.seen("tiny.m4a", "", "", "1:2:3");
    test::writeFile(f.folder / "no time.m4a", "y");
    f.seen("no time.m4a", "", "");
    test::writeFile(f.folder / "renamed.m4a", "audio of 251101-090000");
    f.seen("renamed.m4a", "251101-090000", "4:5:6");
    test::writeFile(f.folder / "notes.txt", "not audio");
    // A note of the person's own in the inbox is not a recording.
    test::writeFile(f.inbox.inboxDirectory() / "Shopping.md", "---\ntags: [list]\n---\nmilk\n");

    auto items = f.byTitle();
    expectState(items, "251101-090000", State::captured, "transcribed");
    expectState(items, "251102-090000", State::captured, "at the service");
    expectState(items, "251103-090000", State::captured, "tries again at");
    EXPECT_EQ(items.at("251103-090000").nextTry, f.sources.recovery["251103-090000"].next);
    expectState(items, "251104-090000", State::needsYou, "run quillet-capture retry");
    expectState(items, "251105-090000", State::needsYou, "quillet-capture pair");
    expectState(items, "251106-090000", State::needsYou, "audio copy _inbox/.audio/251106-090000.m4a is missing");
    expectState(items, "251107-090000", State::needsYou, "does not parse");
    expectState(items, "251108-090000", State::needsYou, "without its note");
    expectState(items, "251109-090000", State::removedByYou, "retry --restore 251109-090000");
    expectState(items, "251110-090000", State::removedByYou, "not made again");
    expectState(items, "251111-090000.m4a", State::waiting, "still being written");
    expectState(items, "old.m4a", State::skipped, "before the folder was first watched");
    expectState(items, "tiny.m4a", State::skipped, "too short");
    expectState(items, "no time.m4a", State::skipped, "no recording time");
    expectState(items, "renamed.m4a", State::skipped, "same recording as the one captured as 251101-090000");
    expectState(items, "notes.txt", State::skipped, "not a recording");
    EXPECT_FALSE(items.contains("Shopping.md"));
    EXPECT_FALSE(items.contains("Shopping"));
    // Each captured file is its capture, not a second recording.
    EXPECT_FALSE(items.contains("251101-090000.m4a"));
    EXPECT_EQ(items.at("251101-090000").source, (f.folder / "251101-090000.m4a").string());

    auto counts = CaptureAudit::count(CaptureAudit::run(f.sources, {}));
    EXPECT_EQ(counts.captured, 3);
    EXPECT_EQ(counts.needsYou, 5);
    EXPECT_EQ(counts.removedByYou, 2);
    EXPECT_EQ(counts.waiting, 1);
    EXPECT_EQ(counts.skipped, 5);
    EXPECT_EQ(counts.total(), 16);
}

TEST(CaptureAudit, SaysWhatKeepsEveryRecordingBack)
{
    AuditFixture f;
    f.captured("251101-090000", "queued");
    // A folder that cannot be listed, no token, no agent, a folder never looked at.
    auto unreadable = WatchedFolder::generic((f.dir.path() / "a-file").string(), "Phone");
    test::writeFile(f.dir.path() / "a-file", "not a folder");
    auto fresh = WatchedFolder::generic((f.dir.path() / "Fresh").string(), "Fresh");
    test::writeFile(f.dir.path() / "Fresh" / "251120-100000.m4a", "new");
    f.sources.folders.push_back(unreadable);
    f.sources.folders.push_back(fresh);
    f.sources.tokenPresent = false;
    f.sources.agentRunning = false;

    auto items = f.byTitle();
    expectState(items, "Phone", State::needsYou, "cannot be read");
    EXPECT_EQ(items.at("Phone").kind, "folder");
    expectState(items, "Veldane", State::needsYou, "run quillet-capture pair");
    EXPECT_EQ(items.at("Veldane").kind, "account");
    expectState(items, "251101-090000", State::captured, "the agent is not running");
    expectState(items, "251120-100000.m4a", State::waiting, "not running");
}

TEST(CaptureAudit, VerifyFindsACopyThatChangedOrVanishedAfterCapture)
{
    AuditFixture f;
    f.captured("251101-090000", "done", "k1");
    f.captured("251102-090000", "done", "k2");
    f.captured("251103-090000", "done", "k3");
    // Same size, other bytes: only the digest can tell.
    auto changed = f.inbox.audioURL("251102-090000");
    auto bytes = test::readFile(changed);
    bytes[0] = bytes[0] == 'a' ? 'b' : 'a';
    test::writeFile(changed, bytes);
    fs::remove(f.inbox.audioURL("251103-090000"));

    auto plain = f.byTitle();
    expectState(plain, "251102-090000", State::captured, "transcribed");
    EXPECT_FALSE(plain.at("251101-090000").verified.has_value()) << "nothing is read again without --verify";

    auto verified = f.byTitle({.verify = true});
    expectState(verified, "251101-090000", State::captured, "transcribed");
    EXPECT_EQ(verified.at("251101-090000").verified, true);
    EXPECT_EQ(verified.at("251101-090000").sha256.size(), 64u);
    expectState(verified, "251102-090000", State::needsYou, "SHA-256 differs");
    EXPECT_EQ(verified.at("251102-090000").verified, false);
    expectState(verified, "251103-090000", State::needsYou, "missing");
}

TEST(CaptureAudit, NewestFirstAndLibraryRowsNotOnDisk)
{
    test::ScratchHome home;
    AuditFixture f;
    fs::create_directories(Paths::voiceMemosCandidates().front());
    f.sources.folders = {WatchedFolder::voiceMemos(true)};
    f.captured("251101-090000", "done", "k1");
    LibraryRecording waiting{"uuid-1", "20251120 100000.m4a", f.now - std::chrono::hours(48), 30.0, false,
                             "Call with Sam", "", ""};
    LibraryRecording gone{"uuid-2", "20251121 100000.m4a", f.now - std::chrono::hours(2), 30.0, true, "Draft", "", ""};
    f.sources.library = std::vector<LibraryRecording>{waiting, gone};

    auto byTitle = f.byTitle();
    expectState(byTitle, "Call with Sam", State::waiting, "more than a day");
    expectState(byTitle, "Draft", State::skipped, "deleted by you in Voice Memos");
    // Newest first: the capture (an hour ago), the draft (two hours ago), the call (two days).
    auto items = CaptureAudit::run(f.sources, {});
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].id, "251101-090000");
    EXPECT_EQ(items[1].title, "Draft");
    EXPECT_EQ(items[2].title, "Call with Sam");
}

} // namespace
} // namespace quillet
