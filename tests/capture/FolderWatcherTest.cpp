#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/capture/FolderWatcher.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "tests/capture/TimeZone.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/WavBytes.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fcntl.h>

#include <cstdlib>
#include <fstream>
#include <ctime>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// A watched folder on disk with a state store and a virtual clock; the guards' duration probe
// is scripted so that no audio tool runs.
struct WatcherFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    fs::path folderPath = home.path() / "Recordings";
    CaptureStateStore store{home.path() / "state.json", home.path() / "legacy.json", clock};
    CaptureGuards::Probes probes;
    test::TimeZone zone{"UTC"};

    WatcherFixture()
    {
        fs::create_directories(folderPath);
        probes.duration = [](const fs::path&) { return std::optional<double>(12.0); };
    }

    WatchedFolder voiceMemos()
    {
        WatchedFolder folder = WatchedFolder::generic(folderPath.string(), std::string("Voice Memos"));
        folder.id = "voice-memos-test";
        folder.normaliser = WatchedFolder::Normaliser::voiceMemos;
        return folder;
    }

    FolderWatcher watcher(WatchedFolder folder) { return FolderWatcher(std::move(folder), store, true, clock, probes); }

    // A file that has been there for a day unless `modified` says when it was written.
    void add(const std::string& name, const std::string& contents = "audio bytes",
             std::optional<std::chrono::system_clock::time_point> modified = std::nullopt)
    {
        test::writeFile(folderPath / name, contents);
        auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           modified.value_or(clock.now() - std::chrono::hours(24)).time_since_epoch())
                           .count();
        timespec times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (folderPath / name).c_str(), times, 0), 0);
    }
};

TEST_F(WatcherFixture, FirstIndexMarksOldFilesAndLaterFilesAreCapturedOnce)
{
    for (int i = 0; i < 50; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "20240131 1425%02d.m4a", i);
        add(name);
    }
    auto w = watcher(voiceMemos());
    EXPECT_EQ(w.runInitialIndex(), 50);
    EXPECT_EQ(w.runInitialIndex(), 0) << "a folder is indexed once";
    EXPECT_TRUE(w.poll().empty());
    // Old files keep the id they would have been captured under.
    EXPECT_EQ(store.state().seenByFolder.at("voice-memos-test").at("20240131 142507.m4a").canonicalId,
              "240131-142507");

    add("20240201 090000-ABC.m4a");
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1u);
    EXPECT_EQ(captures[0].canonicalId, "240201-090000");
    EXPECT_EQ(captures[0].folderId, "voice-memos-test");
    EXPECT_EQ(captures[0].sourceURL, folderPath / "20240201 090000-ABC.m4a");
    EXPECT_TRUE(w.poll().empty()) << "a handed-over file is never offered again";
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Voice Memos] new file -- 20240201 090000-ABC.m4a -> 240201-090000"),
              1);
    EXPECT_EQ(test::countLogLines("initial index complete (50 existing files marked seen)"), 1);
}

// What arrived after the folder was first watched is never taken for history, even when the
// first index comes late (the agent died before it ended) or again (the state file was lost):
// only what the vault already holds is marked seen with it.
TEST_F(WatcherFixture, TheFirstIndexLeavesWhatArrivedAfterTheFolderWasFirstWatched)
{
    const auto firstWatched = clock.now();
    ASSERT_EQ(FirstWatched::fix("voice-memos-test", firstWatched), firstWatched);
    clock.advance(std::chrono::minutes(10));
    ASSERT_EQ(FirstWatched::fix("voice-memos-test", clock.now()), firstWatched) << "a kept moment never moves";

    add("20240131 142500.m4a");                                                        // history
    add("20240131 142600.m4a", "new", firstWatched + std::chrono::minutes(1));         // arrived
    add("20240131 142700.m4a", "in the vault", firstWatched + std::chrono::minutes(2)); // captured before
    std::set<std::string> asked;
    FolderWatcher w(voiceMemos(), store, true, clock, probes, nullptr,
                    {.holds = [&](const std::string& id, const fs::path& file) {
                        asked.insert(id);
                        return file.filename() == "20240131 142700.m4a";
                    },
                     .copyOf = {},
                     .retitle = {}});
    EXPECT_EQ(w.runInitialIndex(), 2);
    EXPECT_EQ(asked, (std::set<std::string>{"240131-142600", "240131-142700"})) << "history needs no look";
    EXPECT_TRUE(store.hasSeen("20240131 142500.m4a", "voice-memos-test"));
    EXPECT_EQ(store.state().seenByFolder.at("voice-memos-test").at("20240131 142700.m4a").canonicalId,
              "240131-142700");
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Voice Memos] 1 file(s) arrived after Voice Memos was first "
                                  "watched and are not in the vault; capturing them"),
              1);
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1u);
    EXPECT_EQ(captures[0].canonicalId, "240131-142600");
}

