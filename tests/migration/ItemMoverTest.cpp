#include "quillet_capture/migration/ItemMover.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

struct ItemMoverTest : ::testing::Test {
    test::ScratchDir dir;
    ItemMover mover{".pellam-old"};
    fs::path from = dir.path() / "old";
    fs::path to = dir.path() / "new";

    static bool sameFileSystem(const fs::path& a, const fs::path& b)
    {
        struct stat sa {};
        struct stat sb {};
        return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev;
    }
};

TEST_F(ItemMoverTest, NothingIsEverOverwritten)
{
    // Nothing there: moved, and missing folders on the way are made.
    test::writeFile(from / "a.txt", "A1");
    EXPECT_TRUE(mover.move(from / "a.txt", to / "deep/a.txt"));
    EXPECT_EQ(test::readFile(to / "deep/a.txt"), "A1");
    EXPECT_FALSE(fs::exists(from / "a.txt"));

    // Something different there: kept beside it, at the next free name.
    for (const char* text : {"A2", "A3"}) {
        test::writeFile(from / "a.txt", text);
        EXPECT_TRUE(mover.move(from / "a.txt", to / "deep/a.txt"));
    }
    EXPECT_EQ(test::readFile(to / "deep/a.txt"), "A1");
    EXPECT_EQ(test::readFile(to / "deep/a.txt.pellam-old"), "A2");
    EXPECT_EQ(test::readFile(to / "deep/a.txt.2.pellam-old"), "A3");

    // The same bytes again (at the name or at a kept name): only the old copy goes.
    for (const char* text : {"A1", "A3"}) {
        test::writeFile(from / "a.txt", text);
        EXPECT_TRUE(mover.move(from / "a.txt", to / "deep/a.txt"));
        EXPECT_FALSE(fs::exists(from / "a.txt"));
    }
    EXPECT_FALSE(fs::exists(to / "deep/a.txt.3.pellam-old"));

    // A folder where a file is, and a file where a folder is.
    test::writeFile(from / "x/inner", "in");
    test::writeFile(to / "x", "a file");
    test::writeFile(from / "y", "a file");
    fs::create_directories(to / "y/sub");
    EXPECT_TRUE(mover.move(from / "x", to / "x"));
    EXPECT_TRUE(mover.move(from / "y", to / "y"));
    EXPECT_EQ(test::readFile(to / "x.pellam-old/inner"), "in");
    EXPECT_EQ(test::readFile(to / "y.pellam-old"), "a file");
    EXPECT_TRUE(fs::is_directory(to / "y/sub"));

    // Nothing to move is no failure and no news.
    auto lines = mover.progress().size();
    EXPECT_TRUE(mover.move(from / "missing", to / "missing"));
    EXPECT_EQ(mover.progress().size(), lines);
    EXPECT_EQ(mover.progress().front(), "moved " + (from / "a.txt").string() + " to " + (to / "deep/a.txt").string());
    EXPECT_EQ(mover.progress()[1], (to / "deep/a.txt").string() + " is taken; kept " + (from / "a.txt").string() +
                                       " as " + (to / "deep/a.txt.pellam-old").string());
}

TEST_F(ItemMoverTest, FoldersMergeRecursivelyAndTheEmptiedOneGoes)
{
    test::writeFile(from / "state.json", "old state");
    test::writeFile(from / "Recordings/2025/a.m4a", "a");
    test::writeFile(from / "Recordings/2025/b.m4a", "b-old");
    fs::create_directories(from / "Recordings/empty");
    fs::create_symlink("2025/a.m4a", from / "Recordings/latest");
    test::writeFile(to / "Recordings/2025/b.m4a", "b-new");
    test::writeFile(to / "Recordings/2025/c.m4a", "c");

    EXPECT_TRUE(mover.move(from, to));
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(test::readFile(to / "state.json"), "old state");
    EXPECT_EQ(test::readFile(to / "Recordings/2025/a.m4a"), "a");
    EXPECT_EQ(test::readFile(to / "Recordings/2025/b.m4a"), "b-new");
    EXPECT_EQ(test::readFile(to / "Recordings/2025/b.m4a.pellam-old"), "b-old");
    EXPECT_EQ(test::readFile(to / "Recordings/2025/c.m4a"), "c");
    EXPECT_TRUE(fs::is_directory(to / "Recordings/empty"));
    EXPECT_EQ(fs::read_symlink(to / "Recordings/latest"), "2025/a.m4a");
    EXPECT_EQ(mover.progress().back(), "moved what " + from.string() + " held into " + to.string());

    // A whole folder to a free place is one rename.
    test::writeFile(from / "only", "x");
    EXPECT_TRUE(mover.move(from, dir.path() / "fresh"));
    EXPECT_EQ(test::readFile(dir.path() / "fresh/only"), "x");
    EXPECT_EQ(mover.progress().back(), "moved " + from.string() + " to " + (dir.path() / "fresh").string());
}

