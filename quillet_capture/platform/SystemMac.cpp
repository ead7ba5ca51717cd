#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/platform/System.hpp"

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

#include <fcntl.h>
#include <os/log.h>
#include <spawn.h>
#include <sys/sysctl.h>
#include <sys/wait.h>

#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace quillet {

Platform Paths::current()
{
    return Platform::macOS;
}

namespace System {

std::string hostName()
{
    CFStringRef name = SCDynamicStoreCopyComputerName(nullptr, nullptr);
    if (name == nullptr) {
        return "?";
    }
    char buffer[512] = {};
    bool ok = CFStringGetCString(name, buffer, sizeof buffer, kCFStringEncodingUTF8);
    CFRelease(name);
    return ok && buffer[0] != '\0' ? buffer : "?";
}

std::string osName()
{
    return "macOS";
}

bool hasVoiceMemos()
{
    return true;
}

std::vector<std::string> recorderFolders()
{
    return {};
}

std::string osVersion()
{
    char version[64] = {};
    size_t size = sizeof version;
    if (sysctlbyname("kern.osproductversion", version, &size, nullptr, 0) != 0) {
        return "?";
    }
    return version;
}

void openURL(const std::string& url)
{
    // open(1) returns as soon as Launch Services has the URL; it is still not waited for.
    const char* opener = std::getenv("QUILLET_URL_OPENER");
    if (opener == nullptr || *opener == '\0') {
        opener = "/usr/bin/open";
    }
    pid_t child = 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Only the three standard descriptors reach the opener, whatever else this process has open.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_CLOEXEC_DEFAULT);
    const char* argv[] = {opener, url.c_str(), nullptr};
    int spawned = posix_spawnp(&child, opener, &actions, &attributes, const_cast<char* const*>(argv),
                               Process::environment());
    posix_spawnattr_destroy(&attributes);
    if (spawned == 0) {
        // Reap it in the background so that it leaves no zombie.
        std::thread([child] {
            int status = 0;
            waitpid(child, &status, 0);
        }).detach();
    }
    posix_spawn_file_actions_destroy(&actions);
}

void systemLog(const std::string& message)
{
    os_log(OS_LOG_DEFAULT, "%{public}s", message.c_str());
}

} // namespace System
} // namespace quillet
