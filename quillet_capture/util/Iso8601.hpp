#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quillet::Iso8601 {

using TimePoint = std::chrono::system_clock::time_point;

/// "2024-05-01T09:30:00Z": UTC, whole seconds (fractions are dropped).
std::string format(TimePoint time);

/// Reads the ISO 8601 internet date-time form: "2024-05-01T09:30:00Z", with an offset
/// ("+02:00", "+0200") instead of Z, and with optional fractional seconds. Absent when the
/// text is anything else or names a date that does not exist.
std::optional<TimePoint> parse(std::string_view text);

} // namespace quillet::Iso8601
