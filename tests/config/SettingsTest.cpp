#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Every test gets its own home, and the shared store is pointed at it afresh.
struct SettingsTest : ::testing::Test {
    test::ScratchHome home;
    fs::path file = Paths::settingsFile();
    Settings& store = Settings::shared();

    SettingsTest() { store.resetToDefaults(); }

    void writeSettings(const std::string& contents)
    {
        test::writeFile(file, contents);
        store.reload();
    }
    void writeDocument(const json& document) { writeSettings(document.dump()); }

    static json requiredOnly()
    {
        return {{"vaultPath", "~/notes"},
                {"vaultName", "notes"},
                {"additionalPaths", json::array()},
                {"refreshInterval", 30},
                {"recentDays", 45},
                {"maxFiles", 100},
                {"includeExtensions", json::array({"MD", "Txt"})},
                {"excludeDirs", json::array({".git"})}};
    }

    // A file as the menu-bar app writes it, with every key set to something other than the
    // default.
    json everyKey()
    {
        json document = requiredOnly();
        document.update({
            {"remotesPath", "~/remotes"},
            {"searchDays", 90},
            {"timeBasis", "either"},
            {"excludeFilePatterns", json::array({"*.tmp", "Draft*"})},
            {"captureVoiceMemosEnabled", true},
            {"captureVeldaneEnabled", true},
            {"veldaneBaseURL", "http://127.0.0.1:8080/api/v1"},
            {"keepVoiceMemosRunning", true},
            {"watchedFoldersRaw",
             {{{"id", "voice-memos"},
               {"path", "/Users/ana/Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings"},
               {"displayName", "Voice Memos"},
               {"enabled", false},
               {"extensions", json::array()},
               {"normaliser", "voiceMemos"}},
              {{"id", "folder-ABC"},
               {"path", "~/Sync/Phone"},
               {"displayName", "Phone"},
               {"enabled", true},
               {"extensions", json::array({"M4A", "mp3"})},
               {"normaliser", "none"}}}},
            {"inboxGroupThreshold", 0},
            {"outboxGroupThreshold", -4},
            {"handoffGroupThreshold", 3},
            {"todayGroupThreshold", 40},
            {"menuDayLimit", 2},
            {"recordingSource", {{"app", {{"bundleID", "us.zoom.xos"}, {"name", "zoom.us"}}}}},
            {"recordingIncludeMicrophone", false},
            {"recordingMicrophoneUID", "BuiltInMicrophoneDevice"},
            {"recordingConsentReminder", false},
            {"recordingConsentText", "Recording now."},
            {"recordingAutoStopMinutes", 90},
            {"recordingShowWindow", false},
            {"notifyTranscriptReady", false},
            {"notifyTranscriptFailed", false},
            {"notifyVoiceMemoSent", false},
            {"recordingQuickKey", false},
            {"recordingEchoCancellation", "off"},
            {"afterTranscriptCommand", "  claude -p \"/inbox\"\n"},
            {"notifications", false},
        });
        return document;
    }
};

TEST_F(SettingsTest, MissingFileGivesTheDefaults)
{
    EXPECT_TRUE(store.isFirstRun());
    EXPECT_EQ(store.settings, AppSettings::defaults());
    EXPECT_EQ(store.vaultPath(), home.path().string() + "/workspace/Halden");
    EXPECT_EQ(store.inboxURL(), home.path() / "workspace/Halden/_inbox");
    EXPECT_EQ(store.outboxURL(), home.path() / "workspace/Halden/_outbox");
    EXPECT_EQ(store.handoffURL(), home.path() / "workspace/Halden/.handoff");
    EXPECT_EQ(store.additionalPaths(), std::vector<fs::path>{home.path() / "workspace"});
    EXPECT_EQ(store.remotesURL(), home.path() / "workspace/remotes");
    EXPECT_EQ(store.searchDays(), 30);
    EXPECT_EQ(store.includeExtensions().size(), 14u);
    EXPECT_EQ(store.excludeDirs().size(), 20u);
    EXPECT_FALSE(store.captureVoiceMemosEnabled());
    EXPECT_FALSE(store.captureVeldaneEnabled());
    EXPECT_FALSE(store.keepVoiceMemosRunning());
    EXPECT_EQ(store.veldaneBaseURL(), "https://api.veldane.com/api/v1");
    EXPECT_EQ(store.afterTranscriptCommand(), std::nullopt);
    EXPECT_EQ(store.recordingDefaultOptions(), std::nullopt);
    EXPECT_TRUE(store.recordingConsentReminder());
    EXPECT_EQ(store.recordingConsentText(), "Recording. Remember to tell the others you are recording.");
    EXPECT_EQ(store.recordingEchoCancellation(), EchoCancellationMode::automatic);
    EXPECT_EQ(store.watchedFolders(), std::vector{WatchedFolder::voiceMemos(false)});
    EXPECT_TRUE(store.enabledWatchedFolders().empty());
}

