#include "quillet_capture/config/SettingsFileWatch.hpp"
#include "quillet_capture/platform/FileSignature.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>


namespace quillet {
namespace {

namespace fs = std::filesystem;

// Settings an agent can run with: a vault and the Voice Memos folder enabled.
AppSettings usable(const std::string& vault)
{
    auto settings = AppSettings::defaults();
    settings.vaultPath = vault;
    settings.captureVoiceMemosEnabled = true;
    return settings;
}

struct SettingsFileWatchTest : ::testing::Test {
    test::ScratchHome home;
    fs::path file = Paths::settingsFile();

    SettingsFileWatchTest() { fs::create_directories(file.parent_path()); }

    void save(const AppSettings& settings) { writeFileAtomically(file, settings.encode()); }
    void saveText(const std::string& text) { writeFileAtomically(file, text); }
    static long unusable() { return test::countLogLines("changed but cannot be used"); }
};

// The agent looks at the file at every tick: a look at an unchanged file must not read it
// again, and every save, even of the same bytes in the same instant, must be noticed.
TEST_F(SettingsFileWatchTest, OnlyANewVersionOfTheFileIsRead)
{
    save(usable("/notes/a"));
    SettingsFileWatch watch(file);
    auto first = watch.check();
    ASSERT_TRUE(first) << "the first look reads the file";
    EXPECT_EQ(first->settings.vaultPath, "/notes/a");
    EXPECT_EQ(first->signature, FileSignature::of(file));
    EXPECT_FALSE(watch.check());
    EXPECT_FALSE(watch.check());

    save(usable("/notes/a"));
    auto again = watch.check();
    ASSERT_TRUE(again) << "a save of the same settings is another version";
    EXPECT_NE(again->signature, first->signature);

    save(usable("/notes/b"));
    auto moved = watch.check();
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->settings.vaultPath, "/notes/b");
    EXPECT_EQ(unusable(), 0);
}

// A broken version is said once, not at every tick, and keeps nothing of itself; the next
// version is judged afresh.
TEST_F(SettingsFileWatchTest, AnUnusableVersionIsLoggedOnceUntilTheFileChangesAgain)
{
    save(usable("/notes/a"));
    SettingsFileWatch watch(file);
    ASSERT_TRUE(watch.check());

    saveText("{\"vaultPath\": ");
    EXPECT_FALSE(watch.check());
    EXPECT_FALSE(watch.check());
    EXPECT_FALSE(watch.check());
    EXPECT_EQ(unusable(), 1);

    auto noFolder = usable("/notes/c");
    noFolder.captureVoiceMemosEnabled = false;
    save(noFolder);
    EXPECT_FALSE(watch.check());
    EXPECT_FALSE(watch.check());
    EXPECT_EQ(unusable(), 2);
    EXPECT_EQ(test::countLogLines("it enables no watched folder"), 1);

    fs::remove(file);
    EXPECT_FALSE(watch.check());
    EXPECT_FALSE(watch.check());
    EXPECT_EQ(test::countLogLines("(it is gone)"), 1);

    save(usable("/notes/d"));
    auto fixed = watch.check();
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->settings.vaultPath, "/notes/d");
    EXPECT_EQ(unusable(), 3);
}

TEST_F(SettingsFileWatchTest, TheProblemNamesWhatTheAgentCannotRunWith)
{
    EXPECT_EQ(SettingsFileWatch::problem(usable("/notes/a")), std::nullopt);

    auto noVault = usable(" \n");
    EXPECT_EQ(SettingsFileWatch::problem(noVault), "it names no vault");

    auto noFolder = usable("/notes/a");
    noFolder.captureVoiceMemosEnabled = false;
    EXPECT_EQ(SettingsFileWatch::problem(noFolder), "it enables no watched folder");
    noFolder.watchedFoldersRaw = std::vector{WatchedFolder::generic("/audio/synced")};
    EXPECT_EQ(SettingsFileWatch::problem(noFolder), std::nullopt) << "another folder is enough";

    // The derived value would end the agent; the version is refused instead.
    auto badAddress = usable("/notes/a");
    badAddress.veldaneBaseURL = "ftp://example.com";
    EXPECT_EQ(SettingsFileWatch::problem(badAddress), "veldaneBaseURL is not an http(s) URL");
}

} // namespace
} // namespace quillet
