#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/runtime/Timer.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>

namespace quillet::runtime {
namespace {

TEST(SerialQueue, RunsWorkInOrderOneAtATime)
{
    SerialQueue queue("quillet.test.order");
    std::vector<int> seen;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 100; ++i) {
        queue.async([&, i] {
            if (running.fetch_add(1) != 0) {
                overlapped = true;
            }
            seen.push_back(i);
            running.fetch_sub(1);
        });
    }
    queue.drain();
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(seen[i], i);
    }
}

TEST(SerialQueue, SyncReturnsResultsRethrowsAndNestsWithoutDeadlock)
{
    SerialQueue queue("quillet.test.sync");
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    int nested = queue.sync([&] { return queue.sync([&] { return queue.isCurrent() ? 1 : 0; }); });
    EXPECT_EQ(nested, 1);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(Timer, RepeatsUntilCancelledAndOneShotFiresOnce)
{
    SerialQueue queue("quillet.test.timer");
    std::atomic<int> ticks{0};
    std::atomic<int> once{0};
    auto repeating = Timer::repeating(queue.executor(), std::chrono::milliseconds(1), std::chrono::milliseconds(5),
                                      [&] { ++ticks; });
    auto single = Timer::once(queue.executor(), std::chrono::milliseconds(1), [&] { ++once; });
    ASSERT_TRUE(test::eventually([&] { return ticks.load() >= 3; }));
    repeating->cancel();
    queue.drain();
    int afterCancel = ticks.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    queue.drain();
    EXPECT_EQ(ticks.load(), afterCancel);
    EXPECT_EQ(once.load(), 1);
}

TEST(Timer, DestroyedBeforeFiringNeverFires)
{
    SerialQueue queue("quillet.test.timer2");
    std::atomic<int> fired{0};
    {
        auto timer = Timer::once(queue.executor(), std::chrono::milliseconds(20), [&] { ++fired; });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    queue.drain();
    EXPECT_EQ(fired.load(), 0);
}

TEST(Tasks, BlockingWorkReturnsToTheTaskAndExceptionsPropagate)
{
    std::promise<std::string> done;
    // Coroutine lambdas take what they use as parameters: captures die with the closure.
    spawn([](std::promise<std::string>& done) -> asio::awaitable<void> {
        int value = co_await blocking([] { return 20; });
        std::string message;
        try {
            co_await blocking([]() -> int { throw std::runtime_error("disk gone"); });
        } catch (const std::exception& e) {
            message = e.what();
        }
        co_await blocking([] {});
        done.set_value(std::to_string(value) + " " + message);
    }(done));
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), "20 disk gone");
}

TEST(Tasks, EscapingExceptionsReachTheFailureHandler)
{
    std::promise<std::string> reported;
    setTaskFailureHandler([&](const std::string& name, std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            reported.set_value(name + ": " + e.what());
        }
    });
    spawn([]() -> asio::awaitable<void> {
        throw std::runtime_error("lost");
        co_return;
    }(), "capture");
    auto result = reported.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), "capture: lost");
    setTaskFailureHandler(nullptr);
}

TEST(Tasks, ThousandSuspendedTasksNeedNoThreads)
{
    // Every task waits on a real timer; they all complete on the two utility threads.
    std::atomic<int> finished{0};
    for (int i = 0; i < 1000; ++i) {
        spawn([](std::atomic<int>& finished) -> asio::awaitable<void> {
            co_await systemClock().wait(std::chrono::milliseconds(20));
            ++finished;
        }(finished));
    }
    EXPECT_TRUE(test::eventually([&] { return finished.load() == 1000; }));
}

TEST(FakeClock, WaitsAdvanceVirtualTime)
{
    test::FakeClock clock;
    auto start = clock.now();
    std::promise<void> done;
    spawn([](test::FakeClock& clock, std::promise<void>& done) -> asio::awaitable<void> {
        co_await clock.wait(std::chrono::seconds(300));
        done.set_value();
    }(clock, done));
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    clock.sleep(std::chrono::seconds(2));
    EXPECT_EQ(clock.now() - start, std::chrono::seconds(302));
    EXPECT_EQ(clock.waits(), (std::vector<double>{300, 2}));
}

} // namespace
} // namespace quillet::runtime