TEST_F(SettingsTest, RequiredKeysAloneGiveTheFallbacks)
{
    writeDocument(requiredOnly());
    EXPECT_FALSE(store.isFirstRun());
    EXPECT_EQ(store.vaultPath(), home.path().string() + "/notes");
    EXPECT_EQ(store.vaultName(), "notes");
    EXPECT_EQ(store.remotesURL(), std::nullopt);
    EXPECT_EQ(store.refreshInterval(), 30.0);
    EXPECT_EQ(store.searchDays(), 45); // the larger of recentDays and 30
    EXPECT_EQ(store.timeBasis(), TimeBasis::modification);
    EXPECT_EQ(store.includeExtensions(), (std::set<std::string>{"md", "txt"}));
    EXPECT_FALSE(store.captureVoiceMemosEnabled());
    EXPECT_FALSE(store.captureVeldaneEnabled());
    for (auto threshold : {store.inboxGroupThreshold(), store.outboxGroupThreshold(), store.handoffGroupThreshold(),
                           store.todayGroupThreshold()}) {
        EXPECT_EQ(threshold, 15);
    }
    EXPECT_EQ(store.menuDayLimit(), 10);
    EXPECT_EQ(store.recordingAutoStopMinutes(), 0);
    EXPECT_TRUE(store.notifyVoiceMemoSent());
    EXPECT_TRUE(store.recordingQuickKey());
    EXPECT_TRUE(store.notifications());

    auto fewer = requiredOnly();
    fewer["recentDays"] = 3;
    writeDocument(fewer);
    EXPECT_EQ(store.searchDays(), 30);
}

TEST_F(SettingsTest, StoredValuesAreClampedTrimmedAndExpanded)
{
    writeDocument(everyKey());
    EXPECT_EQ(store.remotesURL(), home.path() / "remotes");
    EXPECT_EQ(store.searchDays(), 90);
    EXPECT_EQ(store.timeBasis(), TimeBasis::either);
    EXPECT_EQ(store.inboxGroupThreshold(), 1);
    EXPECT_EQ(store.outboxGroupThreshold(), 1);
    EXPECT_EQ(store.handoffGroupThreshold(), 3);
    EXPECT_EQ(store.todayGroupThreshold(), 40);
    EXPECT_EQ(store.menuDayLimit(), 2);
    EXPECT_EQ(store.veldaneBaseURL(), "http://127.0.0.1:8080/api/v1");
    EXPECT_EQ(store.afterTranscriptCommand(), "claude -p \"/inbox\"");
    EXPECT_EQ(store.recordingDefaultOptions(),
              (RecordingOptions{RecordingSource::app("us.zoom.xos", "zoom.us"), false, "BuiltInMicrophoneDevice"}));
    EXPECT_FALSE(store.recordingConsentReminder());
    EXPECT_FALSE(store.recordingShowWindow());
    EXPECT_FALSE(store.notifyTranscriptReady());
    EXPECT_FALSE(store.notifications());
    EXPECT_EQ(store.recordingConsentText(), "Recording now.");
    EXPECT_EQ(store.recordingAutoStopMinutes(), 90);
    EXPECT_EQ(store.recordingEchoCancellation(), EchoCancellationMode::off);

    auto folders = store.watchedFolders();
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_TRUE(folders[0].isVoiceMemos());
    EXPECT_EQ(folders[1].effectiveExtensions(), (std::set<std::string>{"m4a", "mp3"}));
    EXPECT_EQ(folders[1].url(), home.path() / "Sync/Phone");
    ASSERT_EQ(store.enabledWatchedFolders().size(), 1u);
    EXPECT_EQ(store.enabledWatchedFolders()[0].id, "folder-ABC");

    auto document = everyKey();
    document["afterTranscriptCommand"] = " \t\n\u00A0\u3000 ";
    document["recordingAutoStopMinutes"] = -5;
    document.erase("recordingIncludeMicrophone");
    document["watchedFoldersRaw"] = json::array();
    writeDocument(document);
    EXPECT_EQ(store.afterTranscriptCommand(), std::nullopt);
    EXPECT_EQ(store.recordingAutoStopMinutes(), 0);
    EXPECT_TRUE(store.recordingDefaultOptions()->includeMicrophone);
    // An empty list falls back to the Voice Memos entry, enabled as the capture switch says.
    EXPECT_EQ(store.watchedFolders(), std::vector{WatchedFolder::voiceMemos(true)});
}

