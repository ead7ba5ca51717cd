#include "quillet_capture/capture/CaptureImport.hpp"

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

} // namespace
} // namespace quillet
