#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace quillet::UserDefaults {

using TimePoint = std::chrono::system_clock::time_point;

/// The date stored under `key` in the program's user defaults, or nothing when none is stored
/// or the stored value is not a date. Any thread.
std::optional<TimePoint> date(const std::string& key);

/// Stores `value` under `key`; failures are ignored (the value then is asked for again next
/// time). Any thread.
void setDate(const std::string& key, TimePoint value);

/// Removes whatever is stored under `key`; failures are ignored. Any thread.
void remove(const std::string& key);

} // namespace quillet::UserDefaults
