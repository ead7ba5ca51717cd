#pragma once

#include "quillet_capture/runtime/Clock.hpp"

#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <mutex>
#include <vector>

namespace quillet::test {

/// A clock in virtual time: sleeping and waiting advance it at once and are recorded.
class FakeClock final : public runtime::Clock {
public:
    explicit FakeClock(TimePoint start = TimePoint(std::chrono::seconds(1'700'000'000)))
        : now_(start)
    {
    }

    TimePoint now() const override
    {
        std::lock_guard guard(lock_);
        return now_;
    }

    void sleep(Seconds duration) override { advance(duration); }

    asio::awaitable<void> wait(Seconds duration) override
    {
        advance(duration);
        // Yield once, as a real wait would, so that other tasks get their turn.
        co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
    }

    void advance(Seconds duration)
    {
        std::lock_guard guard(lock_);
        now_ += std::chrono::duration_cast<std::chrono::system_clock::duration>(duration);
        waits_.push_back(duration.count());
    }

    /// The durations slept or waited, in seconds, in order.
    std::vector<double> waits() const
    {
        std::lock_guard guard(lock_);
        return waits_;
    }

private:
    mutable std::mutex lock_;
    TimePoint now_;
    std::vector<double> waits_;
};

} // namespace quillet::test
