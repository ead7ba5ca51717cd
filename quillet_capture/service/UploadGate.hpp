#pragma once

#include <asio/awaitable.hpp>

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace quillet {

/// An asynchronous first-come-first-served lock for coroutines: uploads take it so that only
/// one runs at a time in the whole process. Waiting suspends the coroutine without holding a
/// thread. Safe from any thread.
class UploadGate {
public:
    UploadGate() = default;
    UploadGate(const UploadGate&) = delete;
    UploadGate& operator=(const UploadGate&) = delete;

    /// Completes at once when the gate is free (and takes it); otherwise suspends until every
    /// earlier waiter has had its turn and the gate is handed over. Cannot fail. The waiter
    /// resumes on its own executor.
    asio::awaitable<void> acquire();

    /// Hands the gate to the longest waiter (it stays taken), or frees it when nobody waits.
    /// Must be called exactly once per completed acquire().
    void release();

    /// Queues release() as a task of its own on the utility executor and returns at once, so
    /// that a holder leaving by any path does not wait for the hand-over.
    void releaseLater();

    /// Whether an upload holds the gate, and how many wait; for status and tests.
    bool busy() const;
    std::size_t waiting() const;

private:
    mutable std::mutex lock_;
    bool busy_ = false;
    std::deque<std::function<void()>> waiters_;
};

} // namespace quillet
