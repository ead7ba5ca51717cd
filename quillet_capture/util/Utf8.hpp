#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillet::Utf8 {

/// True when `bytes` is well-formed UTF-8: no stray continuation bytes, no truncated or
/// overlong sequences, no surrogates, nothing above U+10FFFF.
bool isValid(std::string_view bytes);

/// The code points of `bytes`, each byte that is not part of a well-formed sequence read as
/// U+FFFD (the replacement character).
std::u32string codePoints(std::string_view bytes);

/// `text` (code points) as UTF-8.
std::string encoded(std::u32string_view text);

/// `bytes` as one line of well-formed UTF-8 that shows what they were: line breaks, tabs
/// and other control characters become \n, \r, \t or \xNN (a backslash and letters), and so does every byte
/// that is not part of a well-formed sequence. Well-formed text without control characters
/// comes back unchanged.
std::string escapedLine(std::string_view bytes);

/// `bytes` as well-formed UTF-8 that keeps every byte: each byte that is not part of a
/// well-formed sequence becomes U+FFFD followed by its two lower-case hex digits, so that two
/// names that differ only in such bytes stay apart. Well-formed text comes back unchanged.
/// `bytesOf` undoes it.
std::string lossless(std::string_view bytes);
/// The bytes that `lossless` made `text` from.
std::string bytesOf(std::string_view text);

/// `text` when it has at most `bytes` bytes; otherwise its start, cut before the character
/// that would cross `bytes`, followed by "... (N more bytes)".
std::string cut(std::string_view text, std::size_t bytes);

/// The first `count` characters (code points) of the well-formed UTF-8 text `text`; the whole
/// text when it is shorter.
std::string prefix(std::string_view text, std::size_t count);

} // namespace quillet::Utf8