TEST_F(WatcherFixture, AnEmptyFolderIsIndexedAndAnOldIndexKeepsItsMoment)
{
    auto w = watcher(voiceMemos());
    EXPECT_EQ(w.runInitialIndex(), 0);
    EXPECT_TRUE(store.hasSeen(CaptureStateStore::indexedMarker, "voice-memos-test")) << "an empty folder is indexed";
    EXPECT_EQ(FirstWatched::find("voice-memos-test"), clock.now());

    // A folder indexed before moments were kept takes the time of its first entry.
    const auto indexedAt = clock.now() - std::chrono::hours(72);
    store.markIndexed({{"20240131 142500.m4a", "240131-142500"}}, "older-folder", indexedAt);
    store.markSeen("20240131 142600.m4a", "240131-142600", "older-folder", clock.now());
    auto older = voiceMemos();
    older.id = "older-folder";
    EXPECT_EQ(watcher(older).runInitialIndex(), 0);
    EXPECT_EQ(FirstWatched::find("older-folder"), indexedAt);
}

TEST_F(WatcherFixture, CandidatesSkipHiddenAndForeignFilesAndKeepUpperCaseExtensions)
{
    add(".hidden.m4a");
    add("notes.txt");
    add("voice.WAV");
    add("memo.m4a");
    fs::create_directories(folderPath / "folder.m4a");
    auto w = watcher(voiceMemos());
    auto files = w.candidateFiles();
    ASSERT_TRUE(files.has_value());
    std::set<std::string> names;
    for (const auto& file : *files) {
        names.insert(file.filename().string());
    }
    EXPECT_EQ(names, (std::set<std::string>{"voice.WAV", "memo.m4a", "folder.m4a"}));

    fs::remove_all(folderPath);
    EXPECT_FALSE(w.candidateFiles().has_value());
}

TEST_F(WatcherFixture, UnparseableFilesAreSeenForGoodTooShortOnesSkippedAndEmptyOnesDeferred)
{
    auto duration = std::make_shared<double>(12.0);
    probes.duration = [duration](const fs::path&) { return std::optional<double>(*duration); };
    auto w = watcher(voiceMemos());
    w.runInitialIndex();

    add("Renamed by hand.m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(store.hasSeen("Renamed by hand.m4a", "voice-memos-test"));
    EXPECT_EQ(test::countLogLines("unparseable name, marking seen: Renamed by hand.m4a"), 1);
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("unparseable name"), 1);

    // Empty: deferred on every poll until it has content, then captured once.
    add("20240131 142530.m4a", "");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_FALSE(store.hasSeen("20240131 142530.m4a", "voice-memos-test"));
    EXPECT_EQ(test::countLogLines("deferring 20240131 142530.m4a (0-byte file, sync in flight)"), 2);
    add("20240131 142530.m4a", "now with audio");
    EXPECT_EQ(w.poll().size(), 1u);
    EXPECT_TRUE(w.poll().empty());

    // Too short: seen, without an id, and kept as it was judged (see the test below).
    *duration = 0.2;
    add("20240131 150000.m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(store.hasSeen("20240131 150000.m4a", "voice-memos-test"));
    EXPECT_EQ(store.state().seenByFolder.at("voice-memos-test").at("20240131 150000.m4a").canonicalId, "");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("skipping 20240131 150000.m4a (audio too short (0.20s < 0.50s))"), 1)
        << "judged once while it stays the same";
}

TEST_F(WatcherFixture, GenericFolderTakesTheModificationTimeAndItsOwnExtensions)
{
    WatchedFolder folder = WatchedFolder::generic(folderPath.string());
    folder.extensions = {"MP3"};
    probes.modified = [](const fs::path&) {
        return std::optional(std::chrono::system_clock::from_time_t(1706711130)); // 2024-01-31 14:25:30 UTC
    };
    auto w = watcher(folder);
    w.runInitialIndex();
    add("phone call.mp3");
    add("ignored.m4a");
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1u);
    EXPECT_EQ(captures[0].canonicalId, "240131-142530");
    EXPECT_EQ(captures[0].sourceURL.filename(), "phone call.mp3");
}

