#pragma once

#include <asio/awaitable.hpp>

#include <chrono>

namespace quillet::runtime {

/// Where the program reads the time and waits. Everything that waits for a fixed interval
/// (stability samples, pairing polls, polling back-off, the retry gap) takes a Clock so that
/// tests can run those waits in virtual time.
class Clock {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Seconds = std::chrono::duration<double>;

    virtual ~Clock() = default;

    /// The current wall-clock time.
    virtual TimePoint now() const = 0;

    /// Blocks the calling thread for `duration`. For code that runs on a serial queue.
    virtual void sleep(Seconds duration) = 0;

    /// Suspends the calling coroutine for `duration` without holding a thread.
    virtual asio::awaitable<void> wait(Seconds duration) = 0;
};

/// The real clock: system time, real sleeps, asio timers.
Clock& systemClock();

} // namespace quillet::runtime
