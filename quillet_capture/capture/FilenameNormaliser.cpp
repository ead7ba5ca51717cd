#include "quillet_capture/capture/FilenameNormaliser.hpp"

#include <cstdio>
#include <ctime>
#include <regex>

namespace quillet {

namespace {

using TimePoint = FilenameNormaliser::TimePoint;

// The names come from a regex engine (ICU) that matches Unicode text, while std::regex sees
// UTF-8 bytes. Two of ICU's meanings are spelled out so that the same names match:
// - `\s` is any Unicode white space (ICU's White_Space property), so the multi-byte spaces
//   (U+0085, U+00A0, U+1680, U+2000-U+200A, U+2028, U+2029, U+202F, U+205F, U+3000) are
//   listed next to the ASCII ones;
// - `$` without the multi-line option also matches just before one line terminator that ends
//   the input (as in Perl), so an optional final terminator is allowed.
constexpr const char* kPattern =
    R"(^(\d{8})(?:\s|\xC2[\x85\xA0]|\xE1\x9A\x80|\xE2\x80[\x80\x81\x82\x83\x84\x85\x86\x87\x88\x89\x8A\xA8\xA9\xAF]|\xE2\x81\x9F|\xE3\x80\x80)+)"
    R"((\d{6})(?:-([A-Fa-f0-9]+))?\.m4a(?:\r\n|[\n\v\f\r]|\xC2\x85|\xE2\x80\xA8|\xE2\x80\xA9)?$)";

// No file system allows a name longer than 255 characters (at most 765 bytes of UTF-8).
// libstdc++'s std::regex recurses for every character a repetition takes, about 1.5 KB of
// stack each, so a longer string, which cannot be a file name anyway, is turned away before
// it can exhaust a thread's stack.
constexpr size_t kMaxNameLength = 1024;

const std::regex& voiceMemosPattern()
{
    // A function-local static is initialised once, thread-safely; a constant pattern that
    // failed to compile would throw out of here and end the process, which is intended.
    static const std::regex pattern(kPattern, std::regex::ECMAScript | std::regex::optimize);
    return pattern;
}

int number(const std::string& digits, size_t at, size_t count)
{
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
        value = value * 10 + (digits[i] - '0');
    }
    return value;
}

bool sameWallClock(const std::tm& a, const std::tm& b)
{
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

// The instant at which the local clock of the current time zone shows `wanted`. mktime
// silently normalises impossible fields (month 13 becomes January of the next year, a time
// skipped by a daylight-saving change is moved an hour), so each candidate is converted back
// and kept only if it shows exactly the wanted fields. A time shown twice (when the clocks go
// back) is read as its later occurrence, as the date formatter of the recording app does.
std::optional<std::time_t> instantOfLocalTime(const std::tm& wanted)
{
    // Where the zone's offset is the same a day before and a day after, the wall-clock time
    // names exactly one instant, and mktime's own guess is it. The probes below with a fixed
    // daylight-saving flag are kept for times near a change: given a flag that the zone does not
    // use at that date, glibc's mktime searches years of time for it (about 100 us per name,
    // which a first index of a folder of ten thousand recordings paid for each one).
    {
        std::tm probe = wanted;
        probe.tm_isdst = -1;
        std::time_t candidate = std::mktime(&probe);
        std::tm back{};
        std::tm before{};
        std::tm after{};
        std::time_t dayBefore = candidate - 86400;
        std::time_t dayAfter = candidate + 86400;
        if (localtime_r(&candidate, &back) != nullptr && sameWallClock(back, wanted) &&
            localtime_r(&dayBefore, &before) != nullptr && localtime_r(&dayAfter, &after) != nullptr &&
            before.tm_gmtoff == back.tm_gmtoff && after.tm_gmtoff == back.tm_gmtoff) {
            return candidate;
        }
    }
    std::optional<std::time_t> found;
    for (int isDst : {-1, 0, 1}) {
        std::tm probe = wanted;
        probe.tm_isdst = isDst;
        std::time_t candidate = std::mktime(&probe);
        std::tm back{};
        if (localtime_r(&candidate, &back) == nullptr || !sameWallClock(back, wanted)) {
            continue;
        }
        if (!found || candidate > *found) {
            found = candidate;
        }
    }
    return found;
}

std::optional<TimePoint> timePointOf(std::time_t seconds)
{
    // A time point holds a limited span: the years 1678 to 2261 where it counts nanoseconds.
    constexpr auto limit =
        std::chrono::duration_cast<std::chrono::seconds>(TimePoint::duration::max()).count() - 1;
    if (seconds > limit || seconds < -limit) {
        return std::nullopt;
    }
    return TimePoint(std::chrono::seconds(seconds));
}

std::string formatCanonicalId(TimePoint time)
{
    // Read TZ afresh, so that the id follows the time zone in force at the moment of the call.
    tzset();
    std::time_t seconds = std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        gmtime_r(&seconds, &local);
    }
    int year = ((local.tm_year + 1900) % 100 + 100) % 100;
    char text[32];
    std::snprintf(text, sizeof text, "%02d%02d%02d-%02d%02d%02d", year, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

} // namespace

namespace FilenameNormaliser {

std::optional<Parsed> parse(std::string_view name)
{
    if (name.size() > kMaxNameLength) {
        return std::nullopt;
    }
    std::match_results<std::string_view::const_iterator> match;
    if (!std::regex_search(name.begin(), name.end(), match, voiceMemosPattern()) || match.size() != 4 ||
        !match[1].matched || !match[2].matched) {
        return std::nullopt;
    }
    std::string digits = match[1].str() + match[2].str();
    std::string hexId = match[3].matched ? match[3].str() : std::string();

    std::tm wanted{};
    int year = number(digits, 0, 4);
    wanted.tm_year = year - 1900;
    wanted.tm_mon = number(digits, 4, 2) - 1;
    wanted.tm_mday = number(digits, 6, 2);
    wanted.tm_hour = number(digits, 8, 2);
    wanted.tm_min = number(digits, 10, 2);
    wanted.tm_sec = number(digits, 12, 2);
    // The calendar has no year 0; the round trip below rejects every other impossible field.
    if (year == 0) {
        return std::nullopt;
    }
    auto seconds = instantOfLocalTime(wanted);
    if (!seconds) {
        return std::nullopt;
    }
    auto timestamp = timePointOf(*seconds);
    if (!timestamp) {
        return std::nullopt;
    }
    return Parsed{*timestamp, std::move(hexId)};
}

std::string canonicalId(TimePoint time)
{
    return formatCanonicalId(time);
}

} // namespace FilenameNormaliser

std::string recordingCanonicalID(FilenameNormaliser::TimePoint time)
{
    return formatCanonicalId(time);
}

} // namespace quillet
