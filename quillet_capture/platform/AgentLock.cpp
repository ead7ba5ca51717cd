#include "quillet_capture/platform/AgentLock.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace quillet {

namespace {

// How long a refused agent waits for the holder to have written its process id.
constexpr auto kHolderWait = std::chrono::seconds(2);
constexpr auto kHolderRetry = std::chrono::milliseconds(5);

// The process id the lock file holds when it names a living process other than this one.
std::optional<long> livingPid(int fd)
{
    char text[32] = {};
    ssize_t got = ::pread(fd, text, sizeof text - 1, 0);
    if (got <= 0) {
        return std::nullopt;
    }
    char* end = nullptr;
    long pid = std::strtol(text, &end, 10);
    if (end == text || *end != '\n' || pid <= 0 || pid == static_cast<long>(::getpid())) {
        return std::nullopt;
    }
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) {
        return std::nullopt;
    }
    return pid;
}

// The holder takes the lock first and writes its id after, and the file may still hold the id
// of an agent that has ended; an agent started in the same instant would read an empty file or
// a dead id. So the id counts only once it is whole (ends in a line break) and names a living
// process, and the refused agent waits a moment for that.
long holderPid(int fd)
{
    auto deadline = std::chrono::steady_clock::now() + kHolderWait;
    for (;;) {
        if (auto pid = livingPid(fd)) {
            return *pid;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return 0;
        }
        std::this_thread::sleep_for(kHolderRetry);
    }
}

} // namespace

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
        long pid = holderPid(fd);
        ::close(fd);
        return {-1, pid};
    }
    // Written over the old id before the rest is cut, so that a reader never finds the file
    // empty; the line break it ends with tells a whole id from one being written.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::pwrite(fd, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size())) {
        [[maybe_unused]] int cut = ::ftruncate(fd, static_cast<off_t>(pid.size()));
    }
    return {fd, std::nullopt};
}

std::optional<long> AgentLock::runningAgent()
{
    int fd = openRegularFile(file(), O_RDONLY);
    if (fd < 0) {
        return std::nullopt;
    }
    auto pid = livingPid(fd);
    if (pid && ::flock(fd, LOCK_SH | LOCK_NB) == 0) {
        // The id is an old one that another process has since been given.
        ::flock(fd, LOCK_UN);
        pid.reset();
    }
    ::close(fd);
    return pid;
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
