// Reading the frontmatter of 10,000 notes on disk (as the resume at start, the status report and
// the retry batch do) against reading the first 4 KiB of the same files, in the same run, in
// alternating passes over warm files. Prints notes per second and the ratio. Budget: at most 2x.
//
// The notes are a mix like a real inbox: stubs, and notes whose transcripts run from 2 to 40 KB.
//
// Usage: bench_frontmatter [passes] [folder]   (defaults: 7, the system's temporary folder)

#include "bench/BenchCommon.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

using namespace quillet;
namespace fs = std::filesystem;

namespace {

constexpr int kNotes = 10'000;

} // namespace

int main(int argc, char** argv)
{
    int passes = argc > 1 ? std::max(3, std::atoi(argv[1])) : 7;
    fs::path parent = argc > 2 ? fs::path(argv[2]) : fs::temp_directory_path();
    fs::path folder = bench::scratchFolder("quillet-bench-notes", parent);

    std::mt19937 random(7);
    std::vector<fs::path> files;
    size_t bytes = 0;
    for (int i = 0; i < kNotes; ++i) {
        auto file = folder / (std::to_string(i) + ".md");
        auto text = bench::sampleNote(i, random);
        bytes += text.size();
        std::ofstream(file, std::ios::binary) << text;
        files.push_back(file);
    }

    size_t sink = 0;
    auto readAll = [&] {
        for (const auto& file : files) {
            sink += InboxWriter::readFrontmatter(file).id.size();
        }
    };
    auto readHeads = [&] {
        char buffer[4096];
        for (const auto& file : files) {
            int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
            ssize_t n = ::read(fd, buffer, sizeof buffer);
            ::close(fd);
            sink += static_cast<size_t>(n > 0 ? buffer[n - 1] : 0);
        }
    };
    auto seconds = [](auto&& work) {
        auto start = std::chrono::steady_clock::now();
        work();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };

    readAll();  // warm the page cache for both sides
    std::vector<double> frontmatter, heads;
    for (int pass = 0; pass < passes; ++pass) {
        if (pass % 2 == 0) {
            frontmatter.push_back(seconds(readAll));
            heads.push_back(seconds(readHeads));
        } else {
            heads.push_back(seconds(readHeads));
            frontmatter.push_back(seconds(readAll));
        }
    }
    double f = bench::median(frontmatter);
    double h = bench::median(heads);
    double ratio = f / h;
    std::printf("frontmatter: %d notes (%.1f MB), %d passes (medians), checksum %zu\n", kNotes, bytes / 1e6, passes,
                sink % 10);
    std::printf("frontmatter: readFrontmatter %.0f notes/s (%.1f ms), first 4 KiB %.0f files/s (%.1f ms), "
                "ratio %.2f (budget 2.00) %s\n",
                kNotes / f, f * 1e3, kNotes / h, h * 1e3, ratio, bench::verdict(ratio <= 2.0));

    std::error_code ignored;
    fs::remove_all(folder, ignored);
    return 0;
}