TEST_F(WatcherFixture, TwoNewFilesInOneTickComeInListingOrder)
{
    CaptureCoordinator coordinator([this] { return std::vector<WatchedFolder>{voiceMemos()}; }, store, {}, clock,
                                   probes, std::chrono::hours(1), std::chrono::hours(1));
    std::vector<std::string> handed;
    coordinator.setOnNewCapture([&](const FolderWatcher::NewCapture& capture) { handed.push_back(capture.canonicalId); });
    add("20240101 000000.m4a");
    coordinator.start();
    coordinator.queue().drain();
    add("20240131 142530.m4a");
    add("20240131 142531.m4a");
    coordinator.queue().sync([&] { coordinator.tick(); });
    std::vector<std::string> listed;
    for (const auto& entry : fs::directory_iterator(folderPath)) {
        auto parsed = entry.path().filename().string();
        if (parsed != "20240101 000000.m4a") {
            listed.push_back(parsed == "20240131 142530.m4a" ? "240131-142530" : "240131-142531");
        }
    }
    EXPECT_EQ(handed, listed);
}

TEST_F(WatcherFixture, NewCapturesAreJournalledBeforeTheyCountAsSeen)
{
    CaptureIntake intake(home.path() / "intake.json");
    FolderWatcher w(voiceMemos(), store, true, clock, probes, &intake);
    w.runInitialIndex();
    add("20240131 142530.m4a");
    ASSERT_EQ(w.poll().size(), 1u);
    auto entries = CaptureIntake(home.path() / "intake.json").entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "20240131 142530.m4a");
    EXPECT_EQ(entries[0].canonicalId, "240131-142530");
    EXPECT_EQ(entries[0].source, folderPath / "20240131 142530.m4a");
}

// A captured file that changes is looked at again once it has stayed the same for a poll: a
// recording that grew (a sync or recorder still writing) replaces its capture under its id,
// one only touched is left alone, and other bytes under the name are another recording.
TEST_F(WatcherFixture, AChangedFileIsTheSameRecordingGrownTouchedOrAnotherRecording)
{
    const fs::path vault = home.path() / "vault";
    fs::create_directories(vault);
    CaptureIntake intake(home.path() / "intake.json");
    FolderWatcher w(voiceMemos(), store, true, clock, probes, &intake,
                    {.holds = [&](const std::string& id, const fs::path&) { return fs::exists(vault / id); },
                     .copyOf = [&](const std::string& id) { return vault / id; },
                     .retitle = {}});
    w.runInitialIndex();
    const std::string name = "20240131 142530.m4a";
    const fs::path file = folderPath / name;
    auto capture = [&](const std::string& id) {  // what the pipeline does with a capture
        fs::copy_file(file, vault / id, fs::copy_options::overwrite_existing);
        intake.remove("voice-memos-test", name, id);
    };
    add(name, "first part");
    auto first = w.poll();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_FALSE(first[0].grown);
    capture(first[0].canonicalId);

    // Grown: handed over again under its id once it has stopped growing, journalled as such.
    std::ofstream(file, std::ios::app) << ", and the rest";
    EXPECT_TRUE(w.poll().empty()) << "still changing";
    auto grown = w.poll();
    ASSERT_EQ(grown.size(), 1u);
    EXPECT_EQ(grown[0], (FolderWatcher::NewCapture{file, "240131-142530", first[0].timestamp, "voice-memos-test", true}));
    ASSERT_EQ(CaptureIntake(home.path() / "intake.json").entries().size(), 1u);
    EXPECT_TRUE(CaptureIntake(home.path() / "intake.json").entries()[0].grown) << "a restart must replace it too";
    capture(grown[0].canonicalId);
    EXPECT_TRUE(w.poll().empty());

    // Touched: the same bytes as its copy; nothing to capture, now or later.
    add(name, "first part, and the rest", clock.now());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());

    // Other bytes under the name (a recorder reusing it): another recording, its own id; the
    // capture of the first stays.
    add(name, "another recording altogether", clock.now());
    EXPECT_TRUE(w.poll().empty());
    auto other = w.poll();
    ASSERT_EQ(other.size(), 1u);
    EXPECT_FALSE(other[0].grown);
    EXPECT_EQ(other[0].canonicalId, "240131-142530_2");

    // A copy that is gone proves nothing: a grown file is then another recording too.
    capture(other[0].canonicalId);
    fs::remove(vault / "240131-142530_2");
    std::ofstream(file, std::ios::app) << " that went on";
    EXPECT_TRUE(w.poll().empty());
    auto unproven = w.poll();
    ASSERT_EQ(unproven.size(), 1u);
    EXPECT_FALSE(unproven[0].grown);
    EXPECT_EQ(unproven[0].canonicalId, "240131-142530_3");
}

