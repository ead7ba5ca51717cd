#include "quillet_capture/capture/FilenameNormaliser.hpp"

#include "quillet_capture/util/Iso8601.hpp"
#include "tests/capture/TimeZone.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <map>
#include <string>

namespace quillet {
namespace {

using namespace std::chrono_literals;

using test::TimeZone;

std::chrono::system_clock::time_point utc(const char* text)
{
    auto time = Iso8601::parse(text);
    EXPECT_TRUE(time.has_value()) << text;
    return time.value_or(std::chrono::system_clock::time_point{});
}

// The instant a name parses to, in UTC, or "none".
std::string parsedUtc(const std::string& name)
{
    auto parsed = FilenameNormaliser::parse(name);
    return parsed ? Iso8601::format(parsed->timestamp) : "none";
}

TEST(FilenameNormaliser, ReadsLocalStartTimeAndHexIdOfVoiceMemosNames)
{
    TimeZone zone("Europe/Stockholm");
    auto parsed = FilenameNormaliser::parse("20240131 142530-3F2A9C1B.m4a");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(Iso8601::format(parsed->timestamp), "2024-01-31T13:25:30Z");
    EXPECT_EQ(parsed->hexId, "3F2A9C1B");

    parsed = FilenameNormaliser::parse("20240131 142530.m4a");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->hexId, "");
    EXPECT_EQ(parsed, (FilenameNormaliser::Parsed{utc("2024-01-31T13:25:30Z"), ""}));

    EXPECT_EQ(FilenameNormaliser::parse("20240131 142530-abc123.m4a")->hexId, "abc123");
    // Summer time is an hour further from UTC.
    EXPECT_EQ(parsedUtc("20240715 080000.m4a"), "2024-07-15T06:00:00Z");

    // The same name is another instant in another zone.
    EXPECT_EQ(parsedUtc("20240131 002000.m4a"), "2024-01-30T23:20:00Z");
    TimeZone newYork("America/New_York");
    EXPECT_EQ(parsedUtc("20240131 002000.m4a"), "2024-01-31T05:20:00Z");
}

TEST(FilenameNormaliser, AnyWhiteSpaceBetweenDateAndTimeButSomeIsNeeded)
{
    TimeZone zone("UTC");
    for (const char* name : {"20240131  142530.m4a", "20240131\t142530.m4a", "20240131 \t 142530.m4a",
                             "20240131\xC2\xA0" "142530.m4a",       // no-break space
                             "20240131\xE2\x80\xAF" "142530.m4a"}) { // narrow no-break space
        EXPECT_EQ(parsedUtc(name), "2024-01-31T14:25:30Z") << name;
    }
    for (const char* name : {"20240131142530.m4a", "20240131_142530.m4a", "20240131-142530.m4a",
                             "20240131\xC2" "142530.m4a"}) { // a broken UTF-8 sequence is not a space
        EXPECT_EQ(parsedUtc(name), "none") << name;
    }
}

// A current iPhone keeps most finished recordings as ".qta" files under the same names.
TEST(FilenameNormaliser, QtaNamesParseLikeM4aNames)
{
    TimeZone zone("UTC");
    EXPECT_EQ(parsedUtc("20250314 092600.qta"), "2025-03-14T09:26:00Z");
    EXPECT_EQ(parsedUtc("20250314\t092600-3F2A.qta"), "2025-03-14T09:26:00Z");
    auto parsed = FilenameNormaliser::parse("20250314 092600-3f2a.qta");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->hexId, "3f2a");
    EXPECT_EQ(FilenameNormaliser::parse("20250314 092600.qta")->timestamp,
              FilenameNormaliser::parse("20250314 092600.m4a")->timestamp);
}

TEST(FilenameNormaliser, OtherNamesAndDatesThatDoNotExistGiveNothing)
{
    TimeZone zone("Europe/Stockholm");
    for (const char* name : {
             "20240131 142530.M4A",          // the extension is case-sensitive
             "20240131 142530.QTA",          // nor for the other form
             "20240131 142530.m4a.qta",      // one extension
             "2024-01-31 142530.m4a",        // separators in the date
             "x20240131 142530.m4a",         // anchored at the start
             "20240131 142530.m4a.download", // anchored at the end
             "20240131 142530-.m4a",         // a hyphen needs a hex id
             "20240131 142530-3F2G.m4a",     // not hexadecimal
             "20240131 1425301.m4a",         // seven digits of time
             "2024013 142530.m4a",           // seven digits of date
             "Users/me/20240131 142530.m4a", // a path, not a bare name
             "20240131 142530.m4a\n\n",      // more than one line break at the end
             "",
             "20241331 142530.m4a", // month 13
             "20240001 142530.m4a", // month 0
             "20240100 142530.m4a", // day 0
             "20240230 142530.m4a", // 30 February
             "20230229 142530.m4a", // not a leap year
             "20240131 252530.m4a", // hour 25
             "20240131 240000.m4a", // hour 24
             "20240131 146030.m4a", // minute 60
             "20240131 142560.m4a", // second 60
             "00000101 000000.m4a", // year 0
             "20240331 023000.m4a", // skipped when the clocks went forward
         }) {
        EXPECT_EQ(FilenameNormaliser::parse(name), std::nullopt) << name;
    }
    EXPECT_EQ(FilenameNormaliser::parse(std::string(5000, '1') + " 142530.m4a"), std::nullopt);
    // The pattern's "$" also matches before one final line break.
    EXPECT_EQ(parsedUtc("20240131 142530.m4a\n"), "2024-01-31T13:25:30Z");
    EXPECT_EQ(parsedUtc("20240229 235959.m4a"), "2024-02-29T22:59:59Z");
    // Shown twice when the clocks went back: the later occurrence is meant.
    EXPECT_EQ(parsedUtc("20241027 023000.m4a"), "2024-10-27T01:30:00Z");
}

