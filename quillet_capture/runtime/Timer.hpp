#pragma once

#include <asio/any_io_executor.hpp>

#include <chrono>
#include <functional>
#include <memory>

namespace quillet::runtime {

/// A timer that calls `fire` on its executor first after `firstDelay`, then every `interval`
/// (interval zero: once). Destroying or cancelling it stops further calls; a call already
/// running finishes. Safe to cancel from any thread.
class Timer {
public:
    using Duration = std::chrono::steady_clock::duration;

    Timer(asio::any_io_executor executor, Duration firstDelay, Duration interval, std::function<void()> fire);
    ~Timer();

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void cancel();

    /// A timer that fires once.
    static std::unique_ptr<Timer> once(asio::any_io_executor executor, Duration delay, std::function<void()> fire)
    {
        return std::make_unique<Timer>(std::move(executor), delay, Duration::zero(), std::move(fire));
    }

    /// A timer that fires after `firstDelay` and then every `interval`.
    static std::unique_ptr<Timer> repeating(asio::any_io_executor executor, Duration firstDelay, Duration interval,
                                            std::function<void()> fire)
    {
        return std::make_unique<Timer>(std::move(executor), firstDelay, interval, std::move(fire));
    }

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace quillet::runtime
