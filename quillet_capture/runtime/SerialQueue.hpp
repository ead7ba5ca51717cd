#pragma once

#include <asio/io_context.hpp>

#include <functional>
#include <future>
#include <string>
#include <thread>
#include <type_traits>

namespace quillet::runtime {

/// A named serial queue: one thread of its own that runs the queued work in order. Work on
/// one queue never overlaps; timers bound to `executor()` fire on the queue's thread.
class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    /// Queues `work` and returns at once. Safe from any thread.
    void async(std::function<void()> work);

    /// Runs `work` on the queue and returns its result (or rethrows its exception). Runs it
    /// inline when called from the queue itself, so nested calls cannot deadlock.
    template <typename F>
    auto sync(F&& work) -> std::invoke_result_t<F>
    {
        if (isCurrent()) {
            return work();
        }
        std::packaged_task<std::invoke_result_t<F>()> task(std::forward<F>(work));
        auto result = task.get_future();
        async([&task] { task(); });
        return result.get();
    }

    /// Waits until everything queued before this call has run. Returns at once on the queue.
    void drain();

    /// True when the caller runs on this queue's thread.
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

    asio::io_context::executor_type executor() { return context_.get_executor(); }

private:
    std::string label_;
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
};

} // namespace quillet::runtime