// Writes `bytes` over the start of `file` in place (same inode), keeping its modification time.
void rewriteInPlace(const fs::path& file, const std::string& bytes)
{
    const auto modified = fs::last_write_time(file);
    // The status change time moves in ticks of a few milliseconds: a rewrite in the tick of
    // the look before it would leave no trace a person could make happen.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    {
        std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    fs::last_write_time(file, modified);
}

// Skipped as too short is a verdict on the file as it was: one that grows, has its header
// finished, or is rewritten in place with the same size and its modification time put back
// is judged again (and captured when it then passes), also after a restart; one that stays
// the same is judged once.
TEST_F(WatcherFixture, ATooShortFileIsJudgedAgainWhenItChangesAlsoAfterARestart)
{
    // Audio that starts with "L" is long enough; anything else is 0.1 s.
    probes.duration = [](const fs::path& file) {
        return std::optional<double>(test::readFile(file).starts_with("L") ? 12.0 : 0.1);
    };
    auto folder = WatchedFolder::generic(folderPath.string(), std::string("Synced"));
    folder.id = "synced";
    {
        auto w = watcher(folder);
        w.runInitialIndex();
        add("grows.m4a", "short");
        add("rewritten.m4a", "short take");
        add("stays.m4a", "short for good");
        EXPECT_TRUE(w.poll().empty());
        for (const auto* name : {"grows.m4a", "rewritten.m4a", "stays.m4a"}) {
            auto entry = store.seenEntry(name, "synced");
            ASSERT_TRUE(entry) << name;
            EXPECT_EQ(entry->canonicalId, "") << name;
            EXPECT_NE(entry->judged, "") << name;
        }
        EXPECT_TRUE(w.poll().empty());
        EXPECT_EQ(test::countLogLines("skipping stays.m4a (audio too short (0.10s < 0.50s))"), 1);

        // Grown (the recorder went on): captured.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::ofstream(folderPath / "grows.m4a", std::ios::app) << " and then much more";
        test::writeFile(folderPath / "grows.m4a", "L" + test::readFile(folderPath / "grows.m4a"));
        auto grown = w.poll();
        ASSERT_EQ(grown.size(), 1u);
        EXPECT_EQ(grown[0].sourceURL, folderPath / "grows.m4a");
        EXPECT_EQ(store.seenEntry("grows.m4a", "synced")->canonicalId, grown[0].canonicalId);
        EXPECT_TRUE(w.poll().empty());
    }

    // A restart: what stayed the same is not judged again; a file rewritten in place with the
    // same size and its modification time put back, while the agent was stopped, is.
    CaptureStateStore reopened(home.path() / "state.json", home.path() / "legacy.json", clock);
    FolderWatcher w(folder, reopened, true, clock, probes);
    EXPECT_EQ(w.runInitialIndex(), 0);
    EXPECT_TRUE(w.poll().empty());
    rewriteInPlace(folderPath / "rewritten.m4a", "Long take!");
    auto rewritten = w.poll();
    ASSERT_EQ(rewritten.size(), 1u);
    EXPECT_EQ(rewritten[0].sourceURL, folderPath / "rewritten.m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("skipping stays.m4a"), 1);
    EXPECT_EQ(test::countLogLines("new file -- rewritten.m4a -> "), 1);

    // One rewritten and still too short is skipped again, as it is now.
    rewriteInPlace(folderPath / "stays.m4a", "still too short");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("skipping stays.m4a"), 2);
}

// A captured file rewritten in place with other bytes of the same size and its modification
// time put back is noticed (its status change time moved): another recording, captured under
// an id of its own, as other bytes under a used name always are.
TEST_F(WatcherFixture, ACapturedFileRewrittenWithItsTimePutBackIsAnotherRecording)
{
    const fs::path vault = home.path() / "vault";
    fs::create_directories(vault);
    auto folder = WatchedFolder::generic(folderPath.string(), std::string("Synced"));
    folder.id = "synced";
    FolderWatcher w(folder, store, true, clock, probes, nullptr,
                    {.holds = [&](const std::string& id, const fs::path&) { return fs::exists(vault / id); },
                     .copyOf = [&](const std::string& id) { return vault / id; },
                     .retitle = {}});
    w.runInitialIndex();
    add("memo.m4a", "the first recording");
    auto first = w.poll();
    ASSERT_EQ(first.size(), 1u);
    fs::copy_file(folderPath / "memo.m4a", vault / first[0].canonicalId);

    rewriteInPlace(folderPath / "memo.m4a", "THE OTHER recording");
    EXPECT_TRUE(w.poll().empty()) << "changed: looked at again once it has stayed the same for a poll";
    auto other = w.poll();
    ASSERT_EQ(other.size(), 1u);
    EXPECT_FALSE(other[0].grown);
    EXPECT_EQ(other[0].canonicalId, first[0].canonicalId + "_2");
    EXPECT_TRUE(w.poll().empty());
}

