#include "quillet_capture/platform/AgentLock.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace quillet {

std::filesystem::path AgentLock::file()
{
    return Paths::stateFile().parent_path() / "agent.lock";
}

AgentLock AgentLock::take()
{
    const auto path = file();
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    int fd = openRegularFile(path, O_RDWR | O_CREAT, 0600);
    if (fd < 0) {
        return {-1, std::nullopt};
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            ::close(fd);
            return {-1, std::nullopt};
        }
        char text[32] = {};
        ssize_t got = ::pread(fd, text, sizeof text - 1, 0);
        ::close(fd);
        long pid = got > 0 ? std::strtol(text, nullptr, 10) : 0;
        return {-1, pid > 0 ? pid : 0};
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        [[maybe_unused]] auto written = ::pwrite(fd, pid.data(), pid.size(), 0);
    }
    return {fd, std::nullopt};
}

AgentLock::AgentLock(AgentLock&& other) noexcept : fd_(other.fd_), holder_(other.holder_)
{
    other.fd_ = -1;
}

AgentLock::~AgentLock()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

} // namespace quillet
