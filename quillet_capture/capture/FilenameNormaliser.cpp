#include "quillet_capture/capture/FilenameNormaliser.hpp"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <unordered_map>

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
    R"((\d{6})(?:-([A-Fa-f0-9]+))?\.(?:m4a|qta)(?:\r\n|[\n\v\f\r]|\xC2\x85|\xE2\x80\xA8|\xE2\x80\xA9)?$)";

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
// digits, an optional "-" and hex id, ".m4a" or ".qta", and nothing after. A name of another
// form (other white space, a final line terminator, no match at all) is left to the pattern,
// which decides.
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
    if (name.substr(at) != ".m4a" && name.substr(at) != ".qta") {
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

// The zone's offsets from UTC, read with localtime_r at UTC midnights and remembered by day
// until the zone is read again. When the midnights of a day, of the day before and of the two
// days after show one offset, that offset (as no zone changes its offset and back within a
// day) holds all day and for the fourteen hours either side that can separate a wall-clock
// time from its instant: there local time is the instant plus the offset, with no call into
// the C library (about 0.2 us each, and a name took seven).
class ZoneOffsets {
public:
    // The offset in force throughout the day of `seconds` (UTC) and fourteen hours either
    // side, or nothing when the offset changes near it (or the C library cannot tell). Reads
    // the zone again first when it may have changed (see refreshLocked), so that the C
    // library's own conversions that follow a call see the zone in force.
    std::optional<long> steadyAround(std::time_t seconds)
    {
        constexpr std::time_t day = 86400;
        std::time_t midnight = seconds / day * day - (seconds % day < 0 ? day : 0);
        const char* tz = std::getenv("TZ");
        auto second = coarseSecond();
        std::lock_guard guard(lock_);
        refreshLocked(tz, second);
        if (auto known = steady_.find(midnight); known != steady_.end()) {
            return known->second;
        }
        if (steady_.size() >= 4096) {
            steady_.clear();
        }
        auto offset = offsetAt(midnight);
        for (std::time_t other : {midnight - day, midnight + day, midnight + 2 * day}) {
            if (offset && offsetAt(other) != offset) {
                offset.reset();
            }
        }
        steady_.emplace(midnight, offset);
        return offset;
    }

private:
    // The second of a coarse monotonic clock, which costs no reading of the hardware clock.
    static std::int64_t coarseSecond()
    {
#ifdef CLOCK_MONOTONIC_COARSE
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        return now.tv_sec;
#else
        return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
#endif
    }

    // Follows the time zone in force: tzset() reads TZ and, without it, looks at /etc/localtime
    // again (a stat on every call). It is called again at once when TZ changes, and otherwise
    // once in each second of the clock, so that a change of the system's zone is followed
    // within a second; each call forgets the offsets read so far.
    void refreshLocked(const char* tz, std::int64_t second)
    {
        bool changed = tz == nullptr ? lastTZ_.has_value() : (!lastTZ_ || *lastTZ_ != tz);
        if (!called_ || changed || second != lastSecond_) {
            tzset();
            called_ = true;
            lastSecond_ = second;
            lastTZ_ = tz == nullptr ? std::nullopt : std::optional<std::string>(tz);
            steady_.clear();
        }
    }

    std::optional<long> offsetAt(std::time_t midnight) const
    {
        std::tm there{};
        if (localtime_r(&midnight, &there) == nullptr) {
            return std::nullopt;
        }
        return there.tm_gmtoff;
    }

    std::mutex lock_;
    bool called_ = false;
    std::optional<std::string> lastTZ_;
    std::int64_t lastSecond_ = 0;
    std::unordered_map<std::time_t, std::optional<long>> steady_;  // by UTC midnight
};

ZoneOffsets& zoneOffsets()
{
    // Never destroyed, so that a thread still at work while the process exits finds it whole.
    static auto* offsets = new ZoneOffsets;
    return *offsets;
}

// The instant at which the local clock of the current time zone shows `wanted`. Impossible
// fields (a 30 February, hour 24) show nowhere. Away from a change of the zone's offset the
// instant is the fields read as UTC less the steady offset. Near one, the zone's offsets a day
// either side of the guess (one of which is the offset in force at the instant, as no zone
// changes its offset twice in two days) give the candidates, and each is kept only if the
// local clock shows exactly the wanted fields there: that rejects a time skipped when the
// clocks go forward, which a plain conversion would silently move. A time shown twice (when
// the clocks go back) is read as its later occurrence, as the date formatter of the recording
// app does.
std::optional<std::time_t> instantOfLocalTime(const std::tm& wanted)
{
    using namespace std::chrono;
    // Impossible fields (30 February, hour 24, second 60) are refused here; the fields as UTC
    // are then a plain count.
    year_month_day date{year(wanted.tm_year + 1900), month(static_cast<unsigned>(wanted.tm_mon + 1)),
                        day(static_cast<unsigned>(wanted.tm_mday))};
    if (!date.ok() || wanted.tm_hour < 0 || wanted.tm_hour > 23 || wanted.tm_min < 0 || wanted.tm_min > 59 ||
        wanted.tm_sec < 0 || wanted.tm_sec > 59) {
        return std::nullopt;
    }
    std::time_t asUtc = sys_days(date).time_since_epoch().count() * std::time_t{86400} + wanted.tm_hour * 3600 +
                        wanted.tm_min * 60 + wanted.tm_sec;
    if (auto offset = zoneOffsets().steadyAround(asUtc)) {
        return asUtc - *offset;
    }
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

void writeTwoDigits(char* at, int value)
{
    at[0] = static_cast<char>('0' + value / 10);
    at[1] = static_cast<char>('0' + value % 10);
}

std::string formatCanonicalId(TimePoint time)
{
    using namespace std::chrono;
    auto& offsets = zoneOffsets();
    std::time_t seconds = floor<std::chrono::seconds>(time).time_since_epoch().count();
    std::tm local{};
    if (auto offset = offsets.steadyAround(seconds)) {
        sys_seconds shifted{std::chrono::seconds(seconds + *offset)};
        auto midnight = floor<days>(shifted);
        year_month_day date(midnight);
        hh_mm_ss clock(shifted - midnight);
        local.tm_year = static_cast<int>(date.year()) - 1900;
        local.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
        local.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
        local.tm_hour = static_cast<int>(clock.hours().count());
        local.tm_min = static_cast<int>(clock.minutes().count());
        local.tm_sec = static_cast<int>(clock.seconds().count());
    } else if (localtime_r(&seconds, &local) == nullptr) {
        gmtime_r(&seconds, &local);
    }
    char text[13];
    writeTwoDigits(text, ((local.tm_year + 1900) % 100 + 100) % 100);
    writeTwoDigits(text + 2, local.tm_mon + 1);
    writeTwoDigits(text + 4, local.tm_mday);
    text[6] = '-';
    writeTwoDigits(text + 7, local.tm_hour);
    writeTwoDigits(text + 9, local.tm_min);
    writeTwoDigits(text + 11, local.tm_sec);
    return std::string(text, sizeof text);
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
