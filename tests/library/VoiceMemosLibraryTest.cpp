#include "quillet_capture/library/VoiceMemosLibrary.hpp"

#include "tests/support/LibraryFixture.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Health = VoiceMemosLibrary::Health;
using test::LibraryFixture;

struct LibraryTest : ::testing::Test {
    test::ScratchDir scratch;
    fs::path folder = scratch.path() / "Recordings";
    fs::path copies = scratch.path() / "private";
    std::chrono::system_clock::time_point recorded =
        std::chrono::sys_days(std::chrono::year(2025) / 3 / 14) + std::chrono::hours(9) + std::chrono::minutes(26);

    VoiceMemosLibrary library() { return VoiceMemosLibrary(folder, copies); }
};

TEST_F(LibraryTest, RowsStillInTheWriteAheadLogAreReadAndNothingOfTheLibraryChanges)
{
    LibraryFixture fixture(folder);
    int work = fixture.addFolder("Work");
    fixture.add({"A1B2", "20250314 092600.qta", recorded, 62.5, "Standup notes", work, false, std::string("\x01\xAB", 2)});
    fixture.add({"C3D4", "/private/var/mobile/Recordings/20250315 101010.m4a", recorded + std::chrono::hours(25), 3.0,
                 "", std::nullopt, true, ""});
    ASSERT_TRUE(fs::exists(folder / "CloudRecordings.db-wal"));
    auto database = test::factsOf(folder / "CloudRecordings.db");
    auto wal = test::factsOf(folder / "CloudRecordings.db-wal");

    auto reader = library();
    EXPECT_TRUE(reader.refresh());
    EXPECT_EQ(reader.health(), Health::readable) << reader.detail();
    ASSERT_EQ(reader.recordings().size(), 2U);
    const auto& first = reader.recordings()[0];
    EXPECT_EQ(first.uniqueId, "A1B2");
    EXPECT_EQ(first.fileName, "20250314 092600.qta");
    EXPECT_EQ(first.title, "Standup notes");
    EXPECT_EQ(first.folder, "Work");
    EXPECT_EQ(first.digest, "01ab");
    ASSERT_TRUE(first.date);
    EXPECT_EQ(std::chrono::round<std::chrono::seconds>(*first.date), recorded);
    EXPECT_EQ(first.duration, 62.5);
    EXPECT_FALSE(first.deleted);
    const auto& second = reader.recordings()[1];
    EXPECT_EQ(second.fileName, "20250315 101010.m4a") << "an absolute path counts by its last component";
    EXPECT_TRUE(second.deleted);
    EXPECT_EQ(second.title, "");
    EXPECT_EQ(second.folder, "");
    EXPECT_EQ(reader.summary(), "readable, 2 recordings");

    EXPECT_EQ(reader.byFile("20250314 092600.qta"), &first);
    EXPECT_EQ(reader.byTwin("20250314 092600.m4a"), &first) << "the other form of the recording";
    EXPECT_EQ(reader.byTwin("20250314 092600.qta"), nullptr) << "its own file is no twin";
    EXPECT_EQ(reader.byId("C3D4"), &second);
    EXPECT_EQ(reader.byFile("20250314 092601.qta"), nullptr);

    EXPECT_EQ(test::factsOf(folder / "CloudRecordings.db"), database);
    EXPECT_EQ(test::factsOf(folder / "CloudRecordings.db-wal"), wal);
}

TEST_F(LibraryTest, AnUnchangedLibraryIsNotReadAgainAndAChangedOneIs)
{
    LibraryFixture fixture(folder);
    fixture.add({"A1B2", "20250314 092600.qta", recorded, 62.5, "Standup", std::nullopt, false, ""});
    auto reader = library();
    ASSERT_TRUE(reader.refresh());
    EXPECT_EQ(reader.reads(), 1);
    for (int poll = 0; poll < 5; ++poll) {
        EXPECT_FALSE(reader.refresh());
    }
    EXPECT_EQ(reader.reads(), 1) << "an unchanged library costs no read";

    fixture.setTitle("A1B2", "Standup, renamed");
    EXPECT_TRUE(reader.refresh());
    EXPECT_EQ(reader.byId("A1B2")->title, "Standup, renamed");
    fixture.add({"E5F6", "20250316 080000.qta", recorded, 1.0, "", std::nullopt, false, ""});
    EXPECT_TRUE(reader.refresh());
    EXPECT_EQ(reader.recordings().size(), 2U);
    fixture.setDeleted("E5F6", true);
    EXPECT_TRUE(reader.refresh());
    EXPECT_TRUE(reader.byId("E5F6")->deleted);
}

