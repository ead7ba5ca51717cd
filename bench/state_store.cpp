// Cost of the capture state store against the file writes it cannot avoid, measured in the same
// run and in alternation, so that a busy disk or machine weighs on both sides alike.
//
// 1. markSeen on a store of 10,000 entries against writing the same bytes with a plain
//    temporary file, fsync and rename. Budget: at most 1.5x. The store also flushes the
//    folder after the rename (so that a power cut cannot lose the new file), which a plain
//    write does not do; the same write with that flush is printed as a second baseline.
// 2. A first index of 10,000 names through markIndexed against one persist of the resulting
//    file as the store does it: encoding the resulting state and writing it with
//    writeFileAtomically. Budget: at most 2x.
//
// Usage: bench_state_store [samples] [folder]   (defaults: 25, the system's temporary folder)

#include "bench/BenchCommon.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using namespace quillet;
namespace fs = std::filesystem;

namespace {

constexpr int kEntries = 10'000;

double millisecondsOf(const std::function<void()>& work)
{
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The plain way to replace a file: temporary file, write, fsync, rename; optionally the
// folder's fsync as well.
void plainReplace(const fs::path& file, const std::string& bytes, bool flushFolder)
{
    auto temp = file.string() + ".tmp";
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bench::check(fd >= 0, "open");
    bench::check(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    bench::check(::fsync(fd) == 0, "fsync");
    bench::check(::close(fd) == 0, "close");
    bench::check(::rename(temp.c_str(), file.c_str()) == 0, "rename");
    if (flushFolder) {
        int dir = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        bench::check(dir >= 0 && ::fsync(dir) == 0, "fsync folder");
        ::close(dir);
    }
}

std::string recordingName(int i)
{
    char name[64];
    std::snprintf(name, sizeof name, "2%05d %06d.m4a", i % 100000, (i * 7919) % 1000000);
    return name;
}

std::vector<CaptureStateStore::SeenName> names(int count, int offset)
{
    std::vector<CaptureStateStore::SeenName> result;
    result.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        auto name = recordingName(offset + i);
        result.push_back({name, name.substr(0, 6) + "-" + name.substr(7, 6)});
    }
    return result;
}

void report(const char* what, double value, const char* baselineName, double baseline, double budget)
{
    double ratio = value / baseline;
    std::printf("%s %.2f ms, %s %.2f ms, ratio %.2f (budget %.2f) %s\n", what, value, baselineName, baseline, ratio,
                budget, ratio <= budget ? "PASS" : "FAIL");
}

} // namespace

int main(int argc, char** argv)
{
    int samples = argc > 1 ? std::max(3, std::atoi(argv[1])) : 25;
    fs::path parent = argc > 2 ? fs::path(argv[2]) : fs::temp_directory_path();
    std::string pattern = (parent / "quillet-bench-state-XXXXXX").string();
    bench::check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    fs::path folder = pattern;

    // 1. markSeen at 10,000 entries.
    {
        CaptureStateStore store(folder / "state.json", folder / "no-legacy.json");
        store.markIndexed(names(kEntries - 1, 0), "voice-memos");
        std::vector<double> marks, plain, durable;
        for (int i = 0; i < samples; ++i) {
            auto name = recordingName(500'000 + i);
            marks.push_back(millisecondsOf([&] { store.markSeen(name, "x"); }));
            auto bytes = CaptureStateStore::encode(store.state());
            plain.push_back(millisecondsOf([&] { plainReplace(folder / "plain.json", bytes, false); }));
            durable.push_back(millisecondsOf([&] { plainReplace(folder / "durable.json", bytes, true); }));
        }
        std::printf("state store: markSeen at %zu entries, file of %zu bytes, %d samples (medians)\n",
                    store.seenCount(), fs::file_size(folder / "state.json"), samples);
        report("state store: markSeen", bench::median(marks), "temp-write+fsync+rename", bench::median(plain), 1.5);
        report("state store: markSeen", bench::median(marks), "temp-write+fsync+rename+folder fsync", bench::median(durable), 1.5);
    }

    // 2. A first index of 10,000 names in one write.
    {
        auto files = names(kEntries, 0);
        std::vector<double> index, persist;
        for (int i = 0; i < std::max(3, samples / 2); ++i) {
            auto file = folder / ("index-" + std::to_string(i) + ".json");
            CaptureStateStore store(file, folder / "no-legacy.json");
            auto list = files;  // the watcher hands its freshly built list over
            index.push_back(millisecondsOf([&] { store.markIndexed(std::move(list), "phone"); }));
            auto state = store.state();
            persist.push_back(millisecondsOf(
                [&] { writeFileAtomically(folder / "persist.json", CaptureStateStore::encode(state), 0644); }));
            fs::remove(file);
        }
        report("state store: first index of 10000 names", bench::median(index), "one persist (encode + writeFileAtomically)",
               bench::median(persist), 2.0);
    }

    std::error_code ignored;
    fs::remove_all(folder, ignored);
    return 0;
}
