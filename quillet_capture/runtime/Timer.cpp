#include "quillet_capture/runtime/Timer.hpp"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>

namespace quillet::runtime {

struct Timer::State : std::enable_shared_from_this<State> {
    State(asio::any_io_executor executor, Duration interval, std::function<void()> fire)
        : timer(executor)
        , interval(interval)
        , fire(std::move(fire))
    {
    }

    void arm(Duration delay)
    {
        timer.expires_after(delay);
        timer.async_wait([self = shared_from_this()](const std::error_code& error) {
            if (error || self->cancelled) {
                return;
            }
            self->fire();
            if (self->interval > Duration::zero() && !self->cancelled) {
                self->arm(self->interval);
            }
        });
    }

    asio::steady_timer timer;
    Duration interval;
    std::function<void()> fire;
    std::atomic<bool> cancelled{false};
};

Timer::Timer(asio::any_io_executor executor, Duration firstDelay, Duration interval, std::function<void()> fire)
    : state_(std::make_shared<State>(executor, interval, std::move(fire)))
{
    // Arm on the timer's own executor: asio timers are not safe to touch from two threads.
    asio::post(executor, [state = state_, firstDelay] {
        if (!state->cancelled) {
            state->arm(firstDelay);
        }
    });
}

Timer::~Timer()
{
    cancel();
}

void Timer::cancel()
{
    if (state_->cancelled.exchange(true)) {
        return;
    }
    asio::post(state_->timer.get_executor(), [state = state_] { state->timer.cancel(); });
}

} // namespace quillet::runtime