// Every instant of a year on a five-minute grid, against the C library's local time: the
// canonical id is the wall clock localtime_r shows, and a name of a wall-clock time parses
// exactly when some instant shows it, to the latest instant that does. The zones change their
// offsets by an hour, half an hour, a quarter of an hour and a whole day.
TEST(FilenameNormaliser, AgreesWithTheCLibraryAcrossAWholeYear)
{
    struct Case {
        const char* zone;
        int year;
    };
    for (auto [zoneName, year] : {Case{"Europe/Stockholm", 2024}, Case{"Australia/Lord_Howe", 2024},
                                  Case{"Pacific/Apia", 2011}, Case{"America/St_Johns", 2024},
                                  Case{"Asia/Kathmandu", 1986}}) {
        TimeZone zone(zoneName);
        std::tm first{};
        first.tm_year = year - 1900;
        first.tm_mday = 1;
        const std::time_t start = timegm(&first);
        const std::time_t end = start + 366 * 86400;
        std::map<std::time_t, std::time_t> latestShowing;  // wall clock as UTC -> instant
        int mismatches = 0;
        for (std::time_t t = start - 86400; t < end + 86400 && mismatches < 5; t += 300) {
            std::tm local{};
            ASSERT_NE(localtime_r(&t, &local), nullptr);
            char id[32];
            std::strftime(id, sizeof id, "%y%m%d-%H%M%S", &local);
            auto instant = std::chrono::system_clock::from_time_t(t);
            if (FilenameNormaliser::canonicalId(instant) != id) {
                ADD_FAILURE() << zoneName << ": canonical id of " << Iso8601::format(instant) << " is "
                              << FilenameNormaliser::canonicalId(instant) << ", localtime_r shows " << id;
                ++mismatches;
            }
            latestShowing[timegm(&local)] = t;
        }
        int skipped = 0;
        for (std::time_t wall = start; wall < end && mismatches < 5; wall += 300) {
            std::tm fields{};
            gmtime_r(&wall, &fields);
            char name[48];
            std::strftime(name, sizeof name, "%Y%m%d %H%M%S.m4a", &fields);
            auto parsed = FilenameNormaliser::parse(name);
            auto shown = latestShowing.find(wall);
            std::optional<std::time_t> expected;
            if (shown != latestShowing.end()) {
                expected = shown->second;
            }
            std::optional<std::time_t> got;
            if (parsed) {
                got = std::chrono::system_clock::to_time_t(parsed->timestamp);
            }
            skipped += expected ? 0 : 1;
            if (got != expected) {
                ADD_FAILURE() << zoneName << ": " << name << " parsed to " << (got ? std::to_string(*got) : "none")
                              << ", expected " << (expected ? std::to_string(*expected) : "none");
                ++mismatches;
            }
        }
        EXPECT_GT(skipped, 0) << zoneName << " skips some wall-clock time in " << year;
    }
}

TEST(CanonicalId, IsTheLocalWallClockTimeInThirteenCharacters)
{
    auto instant = utc("2024-01-30T23:30:05Z");
    {
        TimeZone zone("Europe/Stockholm");
        // Half past midnight local time carries the local date, not the UTC one.
        EXPECT_EQ(FilenameNormaliser::canonicalId(instant), "240131-003005");
        EXPECT_EQ(recordingCanonicalID(instant), "240131-003005");
        EXPECT_EQ(FilenameNormaliser::canonicalId(utc("2024-07-15T06:00:00Z")), "240715-080000");
    }
    {
        TimeZone zone("America/Los_Angeles");
        EXPECT_EQ(FilenameNormaliser::canonicalId(instant), "240130-153005");
        EXPECT_EQ(recordingCanonicalID(instant), "240130-153005");
    }
    {
        TimeZone zone("UTC");
        EXPECT_EQ(FilenameNormaliser::canonicalId(utc("2100-01-01T00:00:00Z")), "000101-000000");
        // Fractions of a second are dropped, also before 1970 where dropping means rounding down.
        EXPECT_EQ(FilenameNormaliser::canonicalId(utc("2024-01-31T14:25:30.999Z")), "240131-142530");
        EXPECT_EQ(FilenameNormaliser::canonicalId(utc("1969-12-31T23:59:59.5Z")), "691231-235959");
    }
}

TEST(CanonicalId, OfAParsedNameRepeatsTheNamesDigits)
{
    for (const char* zoneName : {"UTC", "Europe/Stockholm", "Australia/Lord_Howe", "Asia/Kathmandu"}) {
        TimeZone zone(zoneName);
        for (const char* name : {"20240131 142530.m4a", "20240331 033000.m4a", "20241027 023000.m4a",
                                 "19991231 235959.m4a", "20380119 031408.m4a"}) {
            auto parsed = FilenameNormaliser::parse(name);
            if (!parsed) {
                continue; // a time that this zone skips
            }
            std::string digits(name);
            EXPECT_EQ(FilenameNormaliser::canonicalId(parsed->timestamp), digits.substr(2, 6) + "-" + digits.substr(9, 6))
                << name << " in " << zoneName;
        }
    }
}

} // namespace
} // namespace quillet
