#include "quillet_capture/service/UploadGate.hpp"

#include "quillet_capture/runtime/Tasks.hpp"

#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>

#include <memory>

namespace quillet {

asio::awaitable<void> UploadGate::acquire()
{
    {
        std::lock_guard guard(lock_);
        if (!busy_) {
            busy_ = true;
            co_return;
        }
    }
    auto enqueue = [this](auto handler) {
        std::unique_lock guard(lock_);
        auto resume = [shared = std::make_shared<decltype(handler)>(std::move(handler))] {
            auto executor = asio::get_associated_executor(*shared);
            asio::post(executor, std::move(*shared));
        };
        if (!busy_) {
            // Released between the first look and now.
            busy_ = true;
            guard.unlock();
            resume();
            return;
        }
        waiters_.push_back(std::move(resume));
    };
    co_await asio::async_initiate<decltype(asio::use_awaitable), void()>(std::move(enqueue), asio::use_awaitable);
}

void UploadGate::release()
{
    std::function<void()> next;
    {
        std::lock_guard guard(lock_);
        if (waiters_.empty()) {
            busy_ = false;
            return;
        }
        next = std::move(waiters_.front());
        waiters_.pop_front();
    }
    next();
}

void UploadGate::releaseLater()
{
    asio::post(runtime::utilityExecutor(), [this] { release(); });
}

bool UploadGate::busy() const
{
    std::lock_guard guard(lock_);
    return busy_;
}

std::size_t UploadGate::waiting() const
{
    std::lock_guard guard(lock_);
    return waiters_.size();
}

} // namespace quillet