TEST_F(LibraryTest, AnOlderLayoutGivesTheTitlesItHas)
{
    LibraryFixture fixture(folder, LibraryFixture::Schema::old);
    fixture.add({"OLD1", "20190101 101010.m4a", recorded, 4.0, "Label only", std::nullopt, false, ""});
    auto reader = library();
    reader.refresh();
    ASSERT_EQ(reader.health(), Health::readable) << reader.detail();
    ASSERT_EQ(reader.recordings().size(), 1U);
    EXPECT_EQ(reader.recordings()[0].title, "Label only");
    EXPECT_EQ(reader.recordings()[0].folder, "");
    EXPECT_EQ(reader.recordings()[0].digest, "");
}

TEST_F(LibraryTest, RowsOfUnexpectedTypesAreReadAsWellAsTheyCanBe)
{
    LibraryFixture fixture(folder);
    fixture.exec("INSERT INTO ZCLOUDRECORDING (ZUNIQUEID, ZPATH, ZDATE, ZDURATION, ZENCRYPTEDTITLE, ZFOLDER) "
                 "VALUES (42, 'x.qta', 'yesterday', 'long', X'4869', 99)");
    fixture.exec("INSERT INTO ZCLOUDRECORDING (ZUNIQUEID, ZPATH) VALUES (NULL, 'no-id.qta')");
    fixture.exec("INSERT INTO ZCLOUDRECORDING (ZUNIQUEID, ZPATH, ZDURATION, ZDATE) VALUES ('N', NULL, -3, 1e300)");
    auto reader = library();
    reader.refresh();
    ASSERT_EQ(reader.health(), Health::readable) << reader.detail();
    ASSERT_EQ(reader.recordings().size(), 2U) << "a row without an id cannot be followed";
    EXPECT_EQ(reader.recordings()[0].uniqueId, "42");
    EXPECT_EQ(reader.recordings()[0].title, "") << "bytes are no title";
    EXPECT_FALSE(reader.recordings()[0].date);
    EXPECT_FALSE(reader.recordings()[0].duration);
    EXPECT_EQ(reader.recordings()[0].folder, "") << "a folder that is not there";
    EXPECT_EQ(reader.recordings()[1].fileName, "");
    EXPECT_FALSE(reader.recordings()[1].duration);
    EXPECT_FALSE(reader.recordings()[1].date) << "a date past any calendar";
}

TEST_F(LibraryTest, ALibraryThatCannotBeUsedSaysWhyAndKeepsNothingStale)
{
    {
        auto reader = library();
        reader.refresh();
        EXPECT_EQ(reader.health(), Health::absent);
        EXPECT_EQ(reader.summary(), "not found");
    }
    {
        LibraryFixture fixture(folder, LibraryFixture::Schema::withoutRecordings);
        auto reader = library();
        reader.refresh();
        EXPECT_EQ(reader.health(), Health::unknownSchema);
        EXPECT_EQ(reader.summary(),
                  "of an unknown layout (no table ZCLOUDRECORDING); recordings are captured from their files alone");
        EXPECT_TRUE(reader.recordings().empty());
    }
    fs::remove_all(folder);
    fs::create_directories(folder);
    test::writeFile(folder / "CloudRecordings.db", std::string(4096, 'x'));
    auto reader = library();
    reader.refresh();
    EXPECT_EQ(reader.health(), Health::corrupt) << reader.detail();
    EXPECT_TRUE(reader.summary().starts_with("damaged (")) << reader.summary();
    EXPECT_FALSE(reader.refresh()) << "the same damage is not news";
}

