// `quillet-capture audit --verify` over 1 GiB of audio copies (64 copies of 16 MiB, each with
// its digest in the vault's ledger) against `sha256sum` over the same files, each run as a
// whole process, in alternation over warm files; prints both throughputs and their ratio.
// Budget: at least 0.8x the speed of sha256sum.
//
// Usage: bench_audit_verify [rounds]   (default 5)

#include "bench/BenchCommon.hpp"

#include "quillet_capture/platform/Sha256.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kCopies = 64;
constexpr std::size_t kCopyBytes = 16u << 20;

double timed(const std::vector<std::string>& arguments, int expected)
{
    auto run = bench::spawnAndWait(arguments);
    if (run.status != expected) {
        std::printf("audit_verify: %s ended with %d\n", arguments.front().c_str(), run.status);
        std::exit(1);
    }
    return run.seconds;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    fs::path home = bench::scratchHome("quillet-bench-audit-verify");
    fs::path vault = home / "vault";
    fs::path audio = vault / "_inbox/.audio";
    fs::create_directories(audio);
    const std::string program = QUILLET_CAPTURE_BINARY;
    timed({program, "setup", "--vault", vault.string(), "--no-upload"}, 0);

    std::mt19937_64 random(11);
    std::string bytes(kCopyBytes, '\0');
    quillet::NoteLedger ledger(vault);
    std::vector<std::string> sha256sum = {"sha256sum"};
    const auto now = std::chrono::system_clock::now();
    for (int i = 0; i < kCopies; ++i) {
        for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
            auto word = random();
            std::memcpy(bytes.data() + at, &word, 8);
        }
        char id[32];
        std::snprintf(id, sizeof id, "240101-%06d", i);
        std::ofstream(audio / (std::string(id) + ".m4a"), std::ios::binary) << bytes;
        quillet::Sha256 digest;
        digest.update(bytes.data(), bytes.size());
        ledger.copyWritten(id, digest.hexDigest(), bytes.size(), now);
        auto note = quillet::InboxWriter::Frontmatter::forCapture(id, now);
        note.vdJobStatus = "skipped";
        std::ofstream(vault / "_inbox" / (std::string(id) + ".md")) << quillet::InboxWriter::renderMarkdown(note, "");
        ledger.noteMade(id, {}, now, now);
        sha256sum.push_back((audio / (std::string(id) + ".m4a")).string());
    }

    const std::vector<std::string> verify = {program, "audit", "--verify"};
    timed(verify, 0);  // warm-up: the copies in the page cache
    timed(sha256sum, 0);
    std::vector<double> ours, theirs;
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(timed(verify, 0));
        theirs.push_back(timed(sha256sum, 0));
    }
    fs::remove_all(home);

    const double gib = kCopies * static_cast<double>(kCopyBytes) / (1u << 30);
    double o = gib / bench::median(ours), t = gib / bench::median(theirs), ratio = o / t;
    std::printf("audit --verify of %.0f GiB in %d copies: %.2f GiB/s, sha256sum %.2f GiB/s, ratio %.2f (budget at "
                "least 0.80) %s\n",
                gib, kCopies, o, t, ratio, bench::verdict(ratio >= 0.8));
    return 0;
}
