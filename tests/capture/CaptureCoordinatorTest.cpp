#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

struct CoordinatorFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    fs::path folderPath = home.path() / "Synced";
    CaptureStateStore store{home.path() / "state.json", home.path() / "legacy.json", clock};
    std::vector<WatchedFolder> folders;
    std::vector<CaptureAccess::State> accessReports;
    std::vector<int> pollReports;
    std::unique_ptr<CaptureCoordinator> coordinator;

    void make(std::chrono::milliseconds firstTick = std::chrono::hours(1))
    {
        CaptureGuards::Probes probes;
        probes.duration = [](const fs::path&) { return std::optional<double>(5.0); };
        coordinator = std::make_unique<CaptureCoordinator>(
            [this] { return folders; }, store,
            CaptureCoordinator::Reports{
                [this](const CaptureAccess::State& state) { accessReports.push_back(state); },
                [this](int count) { pollReports.push_back(count); },
            },
            clock, probes, firstTick, std::chrono::seconds(30));
    }

    void tick()
    {
        coordinator->queue().sync([&] { coordinator->tick(); });
    }
};

TEST_F(CoordinatorFixture, AccessChangesAreLoggedOnceAndNoticesRaisedAndCleared)
{
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));
    make();
    coordinator->start();
    tick();
    tick();
    tick();
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Synced] access -> "), 1);
    EXPECT_EQ(test::countLogLines("[quillet] attention: "), 1);
    EXPECT_EQ(pollReports, (std::vector<int>{0, 0, 0}));
    EXPECT_TRUE(accessReports.empty()) << "only the Voice Memos folder reports to the status";

    fs::create_directories(folderPath);
    test::writeFile(folderPath / "a.m4a", "audio");
    tick();
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Synced] access -> "), 2);
    EXPECT_EQ(pollReports.back(), 1) << "the file arrived after the (empty) first index";

    // Gone again: the notice for "missing" was cleared when the folder became usable, so it
    // is raised again.
    fs::remove_all(folderPath);
    tick();
    EXPECT_EQ(test::countLogLines("[quillet] attention: "), 2);
}

TEST_F(CoordinatorFixture, AFolderLostAndFoundAgainIsHeardOnceEachAndAnEmptyOneNotAtAll)
{
    std::vector<std::pair<std::string, bool>> heard;
    struct Unlisten {
        ~Unlisten() { EnvironmentCheck::setListener({}); }
    } unlisten;
    EnvironmentCheck::setListener(
        [&](const EnvironmentCheck::Notice& notice) { heard.emplace_back(notice.title, notice.resolved); });
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));
    make();
    coordinator->start();
    tick();  // never there yet (the Voice Memos folder of a Linux computer): only logged
    tick();
    fs::create_directories(folderPath);  // there, but no recording in it yet: only logged
    tick();
    test::writeFile(folderPath / "a.m4a", "audio");
    tick();
    fs::remove_all(folderPath);  // lost
    tick();
    tick();
    fs::create_directories(folderPath);  // found again
    test::writeFile(folderPath / "b.m4a", "audio");
    tick();
    tick();
    EXPECT_EQ(heard, (std::vector<std::pair<std::string, bool>>{
                         {"Synced folder not found", false},
                         {"Synced can be read again", true},
                     }));
    EXPECT_EQ(test::countLogLines("[quillet] resolved: Synced can be read again -- Synced: readable but no audio files"),
              1);
}

TEST_F(CoordinatorFixture, NoFoldersLeavesItIdleAndAReloadStartsIt)
{
    make();
    coordinator->start();
    coordinator->queue().drain();
    EXPECT_EQ(test::countLogLines("[quillet] capture: no folders enabled; coordinator idle"), 1);
    EXPECT_FALSE(coordinator->queue().sync([&] { return coordinator->isRunning(); }));

    fs::create_directories(folderPath);
    test::writeFile(folderPath / "old.m4a", "audio");
    // There long before the folder is first watched (now, on the virtual clock).
    timespec old[2] = {{1'600'000'000, 0}, {1'600'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (folderPath / "old.m4a").c_str(), old, 0), 0);
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));
    coordinator->reload();
    coordinator->queue().drain();
    EXPECT_TRUE(coordinator->queue().sync([&] { return coordinator->isRunning(); }));
    EXPECT_EQ(test::countLogLines("[quillet] capture: coordinator started (poll=30s, folders=Synced)"), 1);
    EXPECT_EQ(test::countLogLines("initial index complete (1 existing files marked seen)"), 1);

    coordinator->stop();
    coordinator->queue().drain();
    EXPECT_FALSE(coordinator->queue().sync([&] { return coordinator->isRunning(); }));
    EXPECT_EQ(test::countLogLines("[quillet] capture: coordinator stopped"), 1);
}

TEST_F(CoordinatorFixture, TheTimerTicksOnItsOwn)
{
    fs::create_directories(folderPath);
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));
    make(std::chrono::milliseconds(10));
    coordinator->start();
    EXPECT_TRUE(test::eventually([&] { return coordinator->queue().sync([&] { return !pollReports.empty(); }); }));
}

