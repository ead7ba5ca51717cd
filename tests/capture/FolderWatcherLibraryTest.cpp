#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/capture/FolderWatcher.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "tests/capture/TimeZone.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/LibraryFixture.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::LibraryFixture;

// The Voice Memos folder's watcher with the library beside its recordings: a state store, the
// identities, a vault of copies on disk and a virtual clock.
struct LibraryWatchFixture : ::testing::Test {
    test::ScratchHome home;
    test::FakeClock clock;
    test::TimeZone zone{"UTC"};
    // The Voice Memos folder of the scratch home.
    fs::path folderPath = WatchedFolder::voiceMemos(true).url();
    fs::path vault = home.path() / "vault";
    CaptureStateStore store{home.path() / "state.json", home.path() / "legacy.json", clock};
    CaptureIdentities identities{home.path() / "identities.json"};
    CaptureIntake intake{home.path() / "intake.json"};
    CaptureGuards::Probes probes;
    std::vector<std::tuple<std::string, std::string, std::string>> retitles;
    bool retitleSettles = true;
    std::chrono::system_clock::time_point recorded = clock.now() - std::chrono::hours(2);

    LibraryWatchFixture()
    {
        fs::create_directories(folderPath);
        fs::create_directories(vault);
        probes.duration = [](const fs::path&) { return std::optional<double>(12.0); };
    }

    FolderWatcher watcher()
    {
        WatchedFolder folder = WatchedFolder::voiceMemos(true);
        FolderWatcher::Vault access{
            .holds = [](const std::string&, const fs::path&) { return false; },
            .copyOf = [this](const std::string& id) { return vault / (id + ".m4a"); },
            .retitle =
                [this](const std::string& id, const std::string& from, const std::string& to) {
                    retitles.emplace_back(id, from, to);
                    return retitleSettles;
                },
        };
        return FolderWatcher(folder, store, true, clock, probes, &intake, access, home.path() / "first-watched.json",
                             &identities, home.path() / "copies");
    }

    // A file written `age` ago (a day unless said).
    void add(const std::string& name, const std::string& contents,
             std::chrono::seconds age = std::chrono::hours(24))
    {
        test::writeFile(folderPath / name, contents);
        auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>((clock.now() - age).time_since_epoch()).count();
        timespec times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (folderPath / name).c_str(), times, 0), 0);
    }

    // What the pipeline would do with a capture: copy its bytes into the vault.
    void copyToVault(const FolderWatcher::NewCapture& capture)
    {
        fs::copy_file(capture.sourceURL, vault / (capture.canonicalId + ".m4a"), fs::copy_options::overwrite_existing);
    }

    LibraryFixture::Row row(std::string id, std::string path, std::string title = "")
    {
        return {std::move(id), std::move(path), recorded, 42.0, std::move(title), std::nullopt, false, ""};
    }
};

TEST_F(LibraryWatchFixture, AQtaTheLibraryListsIsCapturedAtOnceWithWhatTheLibraryKnows)
{
    LibraryFixture library(folderPath);
    int folder = library.addFolder("Ideas");
    auto listed = row("REC-1", "20250314 092600.qta", "Grocery list");
    listed.folder = folder;
    library.add(listed);
    auto w = watcher();
    w.runInitialIndex();

    add("20250314 092600.qta", "a finished recording", std::chrono::seconds(5));
    add("20250314 092700.qta", "not in the library", std::chrono::seconds(5));
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1U);
    EXPECT_EQ(captures[0].canonicalId, "250314-092600");
    EXPECT_EQ(captures[0].sourceURL, folderPath / "20250314 092600.qta");
    ASSERT_TRUE(captures[0].recording);
    EXPECT_EQ(captures[0].recording->uniqueId, "REC-1");
    EXPECT_EQ(captures[0].recording->title, "Grocery list");
    EXPECT_EQ(captures[0].recording->folder, "Ideas");
    EXPECT_EQ(test::countLogLines("deferring 20250314 092700.qta (young .qta"), 1)
        << "a .qta the library does not list may still be recording";
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Voice Memos] Voice Memos library readable, 1 recording"), 1);

    ASSERT_TRUE(identities.find("REC-1"));
    EXPECT_EQ(identities.find("REC-1")->canonicalId, "250314-092600");
    ASSERT_EQ(intake.entries().size(), 1U);
    EXPECT_EQ(intake.entries()[0].recording, captures[0].recording) << "a crash before the note keeps the facts";
}

