#pragma once

#include <functional>
#include <string>

namespace quillet {

/// Turns a wanted canonical id into one that is free.
namespace CollisionResolver {

/// Returns `base` when `isAvailable(base)` holds, else the first of "base_2" ... "base_999"
/// for which it holds. When none is free, returns "base_" plus the first 8 characters of a new
/// random UUID (upper-case hexadecimal) without asking the predicate about it, and logs that
/// it had to. Never fails. The predicate is called synchronously on the caller's thread, at
/// most 999 times, and not kept. Any thread.
std::string resolve(const std::string& base, const std::function<bool(const std::string&)>& isAvailable);

} // namespace CollisionResolver

} // namespace quillet
