#include "quillet_capture/config/SettingKeys.hpp"

#include "quillet_capture/config/AppSettings.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <set>
#include <sstream>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// The SETTINGS section of the manual page: what a person reads to know each key.
std::string settingsSection()
{
    std::istringstream lines(test::readFile(fs::path(QUILLET_SOURCE_DIR) / "man/quillet-capture.1"));
    std::string line, section;
    bool inside = false;
    while (std::getline(lines, line)) {
        if (line.starts_with(".SH ")) {
            inside = line == ".SH SETTINGS";
        } else if (inside) {
            section += line + "\n";
        }
    }
    return section;
}

// The manual page and `config` go by the same keys: a key added to one and not the other
// would be one the person cannot find, or one documented that config refuses.
TEST(SettingKeys, TheManualPageDescribesEachKeyAsTheTableDoes)
{
    const auto section = settingsSection();
    ASSERT_FALSE(section.empty()) << "no SETTINGS section in the manual page";
    std::set<std::string> documented;
    std::istringstream lines(section);
    std::string line;
    bool tag = false;
    while (std::getline(lines, line)) {
        if (line == ".TP") {
            tag = true;
        } else if (tag) {
            ASSERT_TRUE(line.starts_with(".B ")) << line;
            documented.insert(line.substr(3));
            tag = false;
        }
    }
    std::set<std::string> inTable;
    for (const auto& key : SettingKeys::all()) {
        inTable.insert(std::string(key.name));
        const std::string entry = ".TP\n.B " + std::string(key.name) + "\n" + std::string(key.type) +
                                  "; default: " + std::string(key.defaultValue) + ".\n" + std::string(key.meaning) +
                                  "\n";
        EXPECT_NE(section.find(entry), std::string::npos) << "the manual page should say:\n" << entry;
    }
    EXPECT_EQ(documented, inTable);
}

// Every key of the settings file is either one the program reads (in the table) or one kept
// for the menu-bar app, never both and never neither: a new key must be placed.
TEST(SettingKeys, EveryKeyOfTheFileIsPlaced)
{
    AppSettings full = AppSettings::defaults();
    full.captureVeldaneEnabled = true;
    full.veldaneBaseURL = "https://x";
    full.keepVoiceMemosRunning = true;
    full.watchedFoldersRaw = std::vector<WatchedFolder>{};
    full.inboxGroupThreshold = full.outboxGroupThreshold = full.handoffGroupThreshold = full.todayGroupThreshold =
        full.menuDayLimit = 1;
    full.recordingSource = RecordingSource::allAudio();
    full.recordingIncludeMicrophone = full.recordingConsentReminder = full.recordingShowWindow = true;
    full.recordingMicrophoneUID = full.recordingConsentText = full.afterTranscriptCommand = "x";
    full.recordingAutoStopMinutes = 1;
    full.notifyTranscriptReady = full.notifyTranscriptFailed = full.notifyVoiceMemoSent = true;
    full.recordingQuickKey = full.notifications = true;
    full.recordingEchoCancellation = EchoCancellationMode::automatic;
    full.excludeFilePatterns = std::vector<std::string>{};
    const auto json = full.toJSON();
    for (const auto& [name, value] : json.items()) {
        const bool read = SettingKeys::find(name) != nullptr;
        EXPECT_NE(read, SettingKeys::isKeptForTheApp(name)) << name;
    }
    for (const auto& key : SettingKeys::all()) {
        EXPECT_TRUE(json.contains(std::string(key.name))) << key.name << " is no key of the settings file";
    }
}

} // namespace
} // namespace quillet
