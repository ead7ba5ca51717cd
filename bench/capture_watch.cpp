// The watcher's two folder-wide jobs over a Voice Memos folder of 10,000 recordings, each
// against plain readdir listings of the same folder measured in the same run, in alternation:
//
// 1. A tick of the coordinator when every recording has been seen already (the state of an
//    agent between recordings): CPU time of the tick on the coordinator's queue against CPU
//    time of listing the folder twice with readdir. Budget: at most 2x.
// 2. The first index of the folder (every file marked seen, one state write): wall time of
//    runInitialIndex against listing the folder once with readdir plus one atomic write of
//    the resulting state file. Budget: at most 3x.
//
// Usage: bench_capture_watch [samples] [folder]   (defaults: 25, the system's temporary folder)

#include "bench/BenchSupport.hpp"

#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <dirent.h>

using namespace quillet;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int kRecordings = 10'000;

// Lists `folder` with readdir and keeps the names, as the cheapest listing can.
std::size_t readdirListing(const fs::path& folder)
{
    DIR* dir = ::opendir(folder.c_str());
    bench::check(dir != nullptr, "opendir");
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(dir)) {
        names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    return names.size();
}

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    int samples = argc > 1 ? std::max(3, std::atoi(argv[1])) : 25;
    if (argc > 2) {
        ::setenv("TMPDIR", argv[2], 1);
    }
    auto home = bench::scratchHome("quillet-bench-watch");
    fs::path memos = Paths::voiceMemosCandidates().at(0);
    fs::create_directories(memos);
    for (int i = 0; i < kRecordings; ++i) {
        char name[48];
        std::snprintf(name, sizeof name, "20240%d%02d %02d%02d%02d.m4a", 1 + i / 86400 % 9, 1 + i / 3600 / 24 % 28,
                      i / 3600 % 24, i / 60 % 60, i % 60);
        std::ofstream(memos / name) << "recording " << i;
    }
    auto folder = WatchedFolder::voiceMemos(true);
    std::size_t listed = readdirListing(memos);
    bench::check(listed == kRecordings + 2, "10,000 recordings in the folder");

    // 2. First index, each sample on a fresh store.
    std::vector<double> indexing, listingAndWrite;
    for (int i = 0; i < samples; ++i) {
        fs::path stateFolder = home / ("index-" + std::to_string(i));
        fs::create_directories(stateFolder);
        CaptureStateStore store(stateFolder / "state.json", stateFolder / "legacy.json");
        FolderWatcher watcher(folder, store);
        auto start = Clock::now();
        int marked = watcher.runInitialIndex();
        indexing.push_back(millisecondsSince(start));
        bench::check(marked == kRecordings, "index marks every recording");

        auto encoded = CaptureStateStore::encode(store.state());
        start = Clock::now();
        readdirListing(memos);
        writeFileAtomically(stateFolder / "plain.json", encoded, 0644);
        listingAndWrite.push_back(millisecondsSince(start));
    }

    // 1. Ticks over the indexed folder. The timer is set far off; the ticks are run by hand on
    // the coordinator's queue.
    CaptureStateStore store(home / "state.json", home / "legacy.json");
    CaptureCoordinator coordinator([folder] { return std::vector<WatchedFolder>{folder}; }, store, {},
                                   runtime::systemClock(), {}, 1h, 1h);
    coordinator.start();
    coordinator.queue().sync([&] { coordinator.tick(); });  // the first tick logs the folder's state
    bench::check(store.seenCount(folder.id) >= kRecordings, "coordinator indexed the folder");
    std::vector<double> ticks, listings;
    for (int i = 0; i < samples; ++i) {
        double cpu = 0;
        coordinator.queue().sync([&] {
            double start = bench::threadCpuSeconds();
            coordinator.tick();
            cpu = bench::threadCpuSeconds() - start;
        });
        ticks.push_back(cpu * 1000);
        double start = bench::threadCpuSeconds();
        readdirListing(memos);
        readdirListing(memos);
        listings.push_back((bench::threadCpuSeconds() - start) * 1000);
    }
    coordinator.stop();

    double tick = bench::median(ticks), twice = bench::median(listings);
    std::printf("tick over %d seen recordings: CPU %.2f ms, listing the folder twice with readdir %.2f ms, ratio %.2f "
                "(budget at most 2.00) %s\n",
                kRecordings, tick, twice, tick / twice, bench::verdict(tick / twice <= 2.0));
    double index = bench::median(indexing), plain = bench::median(listingAndWrite);
    std::printf("first index of %d recordings: %.2f ms, readdir listing + one state write %.2f ms, ratio %.2f "
                "(budget at most 3.00) %s\n",
                kRecordings, index, plain, index / plain, bench::verdict(index / plain <= 3.0));

    QuilletLog::drain();
    std::error_code ignored;
    fs::remove_all(home, ignored);
    runtime::exitProcess(0);
}
