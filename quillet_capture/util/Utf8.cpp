#include "quillet_capture/util/Utf8.hpp"

#include <cstdint>

namespace quillet::Utf8 {

namespace {

// The length of the well-formed sequence that starts at `p` (1 to 4), or 0 when the bytes
// there are not one.
int sequenceLength(const unsigned char* p, const unsigned char* end)
{
    unsigned char lead = *p;
    if (lead < 0x80) {
        return 1;
    }
    int length = 0;
    std::uint32_t code = 0;
    std::uint32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2;
        code = lead & 0x1F;
        minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        code = lead & 0x0F;
        minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        code = lead & 0x07;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (end - p < length) {
        return 0;
    }
    for (int i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (p[i] & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return 0;
    }
    return length;
}

} // namespace

std::u32string codePoints(std::string_view bytes)
{
    std::u32string points;
    points.reserve(bytes.size());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        int length = sequenceLength(p, end);
        if (length == 0) {
            points += U'\uFFFD';
            ++p;
            continue;
        }
        std::uint32_t code = length == 1 ? *p : *p & (0xFF >> (length + 1));
        for (int i = 1; i < length; ++i) {
            code = (code << 6) | (p[i] & 0x3F);
        }
        points += static_cast<char32_t>(code);
        p += length;
    }
    return points;
}

std::string encoded(std::u32string_view text)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (char32_t c : text) {
        if (c < 0x80) {
            bytes += static_cast<char>(c);
        } else if (c < 0x800) {
            bytes += static_cast<char>(0xC0 | (c >> 6));
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            bytes += static_cast<char>(0xE0 | (c >> 12));
            bytes += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            bytes += static_cast<char>(0xF0 | (c >> 18));
            bytes += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            bytes += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return bytes;
}

bool isValid(std::string_view bytes)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        int length = sequenceLength(p, end);
        if (length == 0) {
            return false;
        }
        p += length;
    }
    return true;
}

std::string escapedLine(std::string_view bytes)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string result;
    result.reserve(bytes.size());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        int length = sequenceLength(p, end);
        if (length > 1 || (length == 1 && *p >= 0x20 && *p != 0x7F)) {
            result.append(reinterpret_cast<const char*>(p), static_cast<size_t>(length));
            p += length;
            continue;
        }
        switch (*p) {
        case '\n':
            result += "\\n";
            break;
        case '\r':
            result += "\\r";
            break;
        case '\t':
            result += "\\t";
            break;
        default:
            result += "\\x";
            result += kHex[*p >> 4];
            result += kHex[*p & 0xF];
        }
        ++p;
    }
    return result;
}

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr char kHexDigits[] = "0123456789abcdef";

int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

} // namespace

std::string lossless(std::string_view bytes)
{
    std::string result;
    result.reserve(bytes.size() + 8);
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        if (int length = sequenceLength(p, end); length > 0) {
            result.append(reinterpret_cast<const char*>(p), static_cast<size_t>(length));
            p += length;
            continue;
        }
        result += kReplacement;
        result += kHexDigits[*p >> 4];
        result += kHexDigits[*p & 0xF];
        ++p;
    }
    return result;
}

std::string bytesOf(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (text.substr(i, kReplacement.size()) == kReplacement && i + kReplacement.size() + 2 <= text.size()) {
            int high = hexValue(text[i + kReplacement.size()]);
            int low = hexValue(text[i + kReplacement.size() + 1]);
            if (high >= 0 && low >= 0) {
                result += static_cast<char>(high * 16 + low);
                i += kReplacement.size() + 2;
                continue;
            }
        }
        result += text[i++];
    }
    return result;
}

std::string cut(std::string_view text, std::size_t bytes)
{
    if (text.size() <= bytes) {
        return std::string(text);
    }
    std::size_t end = bytes;
    // Never in the middle of a character.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return std::string(text.substr(0, end)) + "... (" + std::to_string(text.size() - end) + " more bytes)";
}

std::string prefix(std::string_view text, std::size_t count)
{
    std::size_t characters = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        // A continuation byte belongs to the character before it.
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (characters == count) {
                break;
            }
            ++characters;
        }
        ++i;
    }
    return std::string(text.substr(0, i));
}

} // namespace quillet::Utf8
