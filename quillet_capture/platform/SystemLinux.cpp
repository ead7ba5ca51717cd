#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <cerrno>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace quillet {

Platform Paths::current()
{
    return Platform::linux;
}

namespace System {

std::string hostName()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "?";
    }
    return name;
}

std::string osName()
{
    utsname info{};
    return uname(&info) == 0 ? info.sysname : "Linux";
}

bool hasVoiceMemos()
{
    return false;
}

std::vector<std::string> recorderFolders()
{
    // GNOME Sound Recorder (older releases in ~/Recordings, newer ones in their data folder,
    // also under Flatpak), KDE's recorders under Music, and the "Sound Recordings" folder some
    // recorders make in Documents.
    return {"~/Recordings",
            "~/.local/share/org.gnome.SoundRecorder",
            "~/.var/app/org.gnome.SoundRecorder/data/org.gnome.SoundRecorder",
            "~/Music/Recordings",
            "~/Documents/Sound Recordings"};
}

std::string osVersion()
{
    utsname info{};
    return uname(&info) == 0 ? info.release : "?";
}

void openURL(const std::string& url)
{
    // xdg-open may block until a browser exits, so it is never waited for; a double fork
    // leaves no zombie behind.
    pid_t child = fork();
    if (child == 0) {
        if (fork() != 0) {
            _exit(0);
        }
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        // The browser keeps nothing of ours open: not the log, not a connection to the service.
        closefrom(STDERR_FILENO + 1);
        const char* opener = std::getenv("QUILLET_URL_OPENER");
        if (opener == nullptr || *opener == '\0') {
            opener = "xdg-open";
        }
        execlp(opener, opener, url.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (child > 0) {
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

void systemLog(const std::string& message)
{
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("quillet-capture", LOG_PID, LOG_USER); });
    syslog(LOG_NOTICE, "%s", message.c_str());
}

} // namespace System
} // namespace quillet
