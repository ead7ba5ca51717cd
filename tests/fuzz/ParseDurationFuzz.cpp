// Feeds arbitrary bytes to CaptureGuards::parseDuration as the output of afinfo. Besides not
// crashing, a duration may only come out of text that has a line with " sec" in it.
#include "quillet_capture/capture/CaptureGuards.hpp"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto duration = quillet::CaptureGuards::parseDuration(text);
    if (duration && text.find(" sec") == std::string_view::npos) {
        __builtin_trap();
    }
    return 0;
}
