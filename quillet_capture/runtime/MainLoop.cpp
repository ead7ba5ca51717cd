#include "quillet_capture/runtime/MainLoop.hpp"

#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace quillet::runtime {

namespace {

std::thread::id mainThreadId;

struct ExitHooks {
    std::mutex lock;
    std::vector<std::function<void()>> hooks;
};

ExitHooks& exitHooks()
{
    static auto* hooks = new ExitHooks; // never destroyed: used while the process ends
    return *hooks;
}

} // namespace

asio::io_context& mainContext()
{
    static auto* context = new asio::io_context(1);
    return *context;
}

void onMain(std::function<void()> work)
{
    asio::post(mainContext(), std::move(work));
}

void markMainThread()
{
    mainThreadId = std::this_thread::get_id();
}

bool isMainThread()
{
    return std::this_thread::get_id() == mainThreadId;
}

void runMainLoop()
{
    auto& context = mainContext();
    auto guard = asio::make_work_guard(context);
    context.run();
    exitProcess(0);
}

void handleSignal(int signo, std::function<void()> handler)
{
    // Ignoring first means that a signal arriving before the set is armed cannot kill the
    // process with the default action.
    std::signal(signo, SIG_IGN);
    auto signals = std::make_shared<asio::signal_set>(mainContext(), signo);
    auto callback = std::make_shared<std::function<void(const std::error_code&, int)>>();
    *callback = [signals, handler = std::move(handler), weak = std::weak_ptr(callback)](
                    const std::error_code& error, int) {
        if (error) {
            return;
        }
        handler();
        if (auto self = weak.lock()) {
            signals->async_wait(*self);
        }
    };
    signals->async_wait(*callback);
    // The set lives as long as the process; keep it and its callback reachable.
    static std::vector<std::shared_ptr<void>> keep;
    keep.push_back(signals);
    keep.push_back(callback);
}

void addExitHook(std::function<void()> hook)
{
    auto& hooks = exitHooks();
    std::lock_guard guard(hooks.lock);
    hooks.hooks.push_back(std::move(hook));
}

void exitProcess(int status)
{
    // One hook at a time is copied out and run without the lock, and each copy is gone before
    // _Exit: a copy of the whole list would be left behind, unreachable, as a leak.
    auto& all = exitHooks();
    for (std::size_t i = 0;; ++i) {
        std::function<void()> hook;
        {
            std::lock_guard guard(all.lock);
            if (i >= all.hooks.size()) {
                break;
            }
            hook = all.hooks[i];
        }
        hook();
    }
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}

} // namespace quillet::runtime
