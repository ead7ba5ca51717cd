#include "quillet_capture/util/Utf8.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

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

} // namespace
} // namespace quillet
