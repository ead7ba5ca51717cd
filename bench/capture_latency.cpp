// How soon a recording shows up in the vault: the built program's `run` with the default
// 30-second poll and uploads off, in a scratch home whose Voice Memos folder receives
// recordings renamed into it (as a sync finishing a file does) at random moments, a few
// seconds apart so that they fall all over the poll's period. For each, the time from the
// rename to its note in the vault.
// Budget: median at most 2.5 s and worst at most 4 s (the capture waits 2 s for the file's
// size to settle; a poll alone would take 15 s at the median and 30 s at worst).
//
// Usage: bench_capture_latency [recordings]   (default 12, at least 10)

#include "bench/AgentBench.hpp"

#include <signal.h>

#include <random>
#include <thread>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv)
{
    int count = argc > 1 ? std::max(10, std::atoi(argv[1])) : 12;
    fs::path memos = bench::agentHome("quillet-bench-latency");
    fs::path home = std::getenv("HOME");
    fs::path staging = home / "staging";
    fs::create_directories(staging);

    pid_t agent = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "run");
    bench::waitForLog("capture: coordinator started", 20, "agent started");
    bench::waitForLog("access -> Voice Memos", 20, "agent's first poll");

    std::mt19937 random(7);
    std::uniform_real_distribution<double> pause(1.0, 9.0);
    std::vector<double> latencies;
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::duration<double>(pause(random)));
        auto name = bench::memoName(i);
        std::ofstream(staging / name) << "a recording of the benchmark, number " << i << std::string(64 * 1024, 'r');
        auto start = Clock::now();
        fs::rename(staging / name, memos / name);
        latencies.push_back(bench::secondsToNotes(home, i + 1, start));
        std::printf("  recording %d: %.2f s\n", i + 1, latencies.back());
    }
    ::kill(agent, SIGTERM);
    int status = 0;
    ::waitpid(agent, &status, 0);

    double median = bench::median(latencies);
    double worst = *std::max_element(latencies.begin(), latencies.end());
    std::printf("rename to note over %d recordings, median %.2f s (budget at most 2.5 s) %s\n", count, median,
                bench::verdict(median <= 2.5));
    std::printf("rename to note over %d recordings, worst %.2f s (budget at most 4 s) %s\n", count, worst,
                bench::verdict(worst <= 4.0));
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return 0;
}
