#include "quillet_capture/cli/StatusCommand.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct StatusLogTest : ::testing::Test {
    test::ScratchDir dir;
    fs::path file = dir.path() / "quillet.log";

    StatusLog read(const std::string& text, std::size_t tailLines = 12)
    {
        test::writeFile(file, text);
        return readStatusLog(file, tailLines);
    }
};

TEST_F(StatusLogTest, LinesAreSplitAtLineFeedsWithoutEmptyOnes)
{
    auto log = read("one\n\n\ntwo\r\n  \nthree access -> ok\nfour");
    EXPECT_EQ(log.tail, (Lines{"one", "two\r", "  ", "three access -> ok", "four"}));
    EXPECT_EQ(log.accessLine, "three access -> ok");

    log = read("a\nb\nc\nd\ne\n");
    EXPECT_EQ(log.tail, (Lines{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(log.accessLine, std::nullopt);

    EXPECT_EQ(read("").tail, Lines{});
    EXPECT_EQ(read("\n\n\n").tail, Lines{});
}

TEST_F(StatusLogTest, TheLatestAccessLineIsFoundAnywhereAndTheTailIsTheLastLines)
{
    std::string text = "x access -> denied\ny access -> ok (2 files)\n";
    Lines expected;
    for (int i = 0; i < 20; ++i) {
        text += "line " + std::to_string(i) + "\n";
        if (i >= 8) {
            expected.push_back("line " + std::to_string(i));
        }
    }
    auto log = read(text);
    EXPECT_EQ(log.accessLine, "y access -> ok (2 files)");
    EXPECT_EQ(log.tail, expected);
    EXPECT_EQ(read(text, 3).tail, (Lines{"line 17", "line 18", "line 19"}));
    // "access" without the arrow is not an access line.
    EXPECT_EQ(read("access denied\naccess->x\n").accessLine, std::nullopt);
}

TEST_F(StatusLogTest, LinesLongerThanOneReadAndManyOfThem)
{
    std::string longLine(300 * 1024, 'a');
    longLine += " access -> ok";
    std::string text = longLine + "\n";
    for (int i = 0; i < 100000; ++i) {
        text += "l" + std::to_string(i) + "\n";
    }
    auto log = read(text, 2);
    EXPECT_EQ(log.accessLine, longLine);
    EXPECT_EQ(log.tail, (Lines{"l99998", "l99999"}));
}

TEST_F(StatusLogTest, ALogThatIsNotUtf8OrCannotBeReadCountsAsEmpty)
{
    // One bad byte anywhere, even long before the tail, empties the whole log.
    std::string text = "a access -> ok\n\xC3(\n";
    for (int i = 0; i < 50; ++i) {
        text += "fine line\n";
    }
    auto log = read(text);
    EXPECT_EQ(log.accessLine, std::nullopt);
    EXPECT_EQ(log.tail, Lines{});
    // A truncated sequence at the very end as well.
    EXPECT_EQ(read("good\nbad \xE2\x82").tail, Lines{});
    // Valid multi-byte text is kept as it is.
    EXPECT_EQ(read("caf\xC3\xA9 \xE2\x82\xAC\n").tail, Lines{"caf\xC3\xA9 \xE2\x82\xAC"});

    EXPECT_EQ(readStatusLog(dir.path() / "missing.log").tail, Lines{});
    EXPECT_EQ(readStatusLog(dir.path()).tail, Lines{}); // a folder
}

TEST(InboxSummary, CountsAndTheRetryHint)
{
    test::ScratchDir dir;
    std::vector<std::string> asked;
    // Sends the notes whose job status is one of `states`, and remembers what it was asked.
    auto sending = [&asked](std::set<std::string> states) {
        return [&asked, states](const fs::path& note, const InboxWriter::Frontmatter& frontmatter) {
            asked.push_back(note.filename().string());
            return states.contains(frontmatter.vdJobStatus.value_or("skipped"));
        };
    };
    EXPECT_EQ(inboxSummary(dir.path() / "_inbox", sending({"done"})), "no _inbox yet");
    EXPECT_TRUE(asked.empty());

    fs::path inbox = dir.path() / "_inbox";
    test::writeFile(inbox / "a.m4a", "x");
    test::writeFile(inbox / "readme.txt", "x");
    test::writeFile(inbox / ".audio/x.md", "---\nid: x\n---\n");
    EXPECT_EQ(inboxSummary(inbox, sending({"done"})), "0 transcribed, 0 in progress, 0 other");
    EXPECT_TRUE(asked.empty());

    auto note = [&](const std::string& name, const std::string& jobStatus) {
        test::writeFile(inbox / name, "---\nid: " + name + "\nsource:\n  vd_job_status: " + jobStatus + "\n---\n");
    };
    note("a.md", "done");
    note("b.md", "done");
    note("c.md", "processing");
    note("d.md", "upload_failed");
    note("e.md", "failed");
    test::writeFile(inbox / "f.md", "---\nid: f\n---\nno job status: skipped\n");
    test::writeFile(inbox / "g.md", "no frontmatter at all\n");
    EXPECT_EQ(inboxSummary(inbox, sending({"upload_failed"})),
              "2 transcribed, 2 in progress, 2 other -- 1 can be sent with: quillet-capture retry");
    // Every note with a frontmatter is asked about, once.
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ(asked, (std::vector<std::string>{"a.md", "b.md", "c.md", "d.md", "e.md", "f.md"}));
    EXPECT_EQ(inboxSummary(inbox, sending({"done", "processing", "upload_failed", "failed", "skipped"})),
              "2 transcribed, 2 in progress, 2 other -- 6 can be sent with: quillet-capture retry");
}

} // namespace
} // namespace quillet
