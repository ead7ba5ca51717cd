#include "quillet_capture/capture/FilenameNormaliser.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <regex>
#include <string>

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

struct Matched {
    std::string digits;  // the date's eight digits and the time's six
    std::string hexId;
};

// The pattern's common case read without the regex engine (about 1.5 us a name, which a first
// index of ten thousand recordings paid for each): eight ASCII digits, ASCII blanks, six
// digits, an optional "-" and hex id, ".m4a", and nothing after. A name of another form (other
// white space, a final line terminator, no match at all) is left to the pattern, which decides.
std::optional<Matched> matchPlain(std::string_view name)
{
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; };
    auto isHex = [&](char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); };
    size_t at = 0;
    auto digitsAt = [&](size_t count) {
        if (name.size() < at + count) {
            return false;
        }
        for (size_t i = at; i < at + count; ++i) {
            if (!isDigit(name[i])) {
                return false;
            }
        }
        return true;
    };
    if (!digitsAt(8)) {
        return std::nullopt;
    }
    Matched matched{std::string(name.substr(0, 8)), ""};
    at = 8;
    size_t blanks = at;
    while (at < name.size() && isBlank(name[at])) {
        ++at;
    }
    if (at == blanks || !digitsAt(6)) {
        return std::nullopt;
    }
    matched.digits.append(name.substr(at, 6));
    at += 6;
    if (at < name.size() && name[at] == '-') {
        size_t hex = ++at;
        while (at < name.size() && isHex(name[at])) {
            ++at;
        }
        if (at == hex) {
            return std::nullopt;
        }
        matched.hexId = std::string(name.substr(hex, at - hex));
    }
    if (name.substr(at) != ".m4a") {
        return std::nullopt;
    }
    return matched;
}

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

// Follows the time zone in force: tzset() reads TZ and, without it, looks at /etc/localtime
// again (a stat on every call, which a first index of ten thousand names paid twice per name).
// It is called again at once when TZ changes, and otherwise at most once a second, so that a
// change of the system's zone is followed within a second.
void refreshTimeZone()
{
    static std::mutex lock;
    static bool called = false;
    static std::optional<std::string> lastTZ;
    static std::chrono::steady_clock::time_point lastCall;
    const char* tz = std::getenv("TZ");
    auto now = std::chrono::steady_clock::now();
    std::lock_guard guard(lock);
    bool changed = tz == nullptr ? lastTZ.has_value() : (!lastTZ || *lastTZ != tz);
    if (!called || changed || now - lastCall >= std::chrono::seconds(1)) {
        tzset();
        called = true;
        lastCall = now;
        lastTZ = tz == nullptr ? std::nullopt : std::optional<std::string>(tz);
    }
}

// The instant at which the local clock of the current time zone shows `wanted`. The fields
// read as UTC give a guess; the zone's offsets a day either side of it (one of which is the
// offset in force at the instant, as no zone changes its offset twice in two days) give the
// candidates, and each is kept only if the local clock shows exactly the wanted fields there.
// That rejects impossible fields (a 30 February, a time skipped when the clocks go forward),
// which a plain conversion would silently move. A time shown twice (when the clocks go back)
// is read as its later occurrence, as the date formatter of the recording app does.
std::optional<std::time_t> instantOfLocalTime(const std::tm& wanted)
{
    std::tm fields = wanted;
    std::time_t asUtc = timegm(&fields);
    std::optional<std::time_t> found;
    for (std::time_t probe : {asUtc - 86400, asUtc, asUtc + 86400}) {
        std::tm there{};
        if (localtime_r(&probe, &there) == nullptr) {
            continue;
        }
        std::time_t candidate = asUtc - there.tm_gmtoff;
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
    refreshTimeZone();
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
    auto plain = matchPlain(name);
    if (!plain) {
        std::match_results<std::string_view::const_iterator> match;
        if (!std::regex_search(name.begin(), name.end(), match, voiceMemosPattern()) || match.size() != 4 ||
            !match[1].matched || !match[2].matched) {
            return std::nullopt;
        }
        plain = Matched{match[1].str() + match[2].str(), match[3].matched ? match[3].str() : std::string()};
    }
    std::string digits = std::move(plain->digits);
    std::string hexId = std::move(plain->hexId);

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
    refreshTimeZone();
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
