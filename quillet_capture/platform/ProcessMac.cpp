#include "quillet_capture/platform/Process.hpp"

#include <crt_externs.h>
#include <mach-o/dyld.h>

#include <cstdint>
#include <vector>

namespace quillet::Process {

Command loginShell(const std::string& text)
{
    return {"/bin/zsh", {"-lc", text}};
}

std::string startedExecutable()
{
    std::uint32_t size = 1024;
    std::vector<char> buffer(size);
    if (_NSGetExecutablePath(buffer.data(), &size) != 0) {
        // `size` now holds the length that is needed.
        buffer.resize(size);
        if (_NSGetExecutablePath(buffer.data(), &size) != 0) {
            return {};
        }
    }
    return std::string(buffer.data());
}

char** environment()
{
    return *_NSGetEnviron();
}

} // namespace quillet::Process
