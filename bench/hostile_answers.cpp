// The agent against a hostile service: the built program's `run` with uploads on, four
// recordings uploaded, and every status poll answered with 50 MB. Each answer is cut off at the
// 1 MiB an inspected answer may hold, so the four polling captures must not cost the agent
// more than a few MiB above its resting size. The figure is the agent's peak resident memory
// once at least twelve hostile answers were refused, median of several rounds (each a fresh
// agent and home). Baseline: the peak memory of the same program running `version`.
// Budget: peak at most 64 MiB.
//
// Usage: bench_hostile_answers [rounds]   (default 5, at least 3)

#include "bench/AgentBench.hpp"
#include "bench/BenchSupport.hpp"

#include "quillet_capture/config/Keychain.hpp"

#include "tests/support/FakeVeldane.hpp"

#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

namespace fs = std::filesystem;
using quillet::test::FakeVeldane;

namespace {

constexpr int kCaptures = 4;
constexpr int kHostileAnswers = 12;

// One round: a fresh home and agent; returns the agent's peak resident MiB.
double playRound(int number, const std::string& hostile)
{
    fs::path memos = bench::agentHome("quillet-bench-hostile");
    fs::path home = std::getenv("HOME");
    FakeVeldane service;
    std::atomic<int> served{0};
    std::atomic<int> uploads{0};
    service.route("POST", "sources", [&uploads](const FakeVeldane::Request&) {
        return FakeVeldane::Answer::json(R"({"status":"queued","cache_key":"key)" + std::to_string(++uploads) +
                                         R"("})");
    });
    service.fallback([&](const FakeVeldane::Request& request) {
        if (request.endpoint.ends_with("/status")) {
            ++served;
            return FakeVeldane::Answer::json(hostile);
        }
        return FakeVeldane::Answer::json(R"({"error":"not_found"})", 404);
    });
    auto settings = quillet::AppSettings::defaults();
    settings.vaultPath = (home / "vault").string();
    settings.vaultName = "vault";
    settings.captureVoiceMemosEnabled = true;
    settings.captureVeldaneEnabled = true;
    settings.veldaneBaseURL = service.baseURL();
    settings.keepVoiceMemosRunning = false;
    settings.watchedFoldersRaw = std::vector{quillet::WatchedFolder::voiceMemos(true)};
    std::ofstream(quillet::Paths::settingsFile()) << settings.toJSON().dump(2);
    bench::check(quillet::Keychain::setDeviceToken(std::string("tok_bench_0123456789abcdef")), "store the token");

    pid_t agent = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "run");
    bench::waitForLog("capture: coordinator started", 20, "agent started");
    bench::waitForLog("access -> Voice Memos", 40, "agent's first poll");
    for (int i = 0; i < kCaptures; ++i) {
        fs::path staging = home / bench::memoName(i);
        std::ofstream(staging) << "a recording of the benchmark, number " << i << std::string(64 * 1024, 'r');
        fs::rename(staging, memos / bench::memoName(i));
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (served < kHostileAnswers && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    bench::check(served >= kHostileAnswers, "twelve hostile answers within two minutes");
    bench::check(bench::logHas("larger than the 1 MiB allowed"), "the agent refused the hostile answers");
    auto reading = bench::measure(std::to_string(agent));
    ::kill(agent, SIGTERM);
    int status = 0;
    ::waitpid(agent, &status, 0);
    std::printf("  round %d: %d uploads, %d hostile answers refused, peak %.1f MiB, resident %.1f MiB\n", number,
                uploads.load(), served.load(), reading.peakMiB, reading.residentMiB);
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return reading.peakMiB;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::max(3, std::atoi(argv[1])) : 5;

    // Before the 50 MB answer exists: a child counts the memory of its parent until its exec.
    bench::scratchHome("quillet-bench-hostile-version");
    pid_t version = bench::spawnProgram(QUILLET_CAPTURE_BINARY, "version");
    int status = 0;
    rusage usage{};
    bench::check(::wait4(version, &status, 0, &usage) == version, "wait4");
    double versionPeak = static_cast<double>(bench::peakKiB(usage)) / 1024.0;

    const std::string hostile =
        R"({"status":{"transcription":{"status":")" + std::string(50u << 20, 'p') + R"("}}})";
    std::vector<double> peaks;
    for (int i = 1; i <= rounds; ++i) {
        peaks.push_back(playRound(i, hostile));
    }
    double peak = bench::median(peaks);
    std::printf("agent with %d captures polling 50 MB status answers, peak resident %.1f MiB (median of %d), "
                "`version` peak %.1f MiB, ratio %.2f (budget at most 64 MiB) %s\n",
                kCaptures, peak, rounds, versionPeak, peak / versionPeak, bench::verdict(peak <= 64.0));
    return 0;
}