TEST_F(LibraryWatchFixture, OneRecordingMakesOneCaptureWhateverItsFilesDo)
{
    LibraryFixture library(folderPath);
    library.add(row("REC-1", "20250314 092600.qta"));
    library.add(row("REC-2", "20250314 100000.qta"));
    auto w = watcher();
    w.runInitialIndex();

    add("20250314 092600.qta", "spatial audio");
    auto first = w.poll();
    ASSERT_EQ(first.size(), 1U);
    copyToVault(first[0]);

    // Its .m4a joins it later, then the .qta is renamed by hand.
    add("20250314 092600.m4a", "the same recording as AAC");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("20250314 092600.m4a", "voice-memos")->canonicalId, "250314-092600");
    EXPECT_EQ(test::countLogLines("20250314 092600.m4a is the Voice Memos recording 250314-092600 again"), 1);
    // Moved to another Voice Memos folder, and its file renamed by hand: still the same one.
    library.setFolder("REC-1", library.addFolder("Moved"));
    fs::rename(folderPath / "20250314 092600.qta", folderPath / "20250314 092600 (renamed).qta");
    library.exec("UPDATE ZCLOUDRECORDING SET ZPATH = '20250314 092600 (renamed).qta' WHERE ZUNIQUEID = 'REC-1'");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("20250314 092600 (renamed).qta", "voice-memos")->canonicalId, "250314-092600");

    // Both forms of another recording in one poll: the library's own file is taken.
    add("20250314 100000.m4a", "aac form");
    add("20250314 100000.qta", "qta form");
    auto second = w.poll();
    ASSERT_EQ(second.size(), 1U);
    EXPECT_EQ(second[0].sourceURL.filename(), "20250314 100000.qta");
    copyToVault(second[0]);
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(store.hasSeen("20250314 100000.m4a", "voice-memos"));
    EXPECT_TRUE(w.poll().empty());
}

TEST_F(LibraryWatchFixture, AnEditInVoiceMemosReplacesTheCaptureUnderItsId)
{
    LibraryFixture library(folderPath);
    library.add(row("REC-1", "20250314 092600.qta", "Take one"));
    library.setDigest("REC-1", "one");
    auto w = watcher();
    w.runInitialIndex();
    add("20250314 092600.qta", "the first take");
    auto first = w.poll();
    ASSERT_EQ(first.size(), 1U);
    copyToVault(first[0]);

    // Trimmed in Voice Memos: other bytes (not a longer file) in the same file.
    add("20250314 092600.qta", "trimmed take", std::chrono::hours(1));
    EXPECT_TRUE(w.poll().empty()) << "a changed file waits for a poll without change";
    auto edited = w.poll();
    ASSERT_EQ(edited.size(), 1U);
    EXPECT_TRUE(edited[0].grown);
    EXPECT_EQ(edited[0].canonicalId, "250314-092600");
    copyToVault(edited[0]);

    // A new file of it with a new digest (Voice Memos converting it) is no second upload.
    library.exec("UPDATE ZCLOUDRECORDING SET ZPATH = '20250314 092600.m4a' WHERE ZUNIQUEID = 'REC-1'");
    library.setDigest("REC-1", "two");
    add("20250314 092600.m4a", "the same take as AAC");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(store.seenEntry("20250314 092600.m4a", "voice-memos")->canonicalId, "250314-092600");

    // Edited again in its own file.
    add("20250314 092600.qta", "trimmed take, and trimmed again", std::chrono::minutes(30));
    w.poll();
    auto again = w.poll();
    ASSERT_EQ(again.size(), 1U);
    EXPECT_TRUE(again[0].grown);
    EXPECT_EQ(again[0].canonicalId, "250314-092600");
}

