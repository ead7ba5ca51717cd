#pragma once

#include <asio/io_context.hpp>

#include <functional>

namespace quillet::runtime {

/// The main event loop: it runs on the main thread once `runMainLoop` is called. Commands,
/// the SIGTERM handler and published status values run here.
asio::io_context& mainContext();

/// Queues `work` on the main event loop. Safe from any thread.
void onMain(std::function<void()> work);

/// True on the thread that called `markMainThread` (main() does, first thing).
bool isMainThread();
void markMainThread();

/// Runs the main event loop on the calling thread until the process ends. If the loop ever
/// runs out of work, the process ends with status 0.
[[noreturn]] void runMainLoop();

/// Handles `signo` on the main event loop instead of its default action: the signal is
/// ignored first, then every delivery calls `handler` on the main thread.
void handleSignal(int signo, std::function<void()> handler);

/// Registers work that must run before the process ends (the log drains its queue here).
/// Hooks run in the order they were added. Safe from any thread.
void addExitHook(std::function<void()> hook);

/// Runs the exit hooks, flushes standard output and error, and ends the process with
/// `status` without running static destructors (other threads may still be working).
[[noreturn]] void exitProcess(int status);

} // namespace quillet::runtime
