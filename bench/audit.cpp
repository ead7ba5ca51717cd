// `quillet-capture audit` over 10,000 recordings (a file in a watched folder, its note, its
// audio copy, its entries in the state file and the vault's ledger) against `status` over the
// same vault, each run as a whole process, in alternation over warm files; prints both medians
// and their ratio. Budgets: audit at most 1 s, and at most 2x status.
//
// Usage: bench_audit [rounds]   (default 7)

#include "bench/BenchCommon.hpp"

#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kRecordings = 10'000;

// Milliseconds that `arguments` ran; it must end with one of `expected`.
double timed(const std::vector<std::string>& arguments, std::vector<int> expected)
{
    auto run = bench::spawnAndWait(arguments);
    if (std::find(expected.begin(), expected.end(), run.status) == expected.end()) {
        std::printf("audit: %s ended with %d\n", arguments.at(1).c_str(), run.status);
        std::exit(1);
    }
    return run.seconds * 1000;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    fs::path home = bench::scratchHome("quillet-bench-audit");
    fs::path vault = home / "vault";
    fs::path phone = home / "Phone";
    fs::create_directories(vault / "_inbox/.audio");
    fs::create_directories(phone);
    const std::string program = QUILLET_CAPTURE_BINARY;
    timed({program, "setup", "--vault", vault.string(), "--no-upload", "--watch", phone.string()}, {0});
    const auto folderId = quillet::WatchedFolder::generic(phone.string()).id;

    std::mt19937 random(7);
    quillet::CaptureStateStore::State state;
    auto& seen = state.seenByFolder[folderId];
    const auto now = std::chrono::system_clock::now();
    seen[std::string(quillet::CaptureStateStore::indexedMarker)] = {now, "", ""};
    std::string ledger;
    const std::string audio(2'000, 'a');
    for (int i = 0; i < kRecordings; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "24%02d%02d-%06d", 1 + i % 12, 1 + i % 28, i);
        const std::string name = std::string(id) + ".m4a";
        std::ofstream(vault / "_inbox" / (std::string(id) + ".md")) << bench::sampleNote(i, random);
        std::ofstream(vault / "_inbox/.audio" / name) << audio;
        std::ofstream(phone / name) << audio;
        seen[name] = {now, id, "2000:1:" + std::to_string(i)};
        ledger += R"({"event":"copy","id":")" + std::string(id) +
                  R"(","sha256":"0000000000000000000000000000000000000000000000000000000000000000","size":2000,"at":"2026-01-01T00:00:00Z"})"
                  "\n";
        ledger += R"({"event":"made","id":")" + std::string(id) + R"(","at":"2026-01-01T00:00:00Z","folder":")" +
                  folderId + R"(","name":")" + name + "\"}\n";
    }
    std::ofstream(quillet::NoteLedger(vault).file()) << ledger;
    fs::create_directories(quillet::Paths::stateFile().parent_path());
    std::ofstream(quillet::Paths::stateFile()) << quillet::CaptureStateStore::encode(state);

    const std::vector<std::string> audit = {program, "audit"};
    const std::vector<std::string> status = {program, "status"};
    timed(audit, {0, 1});  // warm-up of both: the files in the page cache
    timed(status, {0});
    std::vector<double> ours, theirs;
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(timed(audit, {0, 1}));
        theirs.push_back(timed(status, {0}));
    }
    if (!std::getenv("QUILLET_BENCH_KEEP")) {
        fs::remove_all(home);
    }

    double a = bench::median(ours), s = bench::median(theirs), ratio = a / s;
    std::printf("audit of %d recordings: %.1f ms (budget at most 1000 ms) %s\n", kRecordings, a,
                bench::verdict(a <= 1000));
    std::printf("audit of %d recordings: quillet-capture audit %.1f ms, quillet-capture status %.1f ms, ratio %.2f "
                "(budget at most 2.00) %s\n",
                kRecordings, a, s, ratio, bench::verdict(ratio <= 2.0));
    return 0;
}
