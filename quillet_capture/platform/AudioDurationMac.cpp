#include "quillet_capture/platform/AudioDuration.hpp"

#include "quillet_capture/capture/CaptureGuards.hpp"
#include "quillet_capture/platform/Process.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace quillet::AudioDuration {

namespace {

constexpr const char* kAfinfo = "/usr/bin/afinfo";

bool isValidUtf8(const std::string& text)
{
    size_t i = 0;
    while (i < text.size()) {
        auto byte = static_cast<unsigned char>(text[i]);
        size_t length = 0;
        char32_t point = 0;
        if (byte < 0x80) {
            ++i;
            continue;
        } else if ((byte & 0xE0) == 0xC0) {
            length = 2;
            point = byte & 0x1F;
        } else if ((byte & 0xF0) == 0xE0) {
            length = 3;
            point = byte & 0x0F;
        } else if ((byte & 0xF8) == 0xF0) {
            length = 4;
            point = byte & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (size_t k = 1; k < length; ++k) {
            auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            point = (point << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and values beyond U+10FFFF are not UTF-8.
        static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < kSmallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

// Runs afinfo with its standard output in a pipe; absent when it cannot be started or does
// not exit with status 0.
std::optional<std::string> runAfinfo(const std::filesystem::path& file)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return std::nullopt;
    }
    // Another thread may start a child at the same moment; a write end inherited by that
    // child would keep the pipe open and the read below from ever seeing its end.
    fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    fcntl(fds[1], F_SETFD, FD_CLOEXEC);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Only the three standard descriptors reach afinfo, whatever else this process has open.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_CLOEXEC_DEFAULT);

    std::string path = file.string();
    const char* argv[] = {kAfinfo, "-b", path.c_str(), nullptr};
    pid_t child = 0;
    int spawned = posix_spawn(&child, kAfinfo, &actions, &attributes, const_cast<char* const*>(argv),
                                Process::environment());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(fds[1]);
    if (spawned != 0) {
        close(fds[0]);
        return std::nullopt;
    }

    // Read to the end before waiting: a child that fills the pipe would otherwise never exit.
    std::string output;
    char buffer[4096];
    for (;;) {
        ssize_t count = ::read(fds[0], buffer, sizeof buffer);
        if (count > 0) {
            output.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    close(fds[0]);

    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::nullopt;
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return output;
}

} // namespace

std::optional<double> read(const std::filesystem::path& file)
{
    auto output = runAfinfo(file);
    if (!output) {
        return std::nullopt;
    }
    if (!isValidUtf8(*output)) {
        output->clear();
    }
    return CaptureGuards::parseDuration(*output);
}

} // namespace quillet::AudioDuration