TEST_F(SettingsTest, ExcludedFilesMatchWildcardsIgnoringCase)
{
    EXPECT_TRUE(store.isExcludedFile("readme.md"));
    EXPECT_TRUE(store.isExcludedFile("_Manifest-2024.json"));
    EXPECT_FALSE(store.isExcludedFile("notes.md"));

    auto document = requiredOnly();
    document["excludeFilePatterns"] = json::array();
    writeDocument(document);
    EXPECT_FALSE(store.isExcludedFile("README.md"));
    EXPECT_TRUE(store.excludeFilePatterns().empty());

    document["excludeFilePatterns"] = json::array({"*.TMP", "[0-9]*"});
    writeDocument(document);
    EXPECT_TRUE(store.isExcludedFile("a/b.tmp")); // "*" crosses slashes
    EXPECT_TRUE(store.isExcludedFile(".tmp"));    // and a leading dot
    EXPECT_TRUE(store.isExcludedFile("2024 notes"));
    EXPECT_FALSE(store.isExcludedFile("README.md"));
}

TEST_F(SettingsTest, EveryKeySurvivesLoadAndSave)
{
    auto original = everyKey();
    writeDocument(original);
    ASSERT_EQ(store.settings.recordingQuickKey, false); // the file was taken
    store.save();

    auto saved = json::parse(test::readFile(file));
    EXPECT_EQ(saved, original);
    EXPECT_EQ(saved.size(), 36u);

    // Loading what was saved gives the same record again.
    auto before = store.settings;
    store.resetToDefaults();
    EXPECT_EQ(store.settings, before);
}

TEST_F(SettingsTest, SavingWritesSortedIndentedJsonWithoutAbsentFields)
{
    store.save();
    const std::string text = test::readFile(file);
    auto saved = json::parse(text);
    // The eight required keys, the three optional ones with a default, and both capture switches.
    EXPECT_EQ(saved.size(), 13u);
    EXPECT_FALSE(saved.contains("excludeFilePatterns"));
    EXPECT_FALSE(saved.contains("veldaneBaseURL"));
    EXPECT_EQ(saved["captureVoiceMemosEnabled"], false);
    EXPECT_EQ(saved["captureVeldaneEnabled"], false);
    EXPECT_TRUE(text.starts_with("{\n  \"additionalPaths\": [\n    \"~/workspace\"\n  ],\n  \"captureVeldaneEnabled\""))
        << text;
    size_t last = 0;
    for (const auto& [key, value] : saved.items()) {
        size_t at = text.find("\n  \"" + key + "\"");
        ASSERT_NE(at, std::string::npos) << key;
        EXPECT_GT(at, last) << key;
        last = at;
    }
    EXPECT_FALSE(store.isFirstRun());
}