TEST_F(LibraryWatchFixture, WhatThePersonDeletedFirstIsNotCapturedUntilPutBack)
{
    LibraryFixture library(folderPath);
    auto gone = row("REC-1", "20250314 092600.qta");
    gone.deleted = true;
    library.add(gone);
    auto w = watcher();
    w.runInitialIndex();
    add("20250314 092600.qta", "thrown away");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(test::countLogLines("20250314 092600.qta is in Recently Deleted in Voice Memos; not capturing it"), 1)
        << "said once";
    EXPECT_FALSE(store.hasSeen("20250314 092600.qta", "voice-memos"));

    library.setDeleted("REC-1", false);
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1U);

    // Deleting it after its capture changes nothing.
    copyToVault(captures[0]);
    library.setDeleted("REC-1", true);
    EXPECT_TRUE(w.poll().empty());
    EXPECT_EQ(identities.find("REC-1")->canonicalId, "250314-092600");
}

TEST_F(LibraryWatchFixture, RecordingsThereBeforeTheFirstIndexStayHistoryInEveryForm)
{
    LibraryFixture library(folderPath);
    library.add(row("OLD-1", "20240101 080000.qta", "Old"));
    add("20240101 080000.qta", "old recording");
    auto w = watcher();
    EXPECT_EQ(w.runInitialIndex(), 1);
    ASSERT_TRUE(identities.find("OLD-1"));
    EXPECT_EQ(identities.find("OLD-1")->canonicalId, "");

    add("20240101 080000.m4a", "its aac form, arriving late");
    EXPECT_TRUE(w.poll().empty());
    EXPECT_TRUE(store.hasSeen("20240101 080000.m4a", "voice-memos"));
}

TEST_F(LibraryWatchFixture, ARenameInVoiceMemosReachesTheNoteAndIsAskedAgainUntilSettled)
{
    LibraryFixture library(folderPath);
    library.add(row("REC-1", "20250314 092600.qta", "Draft"));
    auto w = watcher();
    w.runInitialIndex();
    add("20250314 092600.qta", "audio");
    ASSERT_EQ(w.poll().size(), 1U);
    EXPECT_TRUE(retitles.empty());

    library.setTitle("REC-1", "Final title");
    retitleSettles = false;  // the capture is busy
    w.poll();
    w.poll();
    ASSERT_EQ(retitles.size(), 2U);
    EXPECT_EQ(retitles[0], std::make_tuple(std::string("250314-092600"), std::string("Draft"),
                                           std::string("Final title")));
    retitleSettles = true;
    w.poll();
    w.poll();
    EXPECT_EQ(retitles.size(), 3U) << "settled once";
    EXPECT_EQ(identities.find("REC-1")->title, "Final title");
}

