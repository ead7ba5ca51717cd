#include "quillet_capture/platform/FolderEvents.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>

namespace quillet {
namespace {

namespace fs = std::filesystem;

using Folders = std::vector<fs::path>;

// A FolderEvents on a serial queue of its own, as the coordinator holds it, counting the
// calls of `changed`; scratch folders "a", "b" and "elsewhere" exist from the start.
struct Watcher {
    test::ScratchDir dir;
    fs::path a = dir.path() / "a";
    fs::path b = dir.path() / "b";
    fs::path elsewhere = dir.path() / "elsewhere";
    runtime::SerialQueue queue{"quillet.test.events"};
    std::atomic<int> calls{0};
    std::unique_ptr<FolderEvents> events;

    explicit Watcher(FolderEvents::ArmFault fault = {})
    {
        fs::create_directories(a);
        fs::create_directories(b);
        fs::create_directories(elsewhere);
        events = std::make_unique<FolderEvents>(queue.executor(), [this] { ++calls; }, std::move(fault));
    }

    ~Watcher()
    {
        queue.sync([&] { events.reset(); });
    }

    void watch(const Folders& folders)
    {
        queue.sync([&] {
            if (events) {
                events->watch(folders);
            }
        });
    }

    Folders watched()
    {
        return queue.sync([&] { return events ? events->watched() : Folders{}; });
    }

    // The system queues a folder's event within the call that causes it, and its descriptor
    // reads as ready from then on. Each drain is a round trip through the queue's event loop,
    // which looks at its ready descriptors before it runs work queued after a round trip, so
    // after these every event caused so far has been read and `changed` called for it.
    void settle()
    {
        for (int i = 0; i < 3; ++i) {
            queue.drain();
        }
    }

    // Waits (at most 2 s) for a call of `changed` after the last `forget`.
    bool wakes() { return test::eventually([&] { return calls.load() > 0; }, 2); }

