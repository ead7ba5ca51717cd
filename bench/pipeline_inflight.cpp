// 1,000 captures in flight: each new recording is copied, noted, uploaded and then polled
// against a service that keeps answering "processing", with the real clock (5 s between polls
// during the first minute). Once every capture has been uploaded and has polled a few times, the
// process's threads and memory are read from the system (/proc on Linux, libproc on macOS) and
// compared with the same process holding a single capture in flight.
// Budget: at most 16 threads and at most 64 MB resident (peak) with 1,000 in flight.
//
// Usage: bench_pipeline_inflight [captures]   (default 1000)

#include "bench/BenchSupport.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"

#include <thread>

using namespace quillet;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::atomic<int> sent{0};

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

FolderWatcher::NewCapture newRecording(const fs::path& folder, int index)
{
    char name[32];
    std::snprintf(name, sizeof name, "20240101 %06d.m4a", index);
    std::ofstream(folder / name) << "audio bytes of recording " << index;
    char id[32];
    std::snprintf(id, sizeof id, "240101-%06d", index);
    return {folder / name, id, std::chrono::system_clock::now(), "voice-memos"};
}

} // namespace

int main(int argc, char** argv)
{
    int captures = argc > 1 ? std::max(2, std::atoi(argv[1])) : 1000;
    // Before any thread exists in this process.
    auto fake = bench::ForkedFake::start("processing");

    auto home = bench::scratchHome("quillet-bench-inflight");
    bench::check(Keychain::setDeviceToken(std::string("tok_bench_0123456789")), "store token");
    fs::path recordings = home / "Recordings";
    fs::create_directories(recordings);
    std::string baseURL = fake.baseURL();
    CapturePipeline pipeline(
        CapturePipeline::Environment{
            [home] { return home / "vault"; },
            [] { return true; },
            [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
            [baseURL] { return baseURL; },
            {},
        },
        nullptr);
    pipeline.setOnCaptureEvent([](const CapturePipeline::CaptureEvent& event) {
        if (event.kind == CapturePipeline::CaptureEvent::Kind::sent) {
            ++sent;
        }
    });

    // One capture in flight, after two polls.
    runtime::spawn(pipeline.handle(newRecording(recordings, 0)));
    bench::check(waitFor([] { return sent.load() == 1; }, 60s), "first upload");
    std::this_thread::sleep_for(6s);
    auto one = bench::measure();

    auto started = std::chrono::steady_clock::now();
    for (int i = 1; i < captures; ++i) {
        runtime::spawn(pipeline.handle(newRecording(recordings, i)));
    }
    if (!waitFor([&] { return sent.load() == captures; }, 300s)) {
        std::fprintf(stderr, "only %d of %d uploads accepted after 300 s (%d tasks in flight)\n", sent.load(), captures,
                     pipeline.tasksInFlight());
        fake.stop();
        runtime::exitProcess(1);
    }
    double uploading = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // Every capture polls at least twice more.
    std::this_thread::sleep_for(11s);
    auto many = bench::measure();
    int inFlight = pipeline.tasksInFlight();

    int threadsOne = one.threads;
    int threadsMany = many.threads;
    double rssOne = one.residentMiB;
    double rssMany = many.residentMiB;
    double peakOne = one.peakMiB;
    double peakMany = many.peakMiB;
    std::printf("in flight: %d captures polling (all %d uploaded in %.1f s)\n", inFlight, captures, uploading);
    std::printf("threads with %d in flight %d, with 1 in flight %d, ratio %.2f (budget at most 16) %s\n", captures,
                threadsMany, threadsOne, static_cast<double>(threadsMany) / threadsOne,
                bench::verdict(threadsMany <= 16));
    std::printf("resident memory with %d in flight %.1f MiB (peak %.1f MiB), with 1 in flight %.1f MiB (peak %.1f "
                "MiB), ratio %.2f (budget at most 64 MiB) %s\n",
                captures, rssMany, peakMany, rssOne, peakOne, peakMany / peakOne, bench::verdict(peakMany <= 64));

    fake.stop();
    QuilletLog::drain();
    std::error_code ignored;
    fs::remove_all(home, ignored);
    // The polling tasks are still suspended; end without waiting for them.
    runtime::exitProcess(inFlight == captures ? 0 : 1);
}
