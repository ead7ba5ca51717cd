#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>

#include <signal.h>

#include <sys/stat.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct SetupTest : ::testing::Test {
    test::ScratchHome home;
    const std::string h = home.path().string();
    const fs::path settingsFile = Paths::settingsFile();
    const std::string voiceMemos = h + "/Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings";

    test::ProcessResult setup(std::vector<std::string> options = {})
    {
        options.insert(options.begin(), "setup");
        return test::runProcess(test::programPath(), options);
    }

    json saved() { return json::parse(test::readFile(settingsFile)); }

    // The first setup fixes the retry watermark, and says so in the log's one line; nothing
    // else goes to standard error.
    // A first setup says nothing on standard error: its log line (the retry watermark) goes to
    // the log file alone.
    static auto firstSetupErrors() { return ::testing::Eq(std::string()); }

    // A Mac watches the Voice Memos folder and keeps Voice Memos running from the first
    // setup; Linux has no Voice Memos and watches only what the person names.
    const bool mac = Paths::current() == Platform::macOS;
    const std::string keepByDefault = mac ? "on" : "off";

    std::string summary(const std::string& vault, const std::string& upload = "on", std::string keep = "",
                        const std::string& after = "off", const std::string& watched = "",
                        std::optional<bool> voiceMemosWatched = std::nullopt, const std::string& changed = "")
    {
        const bool watchesVoiceMemos = voiceMemosWatched.value_or(mac);
        if (keep.empty()) {
            keep = keepByDefault;
        }
        std::string nothingWatched;
        if (!watchesVoiceMemos && watched.empty()) {
            nothingWatched = "\nNothing is watched yet. Add a folder with: quillet-capture config watch PATH\n"
                             "  (or: quillet-capture setup --watch PATH)\n";
        }
        return "Saved " + settingsFile.string() + "\n" +
               "  vault:              " + vault + "\n" +
               "  Voice Memos folder: " + voiceMemos +
               (mac ? "" : watchesVoiceMemos ? " (watched)" : " (not watched)") + "\n" + watched +
               "  upload to Veldane: " + upload + "\n" +
               "  keep Voice Memos running: " + keep + "\n" +
               "  after a transcript: " + after + "\n" + changed + nothingWatched +
               "\n" +
               "Next: quillet-capture pair" + (upload == "on" ? "" : "  (only needed for upload)") + "\n";
    }
};

TEST_F(SetupTest, WithoutICloudDriveTheVaultIsInDocuments)
{
    auto result = setup();
    ASSERT_EQ(result.status, 0) << result.errors;
    const std::string vault = h + "/Documents/quillet";
    EXPECT_EQ(result.output, (mac ? "No --vault given and iCloud Drive is off on this Mac: using ~/Documents/quillet.\n"
                                  : "No --vault given: using ~/Documents/quillet.\n") +
                                 summary(vault));
    EXPECT_THAT(result.errors, firstSetupErrors());
    EXPECT_THAT(test::readFile(Paths::logFile()),
                ::testing::ContainsRegex("\\[quillet\\] capture retry: watermark set to "
                                         "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z"));
    EXPECT_TRUE(fs::is_directory(vault + "/_inbox"));

    auto settings = saved();
    EXPECT_EQ(settings["vaultPath"], vault);
    EXPECT_EQ(settings["vaultName"], "quillet");
    EXPECT_EQ(settings["additionalPaths"], json::array());
    EXPECT_FALSE(settings.contains("remotesPath"));
    EXPECT_FALSE(settings.contains("afterTranscriptCommand"));
    EXPECT_EQ(settings["captureVoiceMemosEnabled"], mac);
    EXPECT_EQ(settings["captureVeldaneEnabled"], true);
    EXPECT_EQ(settings["keepVoiceMemosRunning"], mac);
    EXPECT_EQ(settings["watchedFoldersRaw"],
              json::parse(R"([{"id": "voice-memos", "path": ")" + voiceMemos +
                          R"(", "displayName": "Voice Memos", "enabled": )" + (mac ? "true" : "false") +
                          R"(, "extensions": [], "normaliser": "voiceMemos"}])"));
    // The rest are the defaults.
    EXPECT_EQ(settings["maxFiles"], 500);
    EXPECT_EQ(settings["timeBasis"], "modification");
}