// With the 30-second period, a recording arriving in a watched folder is handed over within a
// second or two: its folder's change brings the tick forward. A burst of changes shares a
// tick or two, a folder made after the start is watched from the next tick on, and the
// coordinator's own subscriber writing into a watched folder (a vault inside it) does not
// make it wake itself for ever.
TEST_F(CoordinatorFixture, AChangeInAWatchedFolderBringsTheTickForward)
{
    fs::create_directories(folderPath);
    const fs::path later = home.path() / "Later";
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));
    folders.push_back(WatchedFolder::generic(later.string(), std::string("Later")));
    make(std::chrono::milliseconds(10));
    std::atomic<int> handed{0};
    coordinator->setOnNewCapture([&](const FolderWatcher::NewCapture& capture) {
        ++handed;
        // What a vault inside the watched folder would see: the capture's note written there.
        test::writeFile(capture.sourceURL.parent_path() / (capture.canonicalId + ".md"), "note");
    });
    coordinator->start();
    auto onQueue = [&](auto work) { return coordinator->queue().sync(work); };
    ASSERT_TRUE(test::eventually([&] {
        return onQueue([&] { return coordinator->eventFolders() == std::vector<fs::path>{folderPath}; });
    })) << "the existing folder is watched after the first tick";

    auto arrive = [](const fs::path& folder, const std::string& name) {
        test::writeFile(folder.parent_path() / (".staging-" + name), "audio bytes of " + name);
        fs::rename(folder.parent_path() / (".staging-" + name), folder / name);
    };
    const auto start = std::chrono::steady_clock::now();
    arrive(folderPath, "first.m4a");
    ASSERT_TRUE(test::eventually([&] { return handed.load() == 1; }, 10));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << "not the 30-second poll";

    // Idle again: the note written into the watched folder woke it once at most.
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    const int settled = onQueue([&] { return coordinator->tickCount(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_EQ(onQueue([&] { return coordinator->tickCount(); }), settled) << "no tick without a change";

    // Thirty recordings at once: every one handed over, in a few ticks.
    for (int index = 0; index < 30; ++index) {
        arrive(folderPath, "burst " + std::to_string(index) + ".m4a");
    }
    ASSERT_TRUE(test::eventually([&] { return handed.load() == 31; }, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_LE(onQueue([&] { return coordinator->tickCount(); }) - settled, 6) << "a burst shares its ticks";

    // A folder made after the start is watched from the next tick on.
    fs::create_directories(later);
    arrive(folderPath, "wakes the coordinator.m4a");
    ASSERT_TRUE(test::eventually([&] { return handed.load() == 32; }, 10));
    ASSERT_TRUE(test::eventually([&] {
        return onQueue([&] { return coordinator->eventFolders(); }) == (std::vector<fs::path>{later, folderPath});  // in path order
    }));
    arrive(later, "in the new folder.m4a");
    EXPECT_TRUE(test::eventually([&] { return handed.load() == 33; }, 10));
}

} // namespace
} // namespace quillet

namespace quillet {
namespace {

// A change of the settings while the agent runs: the check runs before every tick's polls and
// soon after a change in the settings folder (not only at the 30-second tick), and when it
// reports new settings the watchers follow the folders they name, a new folder's earlier
// recordings indexed, never captured.
TEST_F(CoordinatorFixture, ItFollowsTheSettingsWhileItRuns)
{
    const fs::path settingsFolder = home.path() / "config";
    const fs::path other = home.path() / "Other";
    fs::create_directories(settingsFolder);
    fs::create_directories(folderPath);
    fs::create_directories(other);
    test::writeFile(other / "before.m4a", "audio");
    timespec old[2] = {{1'600'000'000, 0}, {1'600'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (other / "before.m4a").c_str(), old, 0), 0);
    folders.push_back(WatchedFolder::generic(folderPath.string(), std::string("Synced")));

    std::atomic<int> checks{0};
    bool changed = false;  // read and written on the queue or with the queue idle
    make();
    coordinator->followSettings(settingsFolder, [&] {
        ++checks;
        return std::exchange(changed, false);
    });
    coordinator->start();
    tick();
    EXPECT_EQ(checks, 1);

    // Another version, as setup saves it: a rename into the settings folder.
    coordinator->queue().sync([&] {
        folders = {WatchedFolder::generic(other.string(), std::string("Other"))};
        changed = true;
    });
    test::writeFile(settingsFolder / ".settings.json.tmp", "{}");
    fs::rename(settingsFolder / ".settings.json.tmp", settingsFolder / "settings.json");
    ASSERT_TRUE(test::eventually([&] { return checks >= 2; })) << "the change brought the check forward";
    coordinator->queue().drain();
    EXPECT_EQ(test::countLogLines("[quillet] capture: watched folders now Other"), 1);
    EXPECT_EQ(coordinator->queue().sync([&] { return coordinator->eventFolders(); }), std::vector<fs::path>{other});

    test::writeFile(folderPath / "left.m4a", "audio");
    test::writeFile(other / "new.m4a", "audio");
    // The folder's own event may bring a tick too; the reports are read on the queue.
    EXPECT_EQ(coordinator->queue().sync([&] {
        coordinator->tick();
        return pollReports.back();
    }),
              1)
        << "only the new recording of the folder now watched";

    // An unchanged check leaves the watchers as they are.
    tick();
    EXPECT_EQ(test::countLogLines("[quillet] capture: watched folders now"), 1);
}

} // namespace
} // namespace quillet
