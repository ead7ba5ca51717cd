#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/UploadGate.hpp"

#include "tests/support/Scratch.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

namespace quillet {
namespace {

struct Journal {
    std::mutex lock;
    std::vector<std::string> entries;

    void add(std::string entry)
    {
        std::lock_guard guard(lock);
        entries.push_back(std::move(entry));
    }
    std::vector<std::string> snapshot()
    {
        std::lock_guard guard(lock);
        return entries;
    }
};

// Takes the gate, notes it, and holds it until `leave` is set.
asio::awaitable<void> holder(UploadGate& gate, Journal& journal, std::string name, std::atomic<bool>& leave)
{
    co_await gate.acquire();
    journal.add(name);
    while (!leave.load()) {
        auto nap = [] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); };
        co_await runtime::blocking(std::move(nap));
    }
    gate.release();
}

TEST(UploadGate, ServesWaitersFirstComeFirstServedOneAtATime)
{
    UploadGate gate;
    Journal journal;
    std::atomic<bool> leave[4] = {false, false, false, false};
    const char* names[4] = {"a", "b", "c", "d"};
    for (int i = 0; i < 4; ++i) {
        asio::co_spawn(runtime::utilityExecutor(), holder(gate, journal, names[i], leave[i]), asio::detached);
        if (i == 0) {
            ASSERT_TRUE(test::eventually([&] { return journal.snapshot().size() == 1; }));
        } else {
            ASSERT_TRUE(test::eventually([&] { return gate.waiting() == static_cast<std::size_t>(i); }));
        }
    }
    EXPECT_TRUE(gate.busy());
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(journal.snapshot().size(), static_cast<std::size_t>(i + 1));
        leave[i] = true;
        if (i < 3) {
            ASSERT_TRUE(test::eventually([&] { return journal.snapshot().size() == static_cast<std::size_t>(i + 2); }));
            EXPECT_TRUE(gate.busy()) << "the gate passes straight to the next waiter";
        }
    }
    EXPECT_THAT(journal.snapshot(), ::testing::ElementsAre("a", "b", "c", "d"));
    EXPECT_TRUE(test::eventually([&] { return !gate.busy(); }));
}

TEST(UploadGate, ReleaseLaterFreesTheGateOnItsOwn)
{
    UploadGate gate;
    std::atomic<int> passed{0};
    auto task = [](UploadGate& g, std::atomic<int>& count) -> asio::awaitable<void> {
        co_await g.acquire();
        ++count;
        g.releaseLater();
    };
    for (int i = 0; i < 50; ++i) {
        asio::co_spawn(runtime::utilityExecutor(), task(gate, passed), asio::detached);
    }
    EXPECT_TRUE(test::eventually([&] { return passed.load() == 50; }));
    EXPECT_TRUE(test::eventually([&] { return !gate.busy() && gate.waiting() == 0; }));
}

} // namespace
} // namespace quillet
