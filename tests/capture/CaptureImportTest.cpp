#include "quillet_capture/capture/CaptureImport.hpp"

#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/capture/TimeZone.hpp"
#include "tests/support/LibraryFixture.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

// The Voice Memos folder of a scratch home, a state store on scratch files, and a fixed
// time zone in which days begin at known instants.
struct CaptureImportTest : ::testing::Test {
    test::ScratchHome home;
    fs::path folder = Paths::voiceMemosCandidates().front();
    test::TimeZone zone{"Pacific/Auckland"};
    std::unique_ptr<CaptureStateStore> store =
        std::make_unique<CaptureStateStore>(home.path() / "state.json", home.path() / "legacy.json");

    void recordings(const Names& names)
    {
        for (const auto& name : names) {
            test::writeFile(folder / name, "audio");
        }
    }

    static std::chrono::system_clock::time_point day(const std::string& text)
    {
        auto parsed = parseLocalDay(text);
        EXPECT_TRUE(parsed) << text;
        return parsed.value_or(std::chrono::system_clock::time_point());
    }
};

TEST_F(CaptureImportTest, PicksAudioNamesSortedAndFiltersByTheDayInTheName)
{
    recordings({"20240201 000000.m4a", "20240131 235959.m4a", "20240315 101010-AB12.M4A", "20240220 080000.wav",
                "Interview.m4a", ".20240301 120000.m4a", "20240302 120000.aac", "notes.txt", "20240303", "2024.m4a"});
    fs::create_directories(folder / "20240304 000000.txt");

    auto all = CaptureImport::voiceMemosRecordings(std::nullopt);
    EXPECT_EQ(all.folder.id, "voice-memos");
    EXPECT_TRUE(all.folder.enabled);
    EXPECT_EQ(all.folder.path, folder.string());
    EXPECT_EQ(all.names, (Names{".20240301 120000.m4a", "2024.m4a", "20240131 235959.m4a", "20240201 000000.m4a",
                                "20240220 080000.wav", "20240315 101010-AB12.M4A", "Interview.m4a"}));

    // The day of `since` in the local time zone decides, whatever its time of day.
    for (auto since : {day("2024-02-01"), day("2024-02-01") + std::chrono::hours(23) + std::chrono::minutes(59)}) {
        EXPECT_EQ(CaptureImport::voiceMemosRecordings(since).names,
                  (Names{"20240201 000000.m4a", "20240220 080000.wav", "20240315 101010-AB12.M4A"}));
    }
    // 2024-02-01 00:30 in Auckland is still 31 January in UTC: the local day counts.
    EXPECT_EQ(CaptureImport::voiceMemosRecordings(day("2024-02-01") + std::chrono::minutes(30)).names.front(),
              "20240201 000000.m4a");
    EXPECT_TRUE(CaptureImport::voiceMemosRecordings(day("2024-03-16")).names.empty());
}

TEST_F(CaptureImportTest, QueueingForgetsThePickedNamesAndKeepsTheFolderIndexed)
{
    recordings({"20240110 090000.m4a", "20240210 090000.m4a", "20240211 090000.m4a"});
    // Nothing picked touches nothing.
    auto none = CaptureImport::queueExisting(day("2024-03-01"), *store);
    EXPECT_EQ(none.picked, 0);
    EXPECT_EQ(none.wereSeen, 0);
    EXPECT_EQ(store->seenCount(), 0u);
    EXPECT_EQ(test::countLogLines("capture import:"), 0);

    store->markIndexed({{"20240110 090000.m4a", ""}, {"20240210 090000.m4a", ""}, {"elsewhere.m4a", ""}});

    auto result = CaptureImport::queueExisting(day("2024-02-01"), *store);
    EXPECT_EQ(result.folderPath, folder.string());
    EXPECT_EQ(result.picked, 2);
    EXPECT_EQ(result.wereSeen, 1);
    EXPECT_TRUE(store->hasSeen("20240110 090000.m4a"));
    EXPECT_FALSE(store->hasSeen("20240210 090000.m4a"));
    EXPECT_TRUE(store->hasSeen("elsewhere.m4a"));
    EXPECT_TRUE(store->hasSeen(CaptureStateStore::indexedMarker));
    EXPECT_EQ(test::countLogLines("[quillet] capture import: 2 recordings from " + folder.string() +
                                  " queued (1 were marked seen)"),
              1);

    // Again before the agent polled: the same pick, nothing left to forget.
    result = CaptureImport::queueExisting(day("2024-02-01"), *store);
    EXPECT_EQ(result.picked, 2);
    EXPECT_EQ(result.wereSeen, 0);

    // Without a date everything goes, and the change is on disk.
    result = CaptureImport::queueExisting(std::nullopt, *store);
    EXPECT_EQ(result.picked, 3);
    EXPECT_EQ(result.wereSeen, 1);
    CaptureStateStore reread(home.path() / "state.json", home.path() / "legacy.json");
    EXPECT_FALSE(reread.hasSeen("20240110 090000.m4a"));
    EXPECT_TRUE(reread.hasSeen(CaptureStateStore::indexedMarker));
}