    // Takes in every event caused so far and forgets its calls.
    void forget()
    {
        settle();
        calls = 0;
    }
};

void touch(const fs::path& file)
{
    test::writeFile(file, "audio");
}

TEST(FolderEvents, EntriesArrivingInOrLeavingAWatchedFolderWake)
{
    Watcher w;
    w.watch({w.a});
    EXPECT_EQ(w.watched(), Folders{w.a});

    touch(w.a / "memo.m4a");
    EXPECT_TRUE(w.wakes()) << "a file written into the folder";

    w.forget();
    touch(w.elsewhere / "synced.m4a");
    fs::rename(w.elsewhere / "synced.m4a", w.a / "synced.m4a");
    EXPECT_TRUE(w.wakes()) << "a file renamed into the folder, the way sync clients and the recorder finish one";

    w.forget();
    fs::rename(w.a / "memo.m4a", w.elsewhere / "memo.m4a");
    EXPECT_TRUE(w.wakes()) << "a file renamed out of the folder";

    w.forget();
    fs::remove(w.a / "synced.m4a");
    EXPECT_TRUE(w.wakes()) << "a file deleted";
}

TEST(FolderEvents, AFolderThatDoesNotExistYetIsWatchedOnceItDoes)
{
    Watcher w;
    const fs::path later = w.dir.path() / "later";
    const fs::path file = w.dir.path() / "not-a-folder";
    touch(file);
    w.watch({later, file, w.b});
    EXPECT_EQ(w.watched(), Folders{w.b}) << "a missing folder and a file are left to polling";

    fs::create_directories(later);
    w.watch({later, file, w.b});
    EXPECT_EQ(w.watched(), (Folders{w.b, later}));
    w.forget();
    touch(later / "memo.m4a");
    EXPECT_TRUE(w.wakes());
}

TEST(FolderEvents, AReplacedFolderIsWatchedAgainAtTheNextCall)
{
    Watcher w;
    w.watch({w.a});

    // Deleted and made again: the old watch ended with the folder.
    fs::remove_all(w.a);
    EXPECT_TRUE(w.wakes()) << "the watched folder itself went away";
    EXPECT_TRUE(test::eventually([&] { return w.watched().empty(); }, 2)) << "a deleted folder keeps no watch";
    fs::create_directories(w.a);
    w.watch({w.a});
    EXPECT_EQ(w.watched(), Folders{w.a});
    w.forget();
    touch(w.a / "memo.m4a");
    EXPECT_TRUE(w.wakes()) << "the new folder's events arrive";

    // Moved away and another put in its place at once, before any event was read: the next
    // call finds another folder at the path.
    const fs::path old = w.dir.path() / "a.old";
    fs::rename(w.a, old);
    fs::create_directories(w.a);
    w.watch({w.a});
    EXPECT_EQ(w.watched(), Folders{w.a});
    w.forget();
    touch(old / "stale.m4a");
    w.settle();
    EXPECT_EQ(w.calls.load(), 0) << "the folder moved away is no longer watched";
    touch(w.a / "fresh.m4a");
    EXPECT_TRUE(w.wakes()) << "the folder now at the path is";
}

TEST(FolderEvents, AFolderNoLongerListedNoLongerWakes)
{
    Watcher w;
    w.watch({w.a, w.b});
    EXPECT_EQ(w.watched(), (Folders{w.a, w.b}));

    w.watch({w.b});
    EXPECT_EQ(w.watched(), Folders{w.b});
    w.forget();
    touch(w.a / "memo.m4a");
    w.settle();
    EXPECT_EQ(w.calls.load(), 0) << "an event in a folder dropped from the list";
    touch(w.b / "memo.m4a");
    EXPECT_TRUE(w.wakes()) << "the folder still listed goes on waking";

    w.watch({});
    EXPECT_TRUE(w.watched().empty());
}

TEST(FolderEvents, ARecordingBeingWrittenWakesWhenItsWriterClosesIt)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "kqueue reports no close of a file in a watched folder";
    }
    Watcher w;
    w.watch({w.a});
    int fd = ::open((w.a / "recording.m4a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(w.wakes()) << "the new file";

    w.forget();
    const std::string chunk(4096, 'x');
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(::write(fd, chunk.data(), chunk.size()), static_cast<ssize_t>(chunk.size()));
    }
    w.settle();
    EXPECT_EQ(w.calls.load(), 0) << "writes to a file that stays open";

    ::close(fd);
    EXPECT_TRUE(w.wakes()) << "the writer closed the file";
}

TEST(FolderEvents, ChangesInsideANestedFolderDoNotWake)
{
    Watcher w;
    const fs::path nested = w.a / "Archive";
    fs::create_directories(nested);
    w.watch({w.a});

    touch(nested / "old.m4a");
    fs::rename(nested / "old.m4a", nested / "older.m4a");
    fs::remove(nested / "older.m4a");
    fs::create_directories(nested / "deeper");
    w.settle();
    EXPECT_EQ(w.calls.load(), 0);

    touch(w.a / "memo.m4a");
    EXPECT_TRUE(w.wakes()) << "the watched folder's own entries still wake";
}

TEST(FolderEvents, ASystemOutOfWatchesIsLoggedOnceAndLeftToPolling)
{
    test::ScratchHome home;
    // inotify runs out of watches; kqueue out of descriptors (one per folder).
    const int usedUp = Paths::current() == Platform::linux ? ENOSPC : EMFILE;
    std::atomic<bool> exhausted{true};
    Watcher w([&](const fs::path& folder) { return exhausted && folder.filename() == "b" ? usedUp : 0; });
    const std::string line = "[quillet] capture: file-system events are not available (";

    w.watch({w.a, w.b});
    EXPECT_TRUE(w.watched().empty()) << "no half-watched set: polling alone";
    EXPECT_EQ(test::countLogLines(line), 1);
    EXPECT_EQ(test::countLogLines("new recordings are found by polling"), 1);

    exhausted = false;
    w.watch({w.a, w.b});
    w.watch({w.a, w.b});
    EXPECT_TRUE(w.watched().empty()) << "not tried again at every poll";
    EXPECT_EQ(test::countLogLines(line), 1);
    touch(w.a / "memo.m4a");
    w.settle();
    EXPECT_EQ(w.calls.load(), 0);
}

TEST(FolderEvents, AFolderThatCannotBeWatchedIsLeftToPollingAndTriedAgain)
{
    test::ScratchHome home;
    std::atomic<int> denials{1};
    Watcher w([&](const fs::path& folder) {
        return folder.filename() == "a" && denials.fetch_sub(1) > 0 ? EACCES : 0;
    });

    w.watch({w.a, w.b});
    EXPECT_EQ(w.watched(), Folders{w.b}) << "the other folder is watched all the same";
    EXPECT_EQ(test::countLogLines("file-system events are not available"), 0);

    w.watch({w.a, w.b});
    EXPECT_EQ(w.watched(), (Folders{w.a, w.b})) << "once the folder can be watched";
    w.forget();
    touch(w.a / "memo.m4a");
    EXPECT_TRUE(w.wakes());
}

TEST(FolderEvents, NothingIsCalledOnceItIsDestroyed)
{
    Watcher w;

    // Destroyed from its own `changed`, as an owner that stops on a wake-up may do.
    w.queue.sync([&] {
        w.events = std::make_unique<FolderEvents>(w.queue.executor(), [&] {
            ++w.calls;
            w.events.reset();
        });
        w.events->watch({w.a, w.b});
    });
    touch(w.a / "one.m4a");
    ASSERT_TRUE(w.wakes());
    touch(w.b / "two.m4a");
    w.settle();
    EXPECT_EQ(w.calls.load(), 1);

    // Destroyed while an event waits to be read.
    w.queue.sync([&] { w.events = std::make_unique<FolderEvents>(w.queue.executor(), [&] { ++w.calls; }); });
    w.watch({w.a});
    w.forget();
    w.queue.sync([&] {
        touch(w.a / "three.m4a");
        w.events.reset();
    });
    w.settle();
    EXPECT_EQ(w.calls.load(), 0);
}

} // namespace
} // namespace quillet
