#include "quillet_capture/vault/NoteLedger.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using TimePoint = NoteLedger::TimePoint;

TimePoint at(std::int64_t seconds)
{
    return TimePoint(std::chrono::seconds(seconds));
}

TEST(NoteLedger, FoldsItsLinesIntoOneRecordPerNote)
{
    test::ScratchDir dir;
    NoteLedger ledger(dir.path());
    EXPECT_TRUE(ledger.read().empty()) << "no file yet";

    ledger.copyWritten("a", std::string(64, 'a'), 10, at(100));
    ledger.noteMade("a", {"voice-memos", "20251101 090000.m4a", "uuid-a"}, at(90), at(101));
    ledger.keyRecorded("a", "key-1");
    ledger.copyWritten("a", std::string(64, 'b'), 20, at(200));  // the recording grew
    ledger.keyRecorded("a", "key-2");
    ledger.noteMade("b", {}, at(50), at(300), "key-b", false);

    auto records = ledger.read();
    ASSERT_EQ(records.size(), 2u);
    const auto& a = records.at("a");
    EXPECT_EQ(a.made, at(101));
    EXPECT_EQ(a.created, at(90));
    EXPECT_EQ(a.source.folderId, "voice-memos");
    EXPECT_EQ(a.source.name, "20251101 090000.m4a");
    EXPECT_EQ(a.source.voiceMemosId, "uuid-a");
    EXPECT_EQ(a.sha256, std::string(64, 'b')) << "the copy as last written";
    EXPECT_EQ(a.size, 20u);
    EXPECT_EQ(a.externalIds, (std::set<std::string>{"key-1", "key-2"}));
    EXPECT_EQ(records.at("b").externalIds, (std::set<std::string>{"key-b"}));
    EXPECT_EQ(fs::path(ledger.file()), dir.path() / "_inbox/.audio/.ledger.jsonl");
}

TEST(NoteLedger, ANoteMadeThenGoneIsRemovedUntilAskedBack)
{
    test::ScratchDir dir;
    NoteLedger ledger(dir.path());
    auto note = dir.path() / "_inbox" / "a.md";
    EXPECT_FALSE(ledger.removedByPerson("a")) << "never made: not removed";

    ledger.noteMade("a", {"folder-X", "a.wav"}, at(1), at(2));
    test::writeFile(note, "---\nid: a\n---\n");
    EXPECT_FALSE(ledger.removedByPerson("a"));
    fs::remove(note);
    EXPECT_TRUE(ledger.removedByPerson("a"));

    // Asked back: not removed while it waits to be written again, removed again when the
    // note made anew goes too.
    ledger.restored("a", at(3));
    EXPECT_FALSE(ledger.removedByPerson("a"));
    EXPECT_TRUE(ledger.read().at("a").restorePending);
    ledger.noteMade("a", {"folder-X", "a.wav"}, at(1), at(3));
    EXPECT_FALSE(ledger.read().at("a").restorePending) << "made in the same second as asked back";
    EXPECT_TRUE(ledger.removedByPerson("a"));
}

TEST(NoteLedger, ALineCutOffByACrashOrNotJsonIsSkipped)
{
    test::ScratchDir dir;
    NoteLedger ledger(dir.path());
    ledger.noteMade("a", {}, at(1), at(2));
    {
        std::ofstream file(ledger.file(), std::ios::app);
        file << "{\"event\":\"made\",\"id\":\"b\",\"at\":\"2026-01-01T00:00:00Z\"}\n"
             << "not json\n"
             << "[1,2]\n"
             << "{\"event\":\"made\",\"id\":\"\"}\n"
             << "{\"event\":\"made\",\"id\":\"c\",\"at";  // cut off mid-line
    }
    ledger.noteMade("d", {}, at(1), at(2));
    auto records = ledger.read();
    EXPECT_TRUE(records.contains("a"));
    EXPECT_TRUE(records.contains("b"));
    EXPECT_FALSE(records.contains("c"));
    EXPECT_FALSE(records.contains("")) << "a line without an id is no note";
    EXPECT_TRUE(records.contains("d")) << "the line after the cut one is a line of its own";
}

} // namespace
} // namespace quillet
