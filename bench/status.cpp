// `quillet-capture status` over an inbox of 10,000 notes against `grep -r -m1 vd_job_status`
// over the same notes, each run as a whole process, in alternation over warm files; prints
// both medians and their ratio. Budget: at most 2x.
//
// The notes are a mix like a real inbox: stubs, and notes whose transcripts run from 2 to 40 KB.
//
// Usage: bench_status [rounds]   (default 7)

#include "bench/BenchCommon.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kNotes = 10'000;

// Milliseconds that `arguments` ran, which must end with `expected`.
double timed(const std::vector<std::string>& arguments, int expected)
{
    auto run = bench::spawnAndWait(arguments);
    if (run.status != expected) {
        std::printf("status: %s ended with %d\n", arguments.front().c_str(), run.status);
        std::exit(1);
    }
    return run.seconds * 1000;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    fs::path home = bench::scratchHome("quillet-bench-status");
    fs::path vault = fs::path(home) / "vault";
    fs::path inbox = vault / "_inbox";
    fs::create_directories(inbox);
    const std::string program = QUILLET_CAPTURE_BINARY;
    timed({program, "setup", "--vault", vault.string(), "--no-upload"}, 0);

    std::mt19937 random(7);
    std::size_t bytes = 0;
    for (int i = 0; i < kNotes; ++i) {
        auto text = bench::sampleNote(i, random);
        bytes += text.size();
        char name[32];
        std::snprintf(name, sizeof name, "24%02d%02d-%06d.md", 1 + i % 12, 1 + i % 28, i);
        std::ofstream(inbox / name) << text;
    }

    const std::vector<std::string> status = {program, "status"};
    const std::vector<std::string> grep = {"grep", "-r", "-m1", "--include=*.md", "vd_job_status", inbox.string()};
    timed(status, 0);  // warm-up of both: the files in the page cache, the libraries loaded
    timed(grep, 0);
    std::vector<double> ours, theirs;
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(timed(status, 0));
        theirs.push_back(timed(grep, 0));
    }
    fs::remove_all(home);

    double o = bench::median(ours), g = bench::median(theirs), ratio = o / g;
    std::printf("status over %d notes (%.1f MB): quillet-capture status %.1f ms, grep -r -m1 vd_job_status %.1f ms, "
                "ratio %.2f (budget at most 2.00) %s\n",
                kNotes, bytes / 1e6, o, g, ratio, bench::verdict(ratio <= 2.0));
    return 0;
}
