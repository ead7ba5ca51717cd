#include "quillet_capture/util/Utf8.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

using namespace Utf8;

TEST(Utf8, AcceptsWellFormedTextOnly)
{
    using namespace std::string_view_literals;
    for (std::string_view good : {""sv, "plain"sv, "caf\xC3\xA9"sv, "\xE2\x80\xA6"sv, "\xF0\x9F\x8E\x99"sv, "a\0b"sv}) {
        EXPECT_TRUE(Utf8::isValid(good)) << good;
    }
    for (std::string_view bad : {"\xFF", "\x80", "\xC3", "\xC3\x28", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                                 "\xF4\x90\x80\x80", "\xF0\x9F\x8E", "ok\xE2\x80"}) {
        EXPECT_FALSE(Utf8::isValid(bad)) << bad;
    }
}

TEST(Utf8, PrefixCountsCharactersNotBytes)
{
    EXPECT_EQ(Utf8::prefix("tok_abcdefghijkl", 12), "tok_abcdefgh");
    EXPECT_EQ(Utf8::prefix("short", 12), "short");
    EXPECT_EQ(Utf8::prefix("\xC3\xA9\xC3\xA9\xC3\xA9", 2), "\xC3\xA9\xC3\xA9");
    EXPECT_EQ(Utf8::prefix("\xF0\x9F\x8E\x99x", 1), "\xF0\x9F\x8E\x99");
    EXPECT_EQ(Utf8::prefix("abc", 0), "");
}

// A log line: one line of UTF-8 whatever the text held, and plain text untouched.
TEST(Utf8, EscapedLineKeepsTextAndShowsWhatWouldBreakALine)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(escapedLine("caf\u00e9 memo \u2014 20240301.m4a"), "caf\u00e9 memo \u2014 20240301.m4a");
    EXPECT_EQ(escapedLine("a\nb\r\tc\x1b[31m\x7f"), "a\\nb\\r\\tc\\x1b[31m\\x7f");
    EXPECT_EQ(escapedLine("nul\0byte"sv), "nul\\x00byte");
    EXPECT_EQ(escapedLine("caf\xe9 \xff\xfe \xe2\x80"), "caf\\xe9 \\xff\\xfe \\xe2\\x80");
    EXPECT_TRUE(isValid(escapedLine("\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80")));
}

// A long text in a log line: its start, never half a character, and how much was left out.
TEST(Utf8, CutKeepsWholeCharactersAndCountsTheRest)
{
    EXPECT_EQ(cut("short", 10), "short");
    EXPECT_EQ(cut("0123456789", 4), "0123... (6 more bytes)");
    // "\u00e9" is two bytes: a cut at 3 bytes would split the second one.
    EXPECT_EQ(cut("\u00e9\u00e9\u00e9", 3), "\u00e9... (4 more bytes)");
    EXPECT_TRUE(isValid(cut(std::string(3000, 'x') + "\u2014", 2049)));
}

// Names that are not UTF-8, kept in UTF-8 files (the state, the intake journal): two names that
// differ only in such bytes stay two, and every byte comes back.
TEST(Utf8, LosslessKeepsEveryByteAndTellsNamesApart)
{
    EXPECT_EQ(lossless("caf\u00e9.wav"), "caf\u00e9.wav");
    EXPECT_NE(lossless("caf\xe9.wav"), lossless("caf\xe8.wav"));
    for (std::string name : {"caf\xe9.wav", "\xff\xfe", "ok \u00e9 \xc3", "tail \xe2\x80", "plain"}) {
        EXPECT_TRUE(isValid(lossless(name))) << name;
        EXPECT_EQ(bytesOf(lossless(name)), name);
    }
    // A replacement character that is no escape stays as it is.
    EXPECT_EQ(bytesOf("\uFFFD.wav \uFFFDzz"), "\uFFFD.wav \uFFFDzz");
}

} // namespace
} // namespace quillet
