// Time from a finished upload to the written note, against a service that answers "completed"
// at once: for each capture, from the pipeline's `sent` event (the upload was accepted) to its
// `transcriptReady` event (the transcript is in the note). In that stretch the pipeline asks for
// the status and fetches the transcript (two requests) and replaces the note three times (the
// cache key, the status word, the transcript), each an atomic write with fsync.
// Baseline: what the stretch must wait on, measured in the same run alternating with the
// captures: the same two requests made with a VeldaneClient, and three note-sized atomic
// writes in the same folder. Budget: at most 2x, i.e. the program's own work is never the
// larger part of the stretch.
//
// Usage: bench_pipeline_latency [samples] [folder]   (defaults: 50, the system's temporary folder)

#include "bench/BenchSupport.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>

#include <mutex>

using namespace quillet;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

std::mutex lock;
std::map<std::string, Clock::time_point> sentAt;
std::map<std::string, double> stretch;  // ms

template <typename T>
T run(asio::awaitable<T> task)
{
    return asio::co_spawn(runtime::utilityExecutor(), std::move(task), asio::use_future).get();
}

asio::awaitable<double> twoRequests(std::string baseURL, std::string key)
{
    VeldaneClient client(baseURL);
    auto start = Clock::now();
    std::string statusKey = key;
    co_await client.status(std::move(statusKey));
    co_await client.source(std::move(key));
    co_return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    int samples = argc > 1 ? std::max(3, std::atoi(argv[1])) : 50;
    auto fake = bench::ForkedFake::start("completed");
    if (argc > 2) {
        ::setenv("TMPDIR", argv[2], 1);
    }
    auto home = bench::scratchHome("quillet-bench-latency");
    bench::check(Keychain::setDeviceToken(std::string("tok_bench_0123456789")), "store token");
    fs::path recordings = home / "Recordings";
    fs::path vault = home / "vault";
    fs::create_directories(recordings);
    std::string baseURL = fake.baseURL();
    CapturePipeline pipeline(
        CapturePipeline::Environment{
            [vault] { return vault; },
            [] { return true; },
            [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
            [baseURL] { return baseURL; },
            {},
        },
        nullptr);
    pipeline.setOnCaptureEvent([](const CapturePipeline::CaptureEvent& event) {
        auto now = Clock::now();
        std::lock_guard guard(lock);
        if (event.kind == CapturePipeline::CaptureEvent::Kind::sent) {
            sentAt[event.id] = now;
        } else if (event.kind == CapturePipeline::CaptureEvent::Kind::transcriptReady) {
            stretch[event.id] = std::chrono::duration<double, std::milli>(now - sentAt[event.id]).count();
        }
    });

    std::vector<double> captures, requests, writes;
    std::string noteText;
    for (int i = 0; i < samples + 1; ++i) {
        char name[32], id[32];
        std::snprintf(name, sizeof name, "20240101 %06d.m4a", i);
        std::snprintf(id, sizeof id, "240101-%06d", i);
        std::ofstream(recordings / name) << "audio bytes of recording " << i;
        run(pipeline.handle({recordings / name, id, std::chrono::system_clock::now(), "voice-memos"}));
        double requestTime = run(twoRequests(baseURL, "ck_baseline"));
        if (noteText.empty()) {
            noteText = *readWholeFile(vault / "_inbox" / (std::string(id) + ".md"));
        }
        auto start = Clock::now();
        for (int w = 0; w < 3; ++w) {
            writeFileAtomically(vault / "_inbox" / "bench-write.md", noteText, 0644);
        }
        double writeTime = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        std::lock_guard guard(lock);
        if (!stretch.contains(id)) {
            std::fprintf(stderr, "capture %s did not get its transcript\n", id);
            return 1;
        }
        if (i == 0) {
            continue;  // warm-up: first connections, first thread starts
        }
        captures.push_back(stretch[id]);
        requests.push_back(requestTime);
        writes.push_back(writeTime);
    }

    // The stretch waits on two requests and three durable note writes (each flushed to the disk,
    // as every note is). Against a loopback service the requests take half a millisecond, so
    // the writes are most of the waiting; what is left is the program's own work, which must
    // not be the larger part: the stretch at most twice the waiting it cannot avoid.
    double figure = bench::median(captures);
    double requestTime = bench::median(requests);
    double writeTime = bench::median(writes);
    double waiting = requestTime + writeTime;
    double ratio = figure / waiting;
    std::printf("upload accepted -> note written: median %.2f ms over %d captures; the two requests %.2f ms and "
                "three durable note writes %.2f ms alone %.2f ms, ratio %.2f (budget at most 2.00) %s\n",
                figure, samples, requestTime, writeTime, waiting, ratio, bench::verdict(ratio <= 2.0));
    std::printf("  the program's own part: %.2f ms (%.0f%% of the stretch)\n", figure - waiting,
                100.0 * (figure - waiting) / figure);

    fake.stop();
    QuilletLog::drain();
    std::error_code ignored;
    fs::remove_all(home, ignored);
    runtime::exitProcess(0);
}
