// The agent at rest: the built program's `run` in a scratch home whose Voice Memos folder holds
// 1,000 old recordings (indexed at the start, never captured) and a Voice Memos library of
// 5,000 recordings (its writer connection open, as while Voice Memos runs), and nothing new
// arrives. After
// 60 seconds its resident memory, threads and CPU time over that minute are read from the
// system (/proc on Linux, libproc on macOS). Baseline: the peak memory of the same program
// running `version` (the libraries and start-up alone).
// Budget: at most 8 MB resident and at most 8 threads; the CPU time is printed.
//
// Usage: bench_idle_agent [seconds]   (default 60)

#include "bench/AgentBench.hpp"
#include "bench/BenchSupport.hpp"
#include "bench/LibraryBench.hpp"

#include <sys/resource.h>

#include <thread>

using namespace quillet;
namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    fs::path memos = bench::agentHome("quillet-bench-idle");
    fs::path home = getenv("HOME");
    for (int i = 0; i < 1000; ++i) {
        std::ofstream(memos / bench::memoName(i)) << "recording " << i;
    }
    sqlite3* library = bench::makeLibrary(memos);

    // Baseline: `version`, to its end.
    pid_t version = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "version");
    int status = 0;
    rusage usage{};
    bench::check(::wait4(version, &status, 0, &usage) == version, "wait4");
    double versionPeak = static_cast<double>(bench::peakKiB(usage)) / 1024.0;

    pid_t agent = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "run");
    std::string pid = std::to_string(agent);
    bench::waitForLog("initial index complete (1000 existing files marked seen)", 10, "agent indexed the folder");
    auto before = bench::measure(pid);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    auto after = bench::measure(pid);
    ::kill(agent, SIGTERM);
    ::waitpid(agent, &status, 0);
    sqlite3_close(library);

    double rss = after.residentMiB;
    int threads = after.threads;
    double cpu = after.cpuSeconds - before.cpuSeconds;
    std::printf("idle agent after %d s, 1,000 files watched, a library of 5,000 rows: resident %.1f MiB (peak %.1f MiB), `version` peak %.1f "
                "MiB, ratio %.2f (budget at most 8 MiB) %s\n",
                seconds, rss, after.peakMiB, versionPeak, rss / versionPeak, bench::verdict(rss <= 8.0));
    if (after.anonymousMiB && after.fileMiB && after.proportionalMiB) {
        std::printf("  of which anonymous (the program's own) %.1f MiB, file-backed (mapped libraries and program) "
                    "%.1f MiB; proportional share %.1f MiB\n",
                    *after.anonymousMiB, *after.fileMiB, *after.proportionalMiB);
    }
    std::printf("idle agent threads %d, `version` 1, ratio %.2f (budget at most 8) %s\n", threads,
                static_cast<double>(threads), bench::verdict(threads <= 8));
    std::printf("idle agent CPU over %d s: %.1f ms (%.4f%% of one core); exit status after SIGTERM %d\n", seconds,
                cpu * 1000, 100.0 * cpu / seconds, WIFEXITED(status) ? WEXITSTATUS(status) : -1);

    std::error_code ignored;
    fs::remove_all(home, ignored);
    return 0;
}