TEST_F(SettingsTest, DamagedFilesAreIgnoredAsAWhole)
{
    auto valid = requiredOnly();
    auto variant = [&](const std::function<void(json&)>& change) {
        auto document = valid;
        change(document);
        return document.dump();
    };
    const std::vector<std::string> damaged = {
        "",
        "{}",
        "null",
        "[1, 2]",
        "{\"vaultPath\": \"~/notes\"}",
        valid.dump().substr(0, valid.dump().size() - 10),
        [&] {
            auto text = valid.dump();
            return text.replace(text.find("\"notes\""), 7, "\"no\xFFtes\"");
        }(),
        variant([](json& d) { d.erase("excludeDirs"); }),
        variant([](json& d) { d["vaultPath"] = nullptr; }),
        variant([](json& d) { d["recentDays"] = "7"; }),
        variant([](json& d) { d["recentDays"] = 7.5; }),
        variant([](json& d) { d["maxFiles"] = 18446744073709551615ULL; }),
        variant([](json& d) { d["refreshInterval"] = true; }),
        variant([](json& d) { d["additionalPaths"] = json::array({"~/a", 3}); }),
        variant([](json& d) { d["timeBasis"] = "access"; }),
        variant([](json& d) { d["captureVeldaneEnabled"] = 1; }),
        variant([](json& d) { d["recordingEchoCancellation"] = "sometimes"; }),
        variant([](json& d) { d["recordingSource"] = {{"window", json::object()}}; }),
        variant([](json& d) {
            d["watchedFoldersRaw"] = {{{"id", "x"}, {"path", "/x"}, {"displayName", "x"}, {"enabled", true},
                                       {"extensions", json::array()}, {"normaliser", "dictaphone"}}};
        }),
        variant([](json& d) { d["watchedFoldersRaw"] = {{{"id", "x"}, {"path", "/x"}}}; }),
        R"({"vaultPath":"~/n","vaultName":"n","additionalPaths":[],"refreshInterval":1e999,"recentDays":1,)"
        R"("maxFiles":1,"includeExtensions":[],"excludeDirs":[]})",
        R"({"vaultPath":"~/n","vaultName":"n","additionalPaths":[],"refreshInterval":1,)"
        R"("recentDays":99999999999999999999999,"maxFiles":1,"includeExtensions":[],"excludeDirs":[]})",
        std::string(100000, '[') + std::string(100000, ']'),
    };
    for (const auto& contents : damaged) {
        store.settings = AppSettings::defaults();
        writeSettings(contents);
        EXPECT_EQ(store.settings, AppSettings::defaults()) << contents.substr(0, 200);
        EXPECT_FALSE(store.isFirstRun());
    }

    // A loaded record is kept when the file goes bad later.
    writeDocument(valid);
    writeSettings("{ truncated");
    EXPECT_EQ(store.vaultName(), "notes");

    // Whole-number forms of integers are integers; unknown keys are ignored.
    writeSettings(variant([](json& d) {
        d["recentDays"] = 7.0;
        d["maxFiles"] = 1e3;
        d["someFutureKey"] = {1, 2};
        d["menuDayLimit"] = nullptr;
    }));
    EXPECT_EQ(store.recentDays(), 7);
    EXPECT_EQ(store.maxFiles(), 1000);
    EXPECT_EQ(store.settings.menuDayLimit, std::nullopt);
}

TEST_F(SettingsTest, AFileThatCannotBeReadOrWrittenIsSilent)
{
    // A folder in place of the file: defaults, and saving does nothing.
    fs::create_directories(file);
    store.reload();
    EXPECT_EQ(store.settings, AppSettings::defaults());
    EXPECT_FALSE(store.isFirstRun());
    store.settings.vaultName = "changed";
    store.save();
    EXPECT_TRUE(fs::is_directory(file));

    // A folder on the way that cannot be made.
    // (~/.config on Linux, ~/Library/Application Support on macOS)
    fs::remove_all(file.parent_path().parent_path());
    test::writeFile(file.parent_path().parent_path(), "a file where the folder should be");
    store.reload();
    store.save();
    EXPECT_TRUE(store.isFirstRun());
}

TEST_F(SettingsTest, SetWatchedFoldersCopiesTheVoiceMemosSwitchAndSaves)
{
    auto phone = WatchedFolder::generic("~/Sync/Phone");
    store.setWatchedFolders({phone, WatchedFolder::voiceMemos(true), WatchedFolder::voiceMemos(false)});
    EXPECT_TRUE(store.captureVoiceMemosEnabled());
    store.resetToDefaults();
    ASSERT_EQ(store.watchedFolders().size(), 3u);
    EXPECT_EQ(store.watchedFolders()[0], phone);
    EXPECT_TRUE(store.captureVoiceMemosEnabled());

    store.setWatchedFolders({WatchedFolder::voiceMemos(false)});
    EXPECT_FALSE(store.captureVoiceMemosEnabled());
    store.setWatchedFolders({phone});
    EXPECT_FALSE(store.captureVoiceMemosEnabled()); // no Voice Memos entry: the switch stays
    EXPECT_EQ(store.enabledWatchedFolders(), std::vector{phone});
}