TEST_F(ItemMoverTest, WhatALinkAndUnlinkCutShortLeavesIsFinished)
{
    test::writeFile(from / "state.json", "state");
    fs::create_directories(to);
    fs::create_hard_link(from / "state.json", to / "state.json");
    EXPECT_TRUE(mover.move(from / "state.json", to / "state.json"));
    EXPECT_FALSE(fs::exists(from / "state.json"));
    EXPECT_EQ(test::readFile(to / "state.json"), "state");
    EXPECT_EQ(fs::hard_link_count(to / "state.json"), 1u);
    EXPECT_FALSE(fs::exists(to / "state.json.pellam-old"));
}

TEST_F(ItemMoverTest, AFailureIsReportedAndLeavesTheOldItem)
{
    test::writeFile(from / "a.txt", "A");
    test::writeFile(dir.path() / "blocked", "a file where a folder should be");
    EXPECT_FALSE(mover.move(from / "a.txt", dir.path() / "blocked/a.txt"));
    EXPECT_EQ(test::readFile(from / "a.txt"), "A");
    ASSERT_EQ(mover.progress().size(), 1u);
    EXPECT_TRUE(mover.progress()[0].starts_with("could not move " + (from / "a.txt").string() + " to " +
                                                (dir.path() / "blocked/a.txt").string() + ": "))
        << mover.progress()[0];

    // A folder that cannot reach its place stays whole.
    test::writeFile(from / "f/a.txt", "A");
    test::writeFile(from / "f/b.txt", "B");
    test::writeFile(dir.path() / "g", "a file");
    EXPECT_FALSE(mover.move(from / "f", dir.path() / "g/f"));
    EXPECT_TRUE(fs::exists(from / "f/a.txt"));
}

// Across file systems: from a tmpfs (/dev/shm) to the scratch folder.
struct ItemMoverAcrossTest : ItemMoverTest {
    fs::path other;

    void SetUp() override
    {
        std::string pattern = "/dev/shm/quillet-mover-XXXXXX";
        if (!fs::is_directory("/dev/shm") || ::mkdtemp(pattern.data()) == nullptr) {
            GTEST_SKIP() << "no second file system at /dev/shm";
        }
        other = pattern;
        if (sameFileSystem(other, dir.path())) {
            GTEST_SKIP() << "/dev/shm is on the scratch folder's file system";
        }
    }

    void TearDown() override
    {
        std::error_code ignored;
        if (!other.empty()) {
            fs::remove_all(other, ignored);
        }
    }
};

TEST_F(ItemMoverAcrossTest, FilesFoldersAndLinksAreCopiedThenRemoved)
{
    fs::path source = other / "pellam";
    test::writeFile(source / "state.json", "state");
    fs::permissions(source / "state.json", fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    auto stamp = fs::file_time_type::clock::now() - std::chrono::hours(24 * 30);
    fs::last_write_time(source / "state.json", stamp);
    test::writeFile(source / "Recordings/2025/a.m4a", std::string(1 << 20, 'a'));
    fs::create_directories(source / "Recordings/empty");
    fs::create_symlink("2025/a.m4a", source / "Recordings/latest");
    test::writeFile(to / "Recordings/2025/a.m4a", "a different a");

    EXPECT_TRUE(mover.move(source, to));
    EXPECT_FALSE(fs::exists(source));
    EXPECT_EQ(test::readFile(to / "state.json"), "state");
    EXPECT_EQ(fs::status(to / "state.json").permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(fs::last_write_time(to / "state.json"), stamp);
    EXPECT_EQ(test::readFile(to / "Recordings/2025/a.m4a"), "a different a");
    EXPECT_EQ(test::readFile(to / "Recordings/2025/a.m4a.pellam-old"), std::string(1 << 20, 'a'));
    EXPECT_TRUE(fs::is_directory(to / "Recordings/empty"));
    EXPECT_EQ(fs::read_symlink(to / "Recordings/latest"), "2025/a.m4a");
    for (auto& entry : fs::recursive_directory_iterator(to)) {
        EXPECT_EQ(entry.path().filename().string().find(".moving"), std::string::npos) << entry.path();
    }
}

TEST_F(ItemMoverAcrossTest, ACopyCutShortIsDoneAgainOrDropped)
{
    // Cut while copying: a partial temporary file, the source whole.
    test::writeFile(other / "a.m4a", "the whole recording");
    test::writeFile(ItemMover::temporaryName(to / "a.m4a"), "the who");
    EXPECT_TRUE(mover.move(other / "a.m4a", to / "a.m4a"));
    EXPECT_EQ(test::readFile(to / "a.m4a"), "the whole recording");
    EXPECT_FALSE(fs::exists(ItemMover::temporaryName(to / "a.m4a")));
    EXPECT_FALSE(fs::exists(other / "a.m4a"));

    // Cut after the copy got its name: the source is the same, so it just goes.
    test::writeFile(other / "b.m4a", "b");
    test::writeFile(to / "b.m4a", "b");
    test::writeFile(ItemMover::temporaryName(to / "b.m4a"), "b");
    EXPECT_TRUE(mover.move(other / "b.m4a", to / "b.m4a"));
    EXPECT_FALSE(fs::exists(other / "b.m4a"));
    EXPECT_FALSE(fs::exists(ItemMover::temporaryName(to / "b.m4a")));
    EXPECT_FALSE(fs::exists(to / "b.m4a.pellam-old"));
}

} // namespace
} // namespace quillet
