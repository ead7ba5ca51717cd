// What the Voice Memos library costs the agent. First, in this process: a library of 5,000
// recordings in WAL mode (its rows in the -wal, its writer connection open, as while Voice
// Memos runs), looked at again while unchanged, as every poll does, against one full read of
// its rows. Then the built program's `run` beside that library: a new recording's row is
// written and its .qta renamed into the folder, a few seconds apart; for each, the time from
// the rename to its note (a .qta without the library waits ten minutes).
// Budgets: an unchanged library under 1 ms per poll with no row read; rename to note at the
// median at most 2.5 s and at worst at most 4 s (those of capture_latency).
//
// Usage: bench_library_poll [recordings]   (default 10, at least 5)

#include "bench/AgentBench.hpp"
#include "bench/LibraryBench.hpp"

#include "quillet_capture/library/VoiceMemosLibrary.hpp"

#include <signal.h>

#include <random>
#include <thread>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double microseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

} // namespace

int main(int argc, char** argv)
{
    int count = argc > 1 ? std::max(5, std::atoi(argv[1])) : 10;
    fs::path memos = bench::agentHome("quillet-bench-library");
    fs::path home = std::getenv("HOME");
    sqlite3* db = bench::makeLibrary(memos);

    // 1. An unchanged library, looked at again; a full read of it as the baseline.
    std::vector<double> fullReads;
    for (int round = 0; round < 5; ++round) {
        quillet::VoiceMemosLibrary library(memos, home / "copies");
        auto start = Clock::now();
        library.refresh();
        fullReads.push_back(microseconds(Clock::now() - start));
        bench::check(library.recordings().size() == bench::kLibraryRows, "every row read");
    }
    quillet::VoiceMemosLibrary library(memos, home / "copies");
    library.refresh();
    std::vector<double> polls;
    for (int round = 0; round < 2000; ++round) {
        auto start = Clock::now();
        bench::check(!library.refresh(), "an unchanged library");
        polls.push_back(microseconds(Clock::now() - start));
    }
    double poll = bench::median(polls);
    double fullRead = bench::median(fullReads);
    bool noRead = library.reads() == 1;
    std::printf("unchanged library of %d rows: %.1f us per poll against a full read of %.0f us, ratio %.4f "
                "(budget under 1 ms per poll, no row read) %s\n",
                bench::kLibraryRows, poll, fullRead, poll / fullRead, bench::verdict(poll < 1000 && noRead));

    // 2. The agent beside it: a new row, then its .qta renamed in.
    fs::path staging = home / "staging";
    fs::create_directories(staging);
    pid_t agent = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "run");
    bench::waitForLog("capture: coordinator started", 20, "agent started");
    bench::waitForLog("access -> Voice Memos", 20, "agent's first poll");
    std::mt19937 random(11);
    std::uniform_real_distribution<double> pause(1.0, 6.0);
    std::vector<double> latencies;
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::duration<double>(pause(random)));
        auto name = bench::memoName(i);
        name.replace(name.size() - 4, 4, ".qta");
        std::ofstream(staging / name) << "a recording of the benchmark, number " << i << std::string(64 * 1024, 'q');
        bench::addLibraryRow(db, bench::kLibraryRows + i, name);
        auto start = Clock::now();
        fs::rename(staging / name, memos / name);
        latencies.push_back(bench::secondsToNotes(home, i + 1, start));
        std::printf("  recording %d: %.2f s\n", i + 1, latencies.back());
    }
    ::kill(agent, SIGTERM);
    int status = 0;
    ::waitpid(agent, &status, 0);
    sqlite3_close(db);

    double median = bench::median(latencies);
    double worst = *std::max_element(latencies.begin(), latencies.end());
    std::printf("listed .qta, rename to note over %d recordings, median %.2f s (budget at most 2.5 s) %s\n", count,
                median, bench::verdict(median <= 2.5));
    std::printf("listed .qta, rename to note over %d recordings, worst %.2f s (budget at most 4 s) %s\n", count, worst,
                bench::verdict(worst <= 4.0));
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return 0;
}