TEST_F(CaptureImportTest, TheLibraryTitlesWhatIsQueuedAndKeepsWhatWasDeleted)
{
    recordings({"20250301 090000.qta", "20250302 090000.qta", "20250303 090000.m4a", "20250304 090000.qta"});
    test::LibraryFixture library(folder);
    const auto when = day("2025-03-01");
    library.add({"TITLED", "20250301 090000.qta", when, 3.0, "Interview with Ana", std::nullopt, false, ""});
    library.add({"GONE", "20250302 090000.qta", when, 3.0, "Thrown away", std::nullopt, true, ""});
    library.add({"PLAIN", "20250303 090000.qta", when, 3.0, "", std::nullopt, false, ""});
    CaptureIdentities identities(home.path() / "identities.json");
    identities.record({{"TITLED", {"", "20250301 090000.qta", "", "Interview with Ana"}},
                       {"PLAIN", {"250303-090000", "20250303 090000.m4a", "", ""}}});

    auto result = CaptureImport::queueExisting(std::nullopt, *store, &identities);
    EXPECT_EQ(result.picked, 3) << "a .qta is a recording, one in Recently Deleted is not";
    EXPECT_EQ(result.deleted, 1);
    EXPECT_EQ(result.titles, (std::vector<std::pair<std::string, std::string>>{
                                 {"20250301 090000.qta", "Interview with Ana"}}));
    EXPECT_FALSE(identities.find("TITLED")) << "an imported recording is history no longer";
    EXPECT_TRUE(identities.find("PLAIN")) << "a captured one stays what it became";
}

TEST_F(CaptureImportTest, AFolderThatCannotBeListedIsUnreadable)
{
    try {
        CaptureImport::queueExisting(std::nullopt, *store);
        ADD_FAILURE() << "a missing folder was listed";
    } catch (const CaptureImport::Failure& failure) {
        EXPECT_EQ(failure.kind(), CaptureImport::Failure::Kind::unreadable);
        EXPECT_EQ(failure.path(), folder.string());
        EXPECT_EQ(failure.reason(), "No such file or directory");
        EXPECT_EQ(std::string(failure.what()), "Cannot read " + folder.string() + ": No such file or directory");
    }
    EXPECT_EQ(store->seenCount(), 0u);

    if (::geteuid() == 0) {
        return;  // root lists any folder
    }
    recordings({"20240101 000000.m4a"});
    fs::permissions(folder, fs::perms::none);
    try {
        CaptureImport::voiceMemosRecordings(std::nullopt);
        ADD_FAILURE() << "a folder without permission was listed";
    } catch (const CaptureImport::Failure& failure) {
        EXPECT_EQ(failure.reason(), "Permission denied");
    }
    fs::permissions(folder, fs::perms::owner_all);
}


// Generic folders: what was there before the folder was first watched, kept as history by the
// agent's first index, is offered; what came later is the agent's own to catch.
struct FolderImportTest : CaptureImportTest {
    using TimePoint = std::chrono::system_clock::time_point;
    fs::path moments = home.path() / "first-watched.json";
    TimePoint firstWatched = std::chrono::system_clock::now() - std::chrono::hours(1);

