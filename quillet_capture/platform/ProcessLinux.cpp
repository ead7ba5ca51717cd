#include "quillet_capture/platform/Process.hpp"

#include <unistd.h>

#include <climits>

extern char** environ;

namespace quillet::Process {

Command loginShell(const std::string& text)
{
    // Debian and most other distributions ship without zsh; bash reads the login profile too.
    const char* shellPath = ::access("/bin/zsh", X_OK) == 0 ? "/bin/zsh" : "/bin/bash";
    return {shellPath, {"-lc", text}};
}

std::string startedExecutable()
{
    char buffer[PATH_MAX + 1] = {};
    ssize_t length = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (length <= 0) {
        return {};
    }
    return std::string(buffer, static_cast<size_t>(length));
}

char** environment()
{
    return environ;
}

} // namespace quillet::Process