TEST_F(LibraryWatchFixture, ARecordingWaitingADayForItsDownloadIsNamedOnce)
{
    LibraryFixture library(folderPath);
    std::vector<std::string> heard;
    struct Unlisten {
        ~Unlisten() { EnvironmentCheck::setListener({}); }
    } unlisten;
    EnvironmentCheck::setListener(
        [&](const EnvironmentCheck::Notice& notice) { heard.push_back(notice.title + ": " + notice.body); });
    auto w = watcher();
    w.runInitialIndex();
    auto waiting = row("LATE", "20250314 092600.qta", "Still in iCloud");
    waiting.date = clock.now() + std::chrono::minutes(1);
    library.add(waiting);
    // Nothing of it in the folder yet: no audio file at all.
    EXPECT_TRUE(w.poll(w.listing()).empty());
    clock.advance(std::chrono::hours(12));
    w.poll();
    EXPECT_EQ(test::countLogLines("waited more than a day"), 0);
    // A day on, with no change of the library in between.
    clock.advance(std::chrono::hours(13));
    w.poll();
    clock.advance(std::chrono::hours(2));
    w.poll();
    EXPECT_EQ(test::countLogLines("[quillet] capture: [Voice Memos] \"Still in iCloud\" (20250314 092600.qta) has "
                                  "waited more than a day for its audio to download from iCloud"),
              1);
    // The person hears of it once (the running agent's desktop).
    EXPECT_EQ(heard, (std::vector<std::string>{"Voice Memos recording not downloaded: \"Still in iCloud\" has "
                                               "waited more than a day for its audio to come from iCloud. Open Voice "
                                               "Memos so that it downloads; it is captured then."}));
    add("20250314 092600.qta", "downloaded at last", std::chrono::seconds(30));
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1U);
    EXPECT_EQ(captures[0].recording->title, "Still in iCloud");
}

// A folder indexed before .qta files were recordings: its old ones are history, those made
// since it was first watched were missed and are captured now, once in either form.
TEST_F(LibraryWatchFixture, AFolderIndexedBeforeQtaFilesCountedKeepsItsOldOnesAndTakesTheMissedOnes)
{
    const auto firstWatched = clock.now() - std::chrono::hours(24 * 10);
    FirstWatched::fix("voice-memos", firstWatched, home.path() / "first-watched.json");
    add("20231101 080000.m4a", "an old recording", std::chrono::hours(24 * 13));
    add("20231101 080000.qta", "its old .qta", std::chrono::hours(24 * 13));
    add("20231102 080000.qta", "an old .qta alone", std::chrono::hours(24 * 12));
    store.markIndexed({{"20231101 080000.m4a", "231101-080000"}}, "voice-memos", firstWatched);
    add("20231110 080000.qta", "made after setup, never captured", std::chrono::hours(24));

    auto w = watcher();
    EXPECT_EQ(w.runInitialIndex(), 0);
    EXPECT_TRUE(store.hasSeen("20231102 080000.qta", "voice-memos"));
    EXPECT_EQ(test::countLogLines("2 .qta recording(s) from before Voice Memos was first watched marked seen"), 1);
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 1U);
    EXPECT_EQ(captures[0].sourceURL.filename(), "20231110 080000.qta");
    copyToVault(captures[0]);

    // A second start indexes nothing again; the .m4a of the captured one is the same recording.
    auto again = watcher();
    EXPECT_EQ(again.runInitialIndex(), 0);
    EXPECT_EQ(test::countLogLines(".qta recording(s) from before"), 1);
    add("20231110 080000.m4a", "the same recording as AAC");
    EXPECT_TRUE(again.poll().empty());
    EXPECT_EQ(store.seenEntry("20231110 080000.m4a", "voice-memos")->canonicalId, "231110-080000");
    EXPECT_EQ(test::countLogLines("20231110 080000.m4a is another form of 20231110 080000.qta; not capturing it twice"),
              1);
}

TEST_F(LibraryWatchFixture, WithALibraryThatCannotBeReadCaptureGoesOnFromFiles)
{
    test::writeFile(folderPath / "CloudRecordings.db", std::string(8192, '\x7f'));
    auto w = watcher();
    w.runInitialIndex();
    add("20250314 092600.m4a", "audio");
    add("20250314 092700.qta", "audio", std::chrono::hours(1));
    auto captures = w.poll();
    ASSERT_EQ(captures.size(), 2U) << "an old .qta without its twin is captured, as without a library";
    EXPECT_FALSE(captures[0].recording);
    w.poll();
    EXPECT_EQ(test::countLogLines("Voice Memos library damaged ("), 1) << "said once, not per poll";
}

} // namespace
} // namespace quillet