TEST_F(SettingsTest, AFolderListedTwiceIsWatchedOnce)
{
    fs::path synced = home.path() / "Synced";
    fs::create_directories(synced);
    fs::create_symlink(synced, home.path() / "link");
    auto disabled = WatchedFolder::generic(synced.string() + "/../Synced");
    disabled.enabled = false;
    store.settings.watchedFoldersRaw = std::vector<WatchedFolder>{
        disabled,
        WatchedFolder::voiceMemos(true),
        WatchedFolder::generic(synced.string() + "/"),
        WatchedFolder::generic(synced.string()),
        WatchedFolder::generic(synced.string() + "/."),
        WatchedFolder::generic((home.path() / "link").string()),
        WatchedFolder::generic("~/Synced"),
        WatchedFolder::generic("~/Elsewhere/"),
        WatchedFolder::generic("~/Elsewhere"),
    };
    auto enabled = store.enabledWatchedFolders();
    ASSERT_EQ(enabled.size(), 3u);
    EXPECT_TRUE(enabled[0].isVoiceMemos());
    EXPECT_EQ(enabled[1].path, synced.string() + "/"); // the first mention, as written
    EXPECT_EQ(enabled[2].path, "~/Elsewhere/");         // one that does not exist yet
    EXPECT_EQ(store.watchedFolders().size(), 9u);       // the stored list is left as it is
}

TEST_F(SettingsTest, BaseUrlMustBeAbsoluteHttp)
{
    EXPECT_EQ(Settings::validBaseURL("https://api.veldane.com/api/v1"), "https://api.veldane.com/api/v1");
    EXPECT_EQ(Settings::validBaseURL("HTTP://localhost:9/x"), "HTTP://localhost:9/x");
    for (const char* bad : {"", "api.veldane.com/api/v1", "/api/v1", "ftp://example.com/", "https://", "not a url",
                            "file:///tmp/x", "https://exa mple.com/"}) {
        EXPECT_EQ(Settings::validBaseURL(bad), std::nullopt) << bad;
    }
}

TEST_F(SettingsTest, BadStoredBaseUrlStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto document = requiredOnly();
    document["veldaneBaseURL"] = "veldane dot com";
    writeDocument(document);
    EXPECT_EXIT(store.veldaneBaseURL(), ::testing::ExitedWithCode(1),
                "veldaneBaseURL \"veldane dot com\" in .*settings.json is not an absolute http\\(s\\) URL");
}

TEST(WatchedFolder, GenericIdsHashTheExpandedPath)
{
    test::ScratchHome home;
    // FNV-1a 64 of the path's bytes in upper-case base 36, computed independently.
    EXPECT_EQ(WatchedFolder::generic("/srv/recordings").id, "folder-23YDV742U1AUK");
    EXPECT_EQ(WatchedFolder::generic("").id, "folder-33NIIHZJ4UX45"); // the offset basis alone

    setenv("HOME", "/home/ana", 1);
    auto tilde = WatchedFolder::generic("~/Sync/Phone");
    EXPECT_EQ(tilde.id, "folder-26E1L5DPVZI9D");
    EXPECT_EQ(tilde.id, WatchedFolder::generic("/home/ana/Sync/Phone").id);
    EXPECT_EQ(tilde.path, "~/Sync/Phone");
    EXPECT_EQ(tilde.displayName, "Phone");
    EXPECT_TRUE(tilde.enabled);
    EXPECT_TRUE(tilde.extensions.empty());
    EXPECT_EQ(tilde.normaliser, WatchedFolder::Normaliser::none);
    EXPECT_FALSE(tilde.isVoiceMemos());
    EXPECT_EQ(tilde.url(), "/home/ana/Sync/Phone");

    EXPECT_EQ(WatchedFolder::generic("/srv/recordings/", "Office").displayName, "Office");
    EXPECT_EQ(WatchedFolder::generic("/srv/recordings/").displayName, "recordings");
    EXPECT_EQ(WatchedFolder::generic("/").displayName, "/");
}

TEST(WatchedFolder, VoiceMemosEntryFollowsTheRecordingsFolder)
{
    test::ScratchHome home;
    auto entry = WatchedFolder::voiceMemos(true);
    EXPECT_EQ(entry.id, "voice-memos");
    EXPECT_EQ(entry.displayName, "Voice Memos");
    EXPECT_EQ(entry.normaliser, WatchedFolder::Normaliser::voiceMemos);
    EXPECT_EQ(entry.path, (home.path() / "Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings").string());
    EXPECT_TRUE(entry.isVoiceMemos());
    entry.path = "/elsewhere";
    EXPECT_EQ(entry.url(), home.path() / "Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings");
    EXPECT_NE(entry, WatchedFolder::voiceMemos(true));
    EXPECT_NE(WatchedFolder::voiceMemos(true), WatchedFolder::voiceMemos(false));
}

} // namespace
} // namespace quillet
