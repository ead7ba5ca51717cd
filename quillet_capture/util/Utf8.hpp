#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillet::Utf8 {

/// True when `bytes` is well-formed UTF-8: no stray continuation bytes, no truncated or
/// overlong sequences, no surrogates, nothing above U+10FFFF.
bool isValid(std::string_view bytes);

/// The first `count` characters (code points) of the well-formed UTF-8 text `text`; the whole
/// text when it is shorter.
std::string prefix(std::string_view text, std::size_t count);

} // namespace quillet::Utf8
