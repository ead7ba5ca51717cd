#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// What a process killed in the middle of its writes leaves: temporary files that nobody
// holds. The sweep removes exactly those.
TEST(AtomicFileSweep, RemovesWhatDeadWritersLeftAndNothingElse)
{
    test::ScratchDir dir;
    test::writeFile(dir.path() / "note.md", "kept");
    test::writeFile(dir.path() / ".hidden", "kept");
    test::writeFile(dir.path() / ".note.md.quillet-tmp-abcdefghij", "half a note");
    fs::create_directories(dir.path() / ".folder.quillet-tmp-0123456789");
    test::writeFile(dir.path() / "sub" / ".x.md.quillet-tmp-0123456789", "not this folder's");
    // A writer that dies while it holds its temporary file.
    pid_t child = ::fork();
    if (child == 0) {
        createTemporaryFile(dir.path() / "state.json", 0600);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);

    EXPECT_EQ(removeAtomicWriteLeftovers(dir.path()), 2);
    std::set<std::string> left;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        left.insert(entry.path().filename().string());
    }
    EXPECT_EQ(left, (std::set<std::string>{"note.md", ".hidden", ".folder.quillet-tmp-0123456789", "sub"}));
    EXPECT_TRUE(fs::exists(dir.path() / "sub" / ".x.md.quillet-tmp-0123456789"));
    EXPECT_EQ(removeAtomicWriteLeftovers(dir.path() / "missing"), 0);
}

TEST(AtomicFileSweep, KeepsTheFileOfALiveWriter)
{
    test::ScratchDir dir;
    auto temporary = createTemporaryFile(dir.path() / "note.md", 0600);
    EXPECT_TRUE(isAtomicWriteLeftover(temporary.path.filename().string()));
    EXPECT_EQ(temporary.path.parent_path(), dir.path());
    EXPECT_EQ(removeAtomicWriteLeftovers(dir.path()), 0);
    EXPECT_TRUE(fs::exists(temporary.path));
    ::close(temporary.fd);
    EXPECT_EQ(removeAtomicWriteLeftovers(dir.path()), 1);
    EXPECT_FALSE(fs::exists(temporary.path));
}

// A sweep at the same moment as writes (another command starting while the agent writes)
// must never make a write fail or lose it.
TEST(AtomicFileSweep, SweepsDuringWritesNeverBreakThem)
{
    test::ScratchDir dir;
    auto file = dir.path() / "state.json";
    std::atomic<bool> writing{true};
    std::thread sweeper([&] {
        while (writing) {
            removeAtomicWriteLeftovers(dir.path());
        }
    });
    int failures = 0;
    for (int i = 0; i < 400; ++i) {
        try {
            writeFileAtomically(file, "version " + std::to_string(i), 0600);
        } catch (const std::system_error&) {
            ++failures;
        }
    }
    writing = false;
    sweeper.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(test::readFile(file), "version 399");
}

} // namespace
} // namespace quillet
