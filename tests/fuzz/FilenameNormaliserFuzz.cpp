// Feeds arbitrary bytes to FilenameNormaliser::parse as a file name. Besides not crashing,
// whatever parses must give back its own digits: the canonical id of the parsed start time is
// the name's date and time without the century. The time zone has daylight-saving changes so
// that skipped and repeated wall-clock times are exercised.
#include "quillet_capture/capture/FilenameNormaliser.hpp"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("TZ", "Europe/Stockholm", 1);
    tzset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string name(reinterpret_cast<const char*>(data), size);
    auto parsed = quillet::FilenameNormaliser::parse(name);
    if (!parsed) {
        return 0;
    }
    // The time digits end where the ".m4a" (and the hex id after its hyphen) begins.
    size_t end = name.rfind(".m4a");
    size_t hyphen = name.find('-', 8);
    if (hyphen != std::string::npos && hyphen < end) {
        end = hyphen;
    }
    if (end == std::string::npos || end < 14) {
        __builtin_trap();
    }
    std::string expected = name.substr(2, 6) + "-" + name.substr(end - 6, 6);
    std::string id = quillet::FilenameNormaliser::canonicalId(parsed->timestamp);
    if (id != expected || id != quillet::recordingCanonicalID(parsed->timestamp)) {
        __builtin_trap();
    }
    if (!parsed->hexId.empty() && name.find("-" + parsed->hexId + ".m4a") == std::string::npos) {
        __builtin_trap();
    }
    return 0;
}