    // A folder as the agent leaves it after its first index: its moment kept and the files
    // `history` marked seen as there before it.
    WatchedFolder watched(const std::string& name, const Names& history)
    {
        auto folder = WatchedFolder::generic((home.path() / name).string());
        fs::create_directories(folder.url());
        FirstWatched::fix(folder.id, firstWatched, moments);
        std::vector<CaptureStateStore::SeenName> seen;
        for (const auto& file : history) {
            seen.push_back({file, "id-" + file});
        }
        store->markIndexed(seen, folder.id);
        return folder;
    }

    // A file of `bytes` whose modification time is `modified`.
    static void place(const fs::path& file, const std::string& bytes, TimePoint modified)
    {
        test::writeFile(file, bytes);
        auto offset = std::chrono::duration_cast<fs::file_time_type::duration>(modified - std::chrono::system_clock::now());
        fs::last_write_time(file, fs::file_time_type::clock::now() + offset);
    }

    TimePoint daysBefore(int days) const { return firstWatched - std::chrono::hours(24 * days); }

    std::vector<CaptureImport::Result> run(const std::vector<WatchedFolder>& folders,
                                           std::optional<TimePoint> since, CaptureImport::Mode mode,
                                           const CaptureImport::RemovedFromFolder& removed = nullptr,
                                           const CaptureImport::Progress& progress = nullptr)
    {
        return CaptureImport::queueFolders(folders, since, *store, nullptr, removed, mode, progress, moments);
    }

    static Names namesOf(const CaptureImport::Result& result)
    {
        Names names;
        for (const auto& recording : result.recordings) {
            names.push_back(recording.name);
        }
        return names;
    }
};

TEST_F(FolderImportTest, OffersWhatWasThereBeforeTheFirstWatchAndNothingThatCameLater)
{
    auto folder = watched("Synced", {"old talk.m4a", "older talk.WAV", "captured.m4a", "notes.txt"});
    const auto root = folder.url();
    place(root / "old talk.m4a", "old talk", daysBefore(2));
    place(root / "older talk.WAV", "older talk", daysBefore(10));
    place(root / "captured.m4a", "captured", daysBefore(3));
    place(root / "notes.txt", "not audio", daysBefore(3));
    place(root / ".hidden.m4a", "hidden", daysBefore(3));
    place(root / "arrived later.m4a", "later", firstWatched + std::chrono::minutes(10));
    store->markSeen("captured.m4a", "id-captured", folder.id, std::nullopt, "8:1:2:3:4");
    const auto stateBefore = test::readFile(home.path() / "state.json");

    // A dry run lists, dated by the file, and changes nothing.
    auto dry = run({folder}, std::nullopt, CaptureImport::Mode::dryRun);
    ASSERT_EQ(dry.size(), 1u);
    EXPECT_EQ(namesOf(dry[0]), (Names{"old talk.m4a", "older talk.WAV"}));
    ASSERT_TRUE(dry[0].recordings[0].date);
    EXPECT_LT(std::chrono::abs(*dry[0].recordings[0].date - daysBefore(2)), std::chrono::seconds(1));
    EXPECT_EQ(dry[0].folderPath, root.string());
    EXPECT_EQ(test::readFile(home.path() / "state.json"), stateBefore);
    EXPECT_TRUE(store->hasSeen("old talk.m4a", folder.id));
    EXPECT_EQ(test::countLogLines("capture import:"), 0);

    // --since: by the file's date.
    auto since = run({folder}, daysBefore(5), CaptureImport::Mode::queue);
    EXPECT_EQ(namesOf(since[0]), (Names{"old talk.m4a"}));
    EXPECT_EQ(since[0].wereSeen, 1);
    EXPECT_FALSE(store->hasSeen("old talk.m4a", folder.id));
    EXPECT_TRUE(store->hasSeen("older talk.WAV", folder.id));

    // Everything: the captured file stays captured, the later one is left to the agent.
    auto all = run({folder}, std::nullopt, CaptureImport::Mode::queue);
    EXPECT_EQ(all[0].picked, 2);
    EXPECT_EQ(all[0].wereSeen, 1) << "old talk was forgotten already";
    CaptureStateStore reread(home.path() / "state.json", home.path() / "legacy.json");
    EXPECT_FALSE(reread.hasSeen("older talk.WAV", folder.id));
    EXPECT_TRUE(reread.hasSeen("captured.m4a", folder.id)) << "a captured recording is not queued again";
    EXPECT_TRUE(reread.hasSeen(CaptureStateStore::indexedMarker, folder.id));
    EXPECT_FALSE(reread.hasSeen("arrived later.m4a", folder.id));
    EXPECT_EQ(test::countLogLines("[quillet] capture import: 2 recordings from " + root.string() +
                                  " queued (1 were marked seen)"),
              1);

    // A folder the agent has not indexed yet has no history: nothing is taken from it.
    auto fresh = WatchedFolder::generic((home.path() / "Fresh").string());
    place(fresh.url() / "waiting.m4a", "waiting", daysBefore(1));
    auto none = run({fresh}, std::nullopt, CaptureImport::Mode::queue);
    EXPECT_TRUE(none[0].notIndexed);
    EXPECT_EQ(none[0].picked, 0);
    EXPECT_EQ(store->seenCount(fresh.id), 0u) << "still the agent's first index to make";
}

