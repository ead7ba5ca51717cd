#include "quillet_capture/util/Iso8601.hpp"

#include <cstdio>
#include <ctime>

namespace quillet::Iso8601 {

namespace {

bool digits(std::string_view text, size_t at, size_t count, int& value)
{
    if (at + count > text.size()) {
        return false;
    }
    value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

} // namespace

std::string format(TimePoint time)
{
    std::time_t seconds = std::chrono::system_clock::to_time_t(
        std::chrono::floor<std::chrono::seconds>(time));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::optional<TimePoint> parse(std::string_view text)
{
    int year, month, day, hour, minute, second;
    if (text.size() < 20 || !digits(text, 0, 4, year) || text[4] != '-' || !digits(text, 5, 2, month) ||
        text[7] != '-' || !digits(text, 8, 2, day) || (text[10] != 'T' && text[10] != 't') ||
        !digits(text, 11, 2, hour) || text[13] != ':' || !digits(text, 14, 2, minute) || text[16] != ':' ||
        !digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    size_t at = 19;
    std::chrono::nanoseconds fraction{0};
    if (at < text.size() && text[at] == '.') {
        ++at;
        long long scale = 100'000'000;
        size_t start = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            fraction += std::chrono::nanoseconds((text[at] - '0') * scale);
            scale /= 10;
            ++at;
        }
        if (at == start) {
            return std::nullopt;
        }
    }
    int offsetMinutes = 0;
    if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int sign = text[at] == '-' ? -1 : 1;
        int oh, om;
        if (!digits(text, at + 1, 2, oh)) {
            return std::nullopt;
        }
        size_t next = at + 3;
        if (next < text.size() && text[next] == ':') {
            ++next;
        }
        if (!digits(text, next, 2, om) || oh > 23 || om > 59) {
            return std::nullopt;
        }
        offsetMinutes = sign * (oh * 60 + om);
        at = next + 2;
    } else {
        return std::nullopt;
    }
    if (at != text.size()) {
        return std::nullopt;
    }
    using namespace std::chrono;
    year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                        std::chrono::day(static_cast<unsigned>(day))};
    // The clock counts nanoseconds in 64 bits: years outside 1678-2261 cannot be held.
    if (year < 1678 || year > 2261 || !date.ok() || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    auto time = sys_days(date) + hours(hour) + minutes(minute) + seconds(second) - minutes(offsetMinutes);
    return time_point_cast<system_clock::duration>(time + fraction);
}

} // namespace quillet::Iso8601
