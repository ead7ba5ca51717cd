// A burst of recordings (a phone syncing a day of memos): the built program's `run` with the
// default 30-second poll and uploads off, and 100 recordings renamed into its Voice Memos
// folder at once. The time from the first rename until the 100th note is in the vault.
// Budget: at most 6 s (one 2-second wait for the files' sizes to settle serves the burst; one
// wait per recording would take over 200 s).
//
// Usage: bench_capture_burst [recordings]   (default 100)

#include "bench/AgentBench.hpp"

#include <signal.h>

#include <thread>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv)
{
    int count = argc > 1 ? std::max(2, std::atoi(argv[1])) : 100;
    fs::path memos = bench::agentHome("quillet-bench-burst");
    fs::path home = std::getenv("HOME");
    fs::path staging = home / "staging";
    fs::create_directories(staging);
    for (int i = 0; i < count; ++i) {
        std::ofstream(staging / bench::memoName(i)) << "a recording of the burst, number " << i
                                                    << std::string(64 * 1024, 'b');
    }

    pid_t agent = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "run");
    bench::waitForLog("capture: coordinator started", 20, "agent started");
    bench::waitForLog("access -> Voice Memos", 20, "agent's first poll");
    std::this_thread::sleep_for(std::chrono::seconds(3));  // away from the first poll

    auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        fs::rename(staging / bench::memoName(i), memos / bench::memoName(i));
    }
    while (bench::noteCount(home) < count && Clock::now() - start < std::chrono::seconds(300)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    int notes = bench::noteCount(home);
    ::kill(agent, SIGTERM);
    int status = 0;
    ::waitpid(agent, &status, 0);

    bench::check(notes == count, "every note within five minutes");
    std::printf("%d recordings renamed in at once, until the last note %.2f s, %.3f s per recording (budget at most "
                "6 s) %s\n",
                count, seconds, seconds / count, bench::verdict(seconds <= 6.0));
    if (std::getenv("QUILLET_BENCH_KEEP") != nullptr) {
        std::printf("kept: %s\n", home.c_str());
    } else {
        std::error_code ignored;
        fs::remove_all(home, ignored);
    }
    return 0;
}