TEST_F(FolderImportTest, SeveralFoldersQueueEachRecordingOnceAndLeaveOutWhatThePersonRemoved)
{
    auto first = watched("Phone", {"talk.m4a", "a.m4a"});
    auto second = watched("Laptop", {"copy of talk.m4a", "b.m4a", "gone.m4a"});
    place(first.url() / "talk.m4a", "the same talk", daysBefore(4));
    place(first.url() / "a.m4a", "recording a", daysBefore(4));
    place(second.url() / "copy of talk.m4a", "the same talk", daysBefore(3));
    place(second.url() / "b.m4a", "recording b", daysBefore(3));
    place(second.url() / "gone.m4a", "removed note", daysBefore(3));
    // Captured from the first folder already; its copy in the second is history there.
    place(first.url() / "captured.m4a", "a captured talk", daysBefore(4));
    store->markSeen("captured.m4a", "id-captured", first.id, std::nullopt, "15:1:2:3:4");
    place(second.url() / "captured elsewhere.m4a", "a captured talk", daysBefore(3));
    store->markIndexed({{"captured elsewhere.m4a", "id-elsewhere"}}, second.id);
    auto missing = WatchedFolder::generic((home.path() / "Unplugged").string());
    auto removed = [&](const std::string& folderId, const std::string& name) {
        return folderId == second.id && name == "gone.m4a";
    };
    std::vector<std::pair<int, int>> reports;
    auto results = run({first, second, missing}, std::nullopt, CaptureImport::Mode::queue, removed,
                       [&](int done, int total) { reports.emplace_back(done, total); });

    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(namesOf(results[0]), (Names{"a.m4a", "talk.m4a"}));
    EXPECT_EQ(namesOf(results[1]), (Names{"b.m4a"}));
    EXPECT_EQ(results[1].duplicates, 2) << "the same audio in two folders is one recording";
    EXPECT_EQ(results[1].removed, 1);
    EXPECT_TRUE(results[2].missing);
    EXPECT_FALSE(store->hasSeen("talk.m4a", first.id));
    EXPECT_FALSE(store->hasSeen("b.m4a", second.id));
    EXPECT_TRUE(store->hasSeen("copy of talk.m4a", second.id));
    EXPECT_TRUE(store->hasSeen("captured elsewhere.m4a", second.id)) << "captured from the first folder already";
    EXPECT_TRUE(store->hasSeen("gone.m4a", second.id)) << "a removed note's recording is not offered again";
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), (std::pair<int, int>{3, 3}));

    // A folder that is there but cannot be read stops everything before anything is queued.
    if (::geteuid() == 0) {
        return;  // root lists any folder
    }
    store->markIndexed({{"a.m4a", "id-a"}}, first.id);
    fs::permissions(second.url(), fs::perms::none);
    EXPECT_THROW(run({first, second}, std::nullopt, CaptureImport::Mode::queue), CaptureImport::Failure);
    fs::permissions(second.url(), fs::perms::owner_all);
    EXPECT_TRUE(store->hasSeen("a.m4a", first.id));
}

} // namespace
} // namespace quillet