TEST_F(LibraryTest, ALockedLibraryIsLookedAtAgainAndReadOnceFree)
{
    auto fixture = std::make_unique<LibraryFixture>(folder);
    fixture->add({"A1B2", "20250314 092600.qta", recorded, 62.5, "Standup", std::nullopt, false, ""});
    fixture->lockExclusively();
    auto reader = library();
    reader.refresh();
    EXPECT_EQ(reader.health(), Health::locked) << reader.detail();
    EXPECT_EQ(reader.summary(), "busy in Voice Memos; looked at again at the next poll");
    fixture.reset();  // Voice Memos lets go
    EXPECT_TRUE(reader.refresh());
    EXPECT_EQ(reader.health(), Health::readable) << reader.detail();
    EXPECT_EQ(reader.recordings().size(), 1U);
}

TEST_F(LibraryTest, WithoutItsWriteAheadLogTheLibraryIsReadFromACopyAndNothingIsAddedBesideIt)
{
    {
        LibraryFixture fixture(folder);
        fixture.add({"A1B2", "20250314 092600.qta", recorded, 62.5, "Standup", std::nullopt, false, ""});
    }
    ASSERT_FALSE(fs::exists(folder / "CloudRecordings.db-wal"));
    auto database = test::factsOf(folder / "CloudRecordings.db");
    auto reader = library();
    reader.refresh();
    EXPECT_EQ(reader.health(), Health::readable) << reader.detail();
    EXPECT_EQ(reader.recordings().size(), 1U);
    EXPECT_EQ(test::factsOf(folder / "CloudRecordings.db"), database);
    EXPECT_FALSE(fs::exists(folder / "CloudRecordings.db-wal"));
    EXPECT_FALSE(fs::exists(folder / "CloudRecordings.db-shm"));
    EXPECT_TRUE(fs::is_empty(copies)) << "the private copies go when read";
}

TEST_F(LibraryTest, ALibraryThisProgramMayNotReadIsSaidToBeUnreadable)
{
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root reads every file";
    }
    LibraryFixture fixture(folder);
    fixture.add({"A1B2", "20250314 092600.qta", recorded, 62.5, "Standup", std::nullopt, false, ""});
    fs::permissions(folder / "CloudRecordings.db", fs::perms::none);
    auto reader = library();
    reader.refresh();
    fs::permissions(folder / "CloudRecordings.db", fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(reader.health(), Health::unreadable) << reader.detail();
    EXPECT_TRUE(reader.summary().starts_with("cannot be read (")) << reader.summary();
}

TEST_F(LibraryTest, RecordingsWaitingForTheirDownloadAreThoseWithNoFileYet)
{
    LibraryFixture fixture(folder);
    fixture.add({"HERE", "20250314 092600.qta", recorded, 1.0, "", std::nullopt, false, ""});
    fixture.add({"TWIN", "20250314 092700.m4a", recorded, 1.0, "", std::nullopt, false, ""});
    fixture.add({"LATE", "20250314 092800.qta", recorded + std::chrono::hours(1), 1.0, "", std::nullopt, false, ""});
    fixture.add({"SOON", "20250314 092900.qta", recorded, 1.0, "", std::nullopt, false, ""});
    fixture.add({"GONE", "20250314 093000.qta", recorded, 1.0, "", std::nullopt, true, ""});
    fixture.add({"KNOWN", "20250314 093100.qta", recorded, 1.0, "", std::nullopt, false, ""});
    fixture.add({"OLD", "20250314 093200.qta", recorded - std::chrono::hours(48), 1.0, "", std::nullopt, false, ""});
    auto reader = library();
    reader.refresh();
    std::set<std::string, std::less<>> present = {"20250314 092600.qta", "20250314 092700.qta"};
    auto waiting = reader.waitingForDownload(
        present, [](const std::string& id) { return id == "KNOWN"; }, recorded - std::chrono::hours(1));
    std::vector<std::string> ids;
    for (const auto* row : waiting) {
        ids.push_back(row->uniqueId);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"SOON", "LATE"})) << "oldest first";
}

} // namespace
} // namespace quillet