// A WAV file captured while its header still said 0 (a recorder paused, that writes the sizes
// when it stops) is the same recording once its sizes are written: grown (its copy replaced
// under its id), whether it went on or its sizes were all that changed.
TEST_F(WatcherFixture, AWavFileWhoseSizesAreWrittenAfterItsCaptureIsTheSameRecordingGrown)
{
    const fs::path vault = home.path() / "vault";
    fs::create_directories(vault);
    auto folder = WatchedFolder::generic(folderPath.string(), std::string("Synced"));
    folder.id = "synced";
    FolderWatcher w(folder, store, true, clock, probes, nullptr,
                    {.holds = [&](const std::string& id, const fs::path&) { return fs::exists(vault / id); },
                     .copyOf = [&](const std::string& id) { return vault / id; },
                     .retitle = {}});
    w.runInitialIndex();
    add("went on.wav", test::wavBytes(8000, 16000, 0));
    add("stopped.wav", test::wavBytes(8000, 16000, 0));
    auto first = w.poll();
    ASSERT_EQ(first.size(), 2u);
    for (const auto& capture : first) {
        fs::copy_file(capture.sourceURL, vault / capture.canonicalId);
    }
    rewriteInPlace(folderPath / "went on.wav", test::wavBytes(8000, 24000));
    rewriteInPlace(folderPath / "stopped.wav", test::wavBytes(8000, 16000));
    EXPECT_TRUE(w.poll().empty());
    auto finished = w.poll();
    ASSERT_EQ(finished.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(finished[i].grown) << finished[i].sourceURL;
        EXPECT_EQ(finished[i].canonicalId, first[i].canonicalId);
    }

    // Other samples behind the header: another recording, as ever.
    fs::copy_file(folderPath / "stopped.wav", vault / first[1].canonicalId, fs::copy_options::overwrite_existing);
    auto other = test::wavBytes(8000, 16000);
    other.back() = 'x';
    rewriteInPlace(folderPath / "stopped.wav", other);
    EXPECT_TRUE(w.poll().empty());
    auto another = w.poll();
    ASSERT_EQ(another.size(), 1u);
    EXPECT_FALSE(another[0].grown);
}

// In a folder that is not Voice Memos, a captured file renamed (same inode, size and time) is
// the same recording, and its bytes under another name (a copy "memo (1).m4a") too: marked
// seen under the first capture's id with one line in the log, never captured again. A file
// of the same size with other bytes is a recording of its own.
TEST_F(WatcherFixture, ARenamedOrCopiedRecordingIsNotCapturedTwice)
{
    const fs::path vault = home.path() / "vault";
    fs::create_directories(vault);
    auto folder = WatchedFolder::generic(folderPath.string(), std::string("Synced"));
    folder.id = "synced";
    FolderWatcher w(folder, store, true, clock, probes, nullptr,
                    {.holds = [&](const std::string& id, const fs::path&) { return fs::exists(vault / id); },
                     .copyOf = [&](const std::string& id) { return vault / id; },
                     .retitle = {}});
    w.runInitialIndex();
    add("memo.m4a", "recording number one");
    auto first = w.poll();
    ASSERT_EQ(first.size(), 1u);
    const auto id = first[0].canonicalId;
    fs::copy_file(folderPath / "memo.m4a", vault / id);

    fs::rename(folderPath / "memo.m4a", folderPath / "meeting.m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("meeting.m4a", "synced")->canonicalId, id);
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Synced] meeting.m4a is memo.m4a renamed (captured as " + id +
                                  "); not capturing it twice"),
              1);

    fs::copy_file(folderPath / "meeting.m4a", folderPath / "meeting (1).m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("meeting (1).m4a", "synced")->canonicalId, id);
    EXPECT_EQ(test::countLogLines("meeting (1).m4a is a copy of "), 1);

    // Without its copy in the vault, the file it was captured from still tells.
    fs::remove(vault / id);
    fs::copy_file(folderPath / "meeting.m4a", folderPath / "meeting (2).m4a");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("meeting (2).m4a", "synced")->canonicalId, id);

    add("other.m4a", "recording number two");  // the same size, other bytes
    auto second = w.poll();
    ASSERT_EQ(second.size(), 1u);
    EXPECT_NE(second[0].canonicalId, id);
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("not capturing it twice"), 3);
}

} // namespace
} // namespace quillet