TEST_F(SetupTest, WithICloudDriveTheVaultIsThereOnAMacOnly)
{
    const std::string drive = h + "/Library/Mobile Documents/com~apple~CloudDocs";
    fs::create_directories(drive);
    auto result = setup({"--no-keep-voice-memos"});
    ASSERT_EQ(result.status, 0) << result.errors;
    if (mac) {
        EXPECT_EQ(result.output, "No --vault given: using iCloud Drive/quillet (visible in Files on your iPhone).\n" +
                                     summary(drive + "/quillet", "on", "off"));
        EXPECT_TRUE(fs::is_directory(drive + "/quillet/_inbox"));
    } else {
        // Linux has no iCloud Drive, whatever folder of that name there is: no word of it.
        EXPECT_EQ(result.output, "No --vault given: using ~/Documents/quillet.\n" + summary(h + "/Documents/quillet"));
        EXPECT_FALSE(fs::exists(drive + "/quillet"));
    }
    EXPECT_EQ(saved()["keepVoiceMemosRunning"], false);
}

TEST_F(SetupTest, OptionsOfAFirstRun)
{
    auto result = setup({"--no-upload", "--vault", "~/Notes/Work", "--after-transcript", "\t claude -p \"/inbox\"\n"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, summary(h + "/Notes/Work", "off", "", "claude -p \"/inbox\""));
    EXPECT_TRUE(result.output.ends_with("Next: quillet-capture pair  (only needed for upload)\n"));
    auto settings = saved();
    EXPECT_EQ(settings["vaultName"], "Work");
    EXPECT_EQ(settings["captureVeldaneEnabled"], false);
    EXPECT_EQ(settings["afterTranscriptCommand"], "claude -p \"/inbox\"");
}

// A second setup must not undo the person's choices: what its options do not name stays,
// --watch adds, and each value it did change is said once.
TEST_F(SetupTest, ASecondRunChangesOnlyWhatItsOptionsName)
{
    auto result = setup({"--no-upload", "--vault", "~/Notes/Work", "--watch", "~/Phone", "--no-notifications",
                         "--no-keep-voice-memos"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output.find("Changed:"), std::string::npos) << result.output; // nothing on the first run

    // Keys setup does not own survive, including an untrimmed command written by the app.
    auto settings = saved();
    settings["inboxGroupThreshold"] = 4;
    settings["recordingEchoCancellation"] = "on";
    settings["afterTranscriptCommand"] = "  make notes ";
    settings["additionalPaths"] = json::array({"~/elsewhere"});
    settings["remotesPath"] = "~/remotes";
    test::writeFile(settingsFile, settings.dump());
    const json written = saved();

    // Nothing named: nothing changes, and nothing is said to have changed.
    result = setup();
    ASSERT_EQ(result.status, 0) << result.errors;
    std::string expected = summary(h + "/Notes/Work", "off", "off", "  make notes ", "  watched folder:     ~/Phone\n");
    expected.insert(expected.find("\n\nNext") + 1, "  desktop notifications: off\n");
    EXPECT_EQ(result.output, expected);
    EXPECT_EQ(saved(), written);

    // Another folder is added to the first; upload, the vault and the rest stay.
    result = setup({"--watch", "~/Recorder"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, ::testing::HasSubstr("  watched folder:     ~/Phone\n"
                                                    "  watched folder:     ~/Recorder\n"));
    EXPECT_THAT(result.output, ::testing::HasSubstr("\nChanged: watched folder added: ~/Recorder\n"));
    EXPECT_EQ(result.output.find("Changed:"), result.output.rfind("Changed:")) << result.output;
    settings = saved();
    EXPECT_EQ(settings["vaultPath"], h + "/Notes/Work");
    EXPECT_EQ(settings["captureVeldaneEnabled"], false);
    EXPECT_EQ(settings["notifications"], false);
    EXPECT_EQ(settings["keepVoiceMemosRunning"], false);
    EXPECT_EQ(settings["afterTranscriptCommand"], "  make notes ");
    EXPECT_EQ(settings["inboxGroupThreshold"], 4);
    EXPECT_EQ(settings["recordingEchoCancellation"], "on");
    EXPECT_EQ(settings["additionalPaths"], json::array({"~/elsewhere"}));
    EXPECT_EQ(settings["remotesPath"], "~/remotes");
    ASSERT_EQ(settings["watchedFoldersRaw"].size(), 3u);
    EXPECT_EQ(settings["watchedFoldersRaw"][1]["path"], "~/Phone");
    EXPECT_EQ(settings["watchedFoldersRaw"][2]["path"], "~/Recorder");

    // --upload turns upload on again, and that is the one change said.
    result = setup({"--upload"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, ::testing::HasSubstr("  upload to Veldane: on\n"));
    EXPECT_THAT(result.output, ::testing::HasSubstr("\nChanged: upload to Veldane off -> on\n"));
    EXPECT_EQ(result.output.find("Changed:"), result.output.rfind("Changed:")) << result.output;
    EXPECT_EQ(saved()["captureVeldaneEnabled"], true);

    // A new vault, a blank command (which turns it off) and notifications said again: each once.
    result = setup({"--vault", "~/Other", "--after-transcript", "  \n ", "--no-notifications"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, ::testing::HasSubstr("\nChanged: vault " + h + "/Notes/Work -> " + h + "/Other\n"
                                                    "Changed: after a transcript make notes -> off\n\n"));
    EXPECT_EQ(result.output.find("Changed: desktop"), std::string::npos) << result.output;
    EXPECT_FALSE(saved().contains("afterTranscriptCommand"));
    EXPECT_EQ(saved()["vaultName"], "Other");
    EXPECT_TRUE(fs::is_directory(home.path() / "Other/_inbox"));
}

// Linux has no Voice Memos: a first setup watches nothing the person did not name, keeps no
// Voice Memos running, and says how to add a folder, naming the recorders' folders it finds.
TEST_F(SetupTest, ALinuxFirstSetupWatchesOnlyWhatThePersonNames)
{
    if (mac) {
        GTEST_SKIP() << "a Mac watches Voice Memos from the first setup";
    }
    fs::create_directories(home.path() / "Recordings");
    fs::create_directories(home.path() / "Music/Recordings");
    auto result = setup();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output.find("iCloud"), std::string::npos);
    EXPECT_EQ(result.output.find("Mac"), std::string::npos);
    EXPECT_THAT(result.output, ::testing::HasSubstr("  Voice Memos folder: " + voiceMemos + " (not watched)\n"));
    EXPECT_THAT(result.output, ::testing::HasSubstr("  keep Voice Memos running: off\n"));
    EXPECT_THAT(result.output,
                ::testing::HasSubstr("\nNothing is watched yet. Add a folder with: quillet-capture config watch PATH\n"
                                     "  (or: quillet-capture setup --watch PATH)\n"
                                     "  Recorders' folders found here: ~/Recordings, ~/Music/Recordings\n"));
    auto settings = saved();
    EXPECT_EQ(settings["captureVoiceMemosEnabled"], false);
    EXPECT_EQ(settings["keepVoiceMemosRunning"], false);
    for (const auto& folder : settings["watchedFoldersRaw"]) {
        EXPECT_EQ(folder["enabled"], false) << folder.dump();
    }

    // A folder added afterwards is watched, and the agent starts on it without a word of
    // Voice Memos or its keeper.
    ASSERT_EQ(test::runProcess(test::programPath(), {"config", "watch", h + "/Recordings"}).status, 0);
    test::ChildProcess agent(test::programPath(), {"run"});
    const fs::path log = Paths::logFile();
    ASSERT_TRUE(test::eventually(
        [&] { return test::readFile(log).find("coordinator started") != std::string::npos; }, 30))
        << test::readFile(log);
    agent.signal(SIGTERM);
    auto ran = agent.wait();
    const std::string lines = test::readFile(log);
    EXPECT_THAT(lines, ::testing::HasSubstr("folders=Recordings)"));
    EXPECT_EQ(lines.find("keeper"), std::string::npos) << lines;
    EXPECT_EQ(lines.find("Voice Memos"), std::string::npos) << lines;
    EXPECT_EQ(ran.errors.find("Voice Memos"), std::string::npos) << ran.errors;
}

TEST_F(SetupTest, WatchAddsFoldersAfterVoiceMemos)
{
    auto result = setup({"--watch", "~/Sync/Phone", "--vault", h + "/v", "--watch", "/srv/recordings/",
                         "--watch", h + "/Sync/Phone"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, summary(h + "/v", "on", "", "off",
                                     "  watched folder:     ~/Sync/Phone\n"
                                     "  watched folder:     /srv/recordings/\n"));
    auto folders = saved()["watchedFoldersRaw"];
    ASSERT_EQ(folders.size(), 3u);
    EXPECT_EQ(folders[0]["id"], "voice-memos");
    EXPECT_EQ(folders[0]["enabled"], mac);
    EXPECT_EQ(folders[1]["path"], "~/Sync/Phone");
    EXPECT_EQ(folders[1]["displayName"], "Phone");
    EXPECT_EQ(folders[1]["normaliser"], "none");
    EXPECT_EQ(folders[1]["enabled"], true);
    EXPECT_EQ(folders[2]["id"], "folder-2CJIN2R2908WP"); // the hash of the path as typed, slash included
    EXPECT_EQ(folders[2]["displayName"], "recordings");
}

TEST_F(SetupTest, AFolderGivenTwiceIsWatchedOnce)
{
    fs::create_directories(home.path() / "Sync/Phone");
    fs::create_directories(voiceMemos);
    auto result = setup({"--vault", h + "/v", "--watch", h + "/Sync/Phone", "--watch", h + "/Sync/Phone/", "--watch",
                         h + "/Sync/./Phone", "--watch", voiceMemos + "/"});
    ASSERT_EQ(result.status, 0) << result.errors;
    // Naming the Voice Memos folder asks for it, on Linux too, with what keeps it filling.
    EXPECT_EQ(result.output,
              summary(h + "/v", "on", "on", "off", "  watched folder:     " + h + "/Sync/Phone\n", true));
    auto folders = saved()["watchedFoldersRaw"];
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_EQ(folders[0]["id"], "voice-memos");
    EXPECT_EQ(folders[0]["enabled"], true);
    EXPECT_EQ(folders[1]["path"], h + "/Sync/Phone");
}

// A relative --vault or --watch names a folder of the working folder of setup, not of the
// agent's or a later command's: it is stored absolute.
TEST_F(SetupTest, RelativeFoldersAreStoredAbsolute)
{
    fs::create_directories(home.path() / "work");
    auto result = test::runProcess("/bin/sh", {"-c", "cd '" + h + "/work' && exec \"$0\" setup --vault Notes/ "
                                                      "--watch ../Synced --watch '~/Phone'",
                                               test::programPath()});
    ASSERT_EQ(result.status, 0) << result.errors;
    auto stored = saved();
    EXPECT_EQ(stored["vaultPath"], h + "/work/Notes");
    EXPECT_EQ(stored["watchedFoldersRaw"][1]["path"], h + "/Synced");
    EXPECT_EQ(stored["watchedFoldersRaw"][2]["path"], "~/Phone");
    EXPECT_TRUE(fs::is_directory(home.path() / "work/Notes/_inbox"));
}

// Settings that cannot be used are not dropped without a word: every command says which file
// and why, in one line, and setup keeps the file beside the new one.
TEST_F(SetupTest, UnusableSettingsAreSaidAndKeptAside)
{
    test::writeFile(settingsFile, "{\"vaultPath\": \"/notes\", \"veldaneBaseURL\": ");
    auto status = test::runProcess(test::programPath(), {"status"});
    EXPECT_EQ(status.status, 0) << status.errors;
    EXPECT_THAT(status.errors, ::testing::HasSubstr("[quillet] capture-cli: settings file " + settingsFile.string() +
                                                    " cannot be used ("));
    EXPECT_THAT(status.errors, ::testing::HasSubstr("); using the defaults\n"));

    auto result = setup({"--vault", h + "/Vault"});
    ASSERT_EQ(result.status, 0) << result.errors;
    std::vector<fs::path> kept;
    for (const auto& entry : fs::directory_iterator(settingsFile.parent_path())) {
        if (entry.path().filename().string().starts_with("settings.json.unreadable-")) {
            kept.push_back(entry.path());
        }
    }
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(test::readFile(kept[0]), "{\"vaultPath\": \"/notes\", \"veldaneBaseURL\": ");
    EXPECT_THAT(result.output, ::testing::StartsWith("Kept the settings file that could not be read as " +
                                                     kept[0].string() + "\n"));
    EXPECT_EQ(saved()["vaultPath"], h + "/Vault");

    // Something that is no file at all where the settings belong hangs nothing.
    fs::remove(settingsFile);
    ASSERT_EQ(::mkfifo(settingsFile.c_str(), 0600), 0);
    status = test::runProcess(test::programPath(), {"status"}, {}, 20);
    EXPECT_EQ(status.status, 0) << status.errors;
    EXPECT_THAT(status.errors, ::testing::HasSubstr(" cannot be used (it is not a regular file)"));
}

TEST_F(SetupTest, FoldersThatCannotBeWritten)
{
    test::writeFile(home.path() / "occupied", "a file, not a folder");
    auto result = setup({"--vault", h + "/occupied"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "Could not create " + h + "/occupied/_inbox: Not a directory\n");
    EXPECT_FALSE(fs::exists(settingsFile));

    result = setup({"--vault", ""});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "setup: --vault needs a folder, not an empty word (see quillet-capture setup --help)\n");

    // Settings that cannot be saved still give the summary.
    // (~/.config on Linux, ~/Library/Application Support on macOS)
    fs::remove_all(settingsFile.parent_path().parent_path());
    test::writeFile(settingsFile.parent_path().parent_path(), "a file where the folder should be");
    result = setup({"--vault", h + "/v"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, summary(h + "/v"));
    EXPECT_THAT(result.errors, firstSetupErrors());
}

} // namespace
} // namespace quillet
