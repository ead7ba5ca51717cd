#include "quillet_capture/runtime/SerialQueue.hpp"

#include <asio/post.hpp>

#include <pthread.h>

namespace quillet::runtime {

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label))
    , context_(1)
    , guard_(asio::make_work_guard(context_))
{
    thread_ = std::thread([this] {
#if defined(__APPLE__)
        pthread_setname_np(label_.c_str());
#else
        // Linux allows 15 characters; the end of a label is the distinctive part.
        auto name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
        pthread_setname_np(pthread_self(), name.c_str());
#endif
        context_.run();
    });
}

SerialQueue::~SerialQueue()
{
    guard_.reset();
    context_.stop();
    if (thread_.joinable()) {
        if (isCurrent()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
}

void SerialQueue::async(std::function<void()> work)
{
    asio::post(context_, std::move(work));
}

void SerialQueue::drain()
{
    sync([] {});
}

} // namespace quillet::runtime
