#include "quillet_capture/runtime/Clock.hpp"

#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <thread>

namespace quillet::runtime {

namespace {

class SystemClock final : public Clock {
public:
    TimePoint now() const override { return std::chrono::system_clock::now(); }

    void sleep(Seconds duration) override
    {
        if (duration.count() > 0) {
            std::this_thread::sleep_for(duration);
        }
    }

    asio::awaitable<void> wait(Seconds duration) override
    {
        asio::steady_timer timer(co_await asio::this_coro::executor);
        timer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(duration));
        co_await timer.async_wait(asio::use_awaitable);
    }
};

} // namespace

Clock& systemClock()
{
    static SystemClock clock;
    return clock;
}

} // namespace quillet::runtime
