#pragma once

#include <filesystem>
#include <optional>

namespace quillet {

/// The lock that lets one agent at a time work on a state folder: an exclusive flock on
/// `agent.lock` beside `state.json`, which holds the holder's process id. The system releases
/// it when the holder ends, however it ends. The descriptor is close-on-exec, so a child
/// (the after-transcript command) never keeps it.
class AgentLock {
public:
    /// Takes the lock without waiting (but for the holder's id, see `holder`). Where the lock file cannot be made or the volume has no
    /// locks, the lock counts as taken: a lock that cannot exist must not stop the agent.
    static AgentLock take();

    AgentLock(AgentLock&& other) noexcept;
    AgentLock& operator=(AgentLock&&) = delete;
    AgentLock(const AgentLock&) = delete;
    ~AgentLock();

    /// False when another process holds the lock.
    bool taken() const { return !holder_; }
    /// The process id of the holder when another process holds the lock. A holder that has
    /// only just taken it is given up to 2 seconds to write its id; 0 when none could be read
    /// by then.
    std::optional<long> holder() const { return holder_; }

    /// The lock file.
    static std::filesystem::path file();

    /// The process id of the agent that holds the lock now, however it was started; none when
    /// no agent holds it. Looks without taking the lock and writes nothing: only when the file
    /// names a living process is the lock tried (shared, not waiting, let go at once), so that
    /// an agent starting at that moment is not refused.
    static std::optional<long> runningAgent();

private:
    AgentLock(int fd, std::optional<long> holder) : fd_(fd), holder_(holder) {}

    int fd_ = -1;
    std::optional<long> holder_;
};

} // namespace quillet
