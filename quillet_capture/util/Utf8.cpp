#include "quillet_capture/util/Utf8.hpp"

#include <cstdint>

namespace quillet::Utf8 {

bool isValid(std::string_view bytes)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        unsigned char lead = *p;
        if (lead < 0x80) {
            ++p;
            continue;
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
            return false;
        }
        if (end - p < length) {
            return false;
        }
        for (int i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (p[i] & 0x3F);
        }
        if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        p += length;
    }
    return true;
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
