#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/awaitable.hpp>
#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_awaitable.hpp>

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>

namespace quillet::runtime {

/// The utility executor: a small pool on which asynchronous tasks (one per capture in flight)
/// run. Tasks suspend while they wait, so a thousand of them need no more threads.
asio::any_io_executor utilityExecutor();

/// The pool for blocking calls (HTTP requests, child processes): a fixed number of workers,
/// started on first use.
asio::thread_pool& blockingPool();

/// Called with the exception that escaped a spawned task and the task's name. The default
/// writes a line to standard error; the application replaces it with its log.
void setTaskFailureHandler(std::function<void(const std::string& name, std::exception_ptr)> handler);

/// Starts `task` on the utility executor and returns at once. An exception that escapes the
/// task goes to the task failure handler.
void spawn(asio::awaitable<void> task, std::string name = "task");

/// Runs the blocking function `work` on the blocking pool and resumes the calling coroutine
/// on its own executor with the result, or rethrows what `work` threw.
///
/// GCC 12 destroys a closure or braced temporary twice when it is created inside a co_await
/// expression as a by-value argument; so name a lambda before passing it here
/// (`auto work = [...] {...}; co_await blocking(std::move(work));`), as this function does with
/// its own initiation.
template <typename F>
auto blocking(F work) -> asio::awaitable<std::invoke_result_t<F>>
{
    using Result = std::invoke_result_t<F>;
    if constexpr (std::is_void_v<Result>) {
        auto initiation = [work = std::move(work)](auto handler) mutable {
            asio::post(blockingPool(), [work = std::move(work), handler = std::move(handler)]() mutable {
                std::exception_ptr error;
                try {
                    work();
                } catch (...) {
                    error = std::current_exception();
                }
                auto executor = asio::get_associated_executor(handler);
                asio::dispatch(executor, [handler = std::move(handler), error]() mutable { handler(error); });
            });
        };
        co_await asio::async_initiate<decltype(asio::use_awaitable), void(std::exception_ptr)>(std::move(initiation),
                                                                                             asio::use_awaitable);
    } else {
        auto initiation = [work = std::move(work)](auto handler) mutable {
            asio::post(blockingPool(), [work = std::move(work), handler = std::move(handler)]() mutable {
                std::exception_ptr error;
                std::optional<Result> value;
                try {
                    value.emplace(work());
                } catch (...) {
                    error = std::current_exception();
                }
                auto executor = asio::get_associated_executor(handler);
                asio::dispatch(executor, [handler = std::move(handler), error, value = std::move(value)]() mutable {
                    handler(error, std::move(value));
                });
            });
        };
        auto result = co_await asio::async_initiate<decltype(asio::use_awaitable),
                                                    void(std::exception_ptr, std::optional<Result>)>(
            std::move(initiation), asio::use_awaitable);
        co_return std::move(*result);
    }
}

} // namespace quillet::runtime
