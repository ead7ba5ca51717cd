#include "quillet_capture/runtime/Tasks.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>

#include <cstdio>
#include <mutex>

namespace quillet::runtime {

namespace {

// Two utility threads match the machines the agent runs on; tasks spend their lives
// suspended, so more would only add idle threads.
constexpr int kUtilityThreads = 2;
// Like a browser's per-host limit: enough for one upload beside several status polls.
constexpr int kBlockingThreads = 6;

std::mutex handlerLock;
std::function<void(const std::string&, std::exception_ptr)> failureHandler;

void reportFailure(const std::string& name, std::exception_ptr error)
{
    std::function<void(const std::string&, std::exception_ptr)> handler;
    {
        std::lock_guard guard(handlerLock);
        handler = failureHandler;
    }
    if (handler) {
        handler(name, error);
        return;
    }
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "task %s failed: %s\n", name.c_str(), e.what());
    } catch (...) {
        std::fprintf(stderr, "task %s failed\n", name.c_str());
    }
}

} // namespace

asio::any_io_executor utilityExecutor()
{
    // Never destroyed: tasks may still be suspended on it when the process ends.
    static auto* pool = new asio::thread_pool(kUtilityThreads);
    return pool->get_executor();
}

asio::thread_pool& blockingPool()
{
    static auto* pool = new asio::thread_pool(kBlockingThreads);
    return *pool;
}

void setTaskFailureHandler(std::function<void(const std::string&, std::exception_ptr)> handler)
{
    std::lock_guard guard(handlerLock);
    failureHandler = std::move(handler);
}

void spawn(asio::awaitable<void> task, std::string name)
{
    asio::co_spawn(utilityExecutor(), std::move(task), [name = std::move(name)](std::exception_ptr error) {
        if (error) {
            reportFailure(name, error);
        }
    });
}

} // namespace quillet::runtime
