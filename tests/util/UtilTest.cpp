#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Uuid.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <regex>

namespace quillet {
namespace {

namespace fs = std::filesystem;

TEST(AtomicFile, ReplacesWholeWithTheAskedModeAndLeavesNoTemporaryFile)
{
    test::ScratchDir dir;
    auto file = dir.path() / "state.json";
    writeFileAtomically(file, "old", 0644);
    writeFileAtomically(file, "new contents", 0600);
    EXPECT_EQ(readWholeFile(file), "new contents");
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    int entries = 0;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_FALSE(isAtomicWriteLeftover(entry.path().filename().string()));
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

TEST(AtomicFile, FailureThrowsAndKeepsTheOldFile)
{
    test::ScratchDir dir;
    EXPECT_THROW(writeFileAtomically(dir.path() / "missing-folder" / "x", "data"), std::system_error);
    auto file = dir.path() / "note.md";
    writeFileAtomically(file, "kept");
    fs::create_directory(dir.path() / "folder.md");
    // Renaming a file over a folder fails; the temporary file must not stay behind.
    EXPECT_THROW(writeFileAtomically(dir.path() / "folder.md", "data"), std::system_error);
    EXPECT_EQ(readWholeFile(file), "kept");
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir.path())) {
        ++entries;
    }
    EXPECT_EQ(entries, 2);
}

TEST(AtomicFile, DeferredWritesAreAtomicAndFlushedTogether)
{
    test::ScratchDir dir;
    auto file = dir.path() / "note.md";
    writeFileAtomically(file, "first", 0644, Durability::deferred);
    writeFileAtomically(file, "second", 0600, Durability::deferred);
    EXPECT_EQ(readWholeFile(file), "second");
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_THROW(writeFileAtomically(dir.path() / "missing-folder" / "x", "data", 0644, Durability::deferred),
                 std::system_error);
    EXPECT_NO_THROW(flushFileSystem(dir.path()));
    EXPECT_THROW(flushFileSystem(dir.path() / "missing-folder"), std::system_error);
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir.path())) {
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

TEST(AtomicFile, ReadingWhatIsNotARegularFileGivesNothing)
{
    test::ScratchDir dir;
    EXPECT_EQ(readWholeFile(dir.path() / "absent"), std::nullopt);
    EXPECT_EQ(readWholeFile(dir.path()), std::nullopt);
    writeFileAtomically(dir.path() / "empty", "");
    EXPECT_EQ(readWholeFile(dir.path() / "empty"), "");
}

TEST(Iso8601, FormatsUtcWholeSecondsAndParsesTheInternetForm)
{
    auto time = std::chrono::system_clock::from_time_t(1714555800) + std::chrono::milliseconds(900);
    EXPECT_EQ(Iso8601::format(time), "2024-05-01T09:30:00Z");
    EXPECT_EQ(Iso8601::parse("2024-05-01T09:30:00Z"), std::chrono::system_clock::from_time_t(1714555800));
    EXPECT_EQ(Iso8601::parse("2024-05-01T11:30:00+02:00"), std::chrono::system_clock::from_time_t(1714555800));
    EXPECT_EQ(Iso8601::parse("2024-05-01T04:00:00-0530"), std::chrono::system_clock::from_time_t(1714555800));
    EXPECT_EQ(Iso8601::parse("2024-05-01T09:30:00.5Z"),
              std::chrono::system_clock::from_time_t(1714555800) + std::chrono::milliseconds(500));
    for (const char* bad : {"", "2024-05-01", "2024-05-01T09:30:00", "2024-02-30T00:00:00Z", "2024-13-01T00:00:00Z",
                            "2024-05-01T09:30:00Zjunk", "2024-05-01 09:30:00Z", "2024-05-01T25:00:00Z"}) {
        EXPECT_EQ(Iso8601::parse(bad), std::nullopt) << bad;
    }
}

TEST(Uuid, UpperCaseAndDistinct)
{
    std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    auto a = newUuid();
    EXPECT_TRUE(std::regex_match(a, shape)) << a;
    EXPECT_NE(a, newUuid());
}

} // namespace
} // namespace quillet
