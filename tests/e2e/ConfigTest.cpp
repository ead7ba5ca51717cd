// `config` through the built program: each change touches one key of the settings file and
// nothing else, and every refusal leaves the file as it was.
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/config/SettingKeys.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct ConfigTest : ::testing::Test {
    test::ScratchHome home;
    const std::string h = home.path().string();
    const fs::path settingsFile = Paths::settingsFile();

    test::ProcessResult config(std::vector<std::string> words)
    {
        words.insert(words.begin(), "config");
        return test::runProcess(test::programPath(), words);
    }

    void setUp(std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {"setup", "--vault", h + "/Vault", "--watch", h + "/Phone"});
        auto result = test::runProcess(test::programPath(), options);
        ASSERT_EQ(result.status, 0) << result.errors;
    }

    json saved() { return json::parse(test::readFile(settingsFile)); }

    // The line of `config list` for `key`.
    std::string listed(const std::string& key)
    {
        auto result = config({"list"});
        EXPECT_EQ(result.status, 0) << result.errors;
        auto at = result.output.find("\n" + key + ": ");
        if (result.output.starts_with(key + ": ")) {
            at = 0;
        } else if (at != std::string::npos) {
            ++at;
        } else {
            return "(not listed)";
        }
        auto end = result.output.find('\n', at);
        return result.output.substr(at + key.size() + 2, end - at - key.size() - 2);
    }
};

// The file without `key`: what must stay as it was when only `key` changes.
json without(json settings, const std::string& key)
{
    settings.erase(key);
    return settings;
}

TEST_F(ConfigTest, SetGetUnsetAndListAgreeAndTouchOnlyTheirKey)
{
    setUp();
    struct Case {
        std::string key, typed, stored, shownBefore, defaultShown;
    };
    const std::vector<Case> cases = {
        {"captureVeldaneEnabled", "false", "false", "true", "(default: false)"},
        {"notifications", "false", "false", "(default: true)", "(default: true)"},
        {"notifyTranscriptReady", "false", "false", "(default: true)", "(default: true)"},
        {"veldaneBaseURL", "http://127.0.0.1:9/api", "http://127.0.0.1:9/api",
         "(default: https://api.veldane.com/api/v1)", "(default: https://api.veldane.com/api/v1)"},
        {"afterTranscriptCommand", " \t make notes\n", "make notes", "(default: none)", "(default: none)"},
        {"excludeFilePatterns", R"(["*.tmp","README.md"])", R"(["*.tmp","README.md"])",
         "(default: CHANGELOG.md, _manifest*, CLAUDE.md, README.md, _tasks-history.md, _inbox.yaml)",
         "(default: CHANGELOG.md, _manifest*, CLAUDE.md, README.md, _tasks-history.md, _inbox.yaml)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        const json before = saved();
        EXPECT_EQ(config({"get", c.key}).output, c.shownBefore + "\n");

        auto result = config({"set", c.key, c.typed});
        ASSERT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output, c.key + ": " + c.shownBefore + " -> " + c.stored + "\n");
        EXPECT_EQ(result.errors, "");
        const json after = saved();
        EXPECT_EQ(without(after, c.key), without(before, c.key));
        EXPECT_EQ(after[c.key], json::parse(c.stored[0] == '[' || c.stored == "true" || c.stored == "false"
                                                ? c.stored
                                                : json(c.stored).dump()));
        EXPECT_EQ(config({"get", c.key}).output, c.stored + "\n");
        EXPECT_EQ(listed(c.key), c.stored);
        auto listedJson = json::parse(config({"list", "--json"}).output);
        EXPECT_EQ(listedJson[c.key]["value"], after[c.key]);

        result = config({"unset", c.key});
        ASSERT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output, c.key + ": " + c.stored + " -> " + c.defaultShown + "\n");
        EXPECT_FALSE(saved().contains(c.key));
        EXPECT_EQ(without(saved(), c.key), without(before, c.key));
        EXPECT_EQ(config({"get", c.key}).output, c.defaultShown + "\n");
        EXPECT_EQ(json::parse(config({"list", "--json"}).output)[c.key]["value"], nullptr);
    }

    // A relative vault is stored absolute, as setup stores it, and gets its inbox.
    fs::create_directories(home.path() / "work");
    auto moved = test::runProcess("/bin/sh", {"-c", "cd '" + h + "/work' && exec \"$0\" config set vaultPath Notes/",
                                              test::programPath()});
    ASSERT_EQ(moved.status, 0) << moved.errors;
    EXPECT_EQ(moved.output, "vaultPath: " + h + "/Vault -> " + h + "/work/Notes\n");
    EXPECT_EQ(saved()["vaultPath"], h + "/work/Notes");
    EXPECT_EQ(saved()["vaultName"], "Notes");
    EXPECT_TRUE(fs::is_directory(home.path() / "work/Notes/_inbox"));

    // Every key of the table is listed, in text and in JSON, and nothing else.
    auto text = config({"list"});
    auto object = json::parse(config({"list", "--json"}).output);
    EXPECT_EQ(object.size(), SettingKeys::all().size());
    for (const auto& key : SettingKeys::all()) {
        EXPECT_THAT("\n" + text.output, ::testing::HasSubstr("\n" + std::string(key.name) + ":"))
            << key.name;
        EXPECT_TRUE(object.contains(std::string(key.name))) << key.name;
    }
}

TEST_F(ConfigTest, RefusalsSayWhyEndWithTwoAndLeaveTheFileAsItWas)
{
    // Before any setup: changes are refused and write nothing; looking shows the defaults.
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"set", "captureVeldaneEnabled", "false"}, {"unset", "notifications"}, {"watch", h}, {"unwatch", h}}) {
        auto result = config(words);
        EXPECT_EQ(result.status, 2) << words[0];
        EXPECT_EQ(result.errors, "nothing is set up yet. Run setup first.\n");
        EXPECT_EQ(result.output, "");
        EXPECT_FALSE(fs::exists(settingsFile));
    }
    auto looked = config({"get", "captureVeldaneEnabled"});
    EXPECT_EQ(looked.status, 0);
    EXPECT_EQ(looked.output, "(default: false)\n");
    EXPECT_EQ(listed("vaultPath"), "(default: none (setup chooses it))");
    EXPECT_FALSE(fs::exists(settingsFile));

    setUp();
    const auto facts = test::factsOf(settingsFile);
    ASSERT_TRUE(facts);
    struct Refusal {
        std::vector<std::string> words;
        std::string error;
    };
    const std::vector<Refusal> refusals = {
        {{"set", "vaultpath", "/x"}, "config: unknown key \"vaultpath\" (quillet-capture config list shows them all)"},
        {{"get", "nosuchkey"}, "config: unknown key \"nosuchkey\" (quillet-capture config list shows them all)"},
        {{"set", "maxFiles", "3"}, "config: maxFiles is kept for the menu-bar app; quillet-capture does not read it"},
        {{"set", "captureVeldaneEnabled", "yes"}, "config: captureVeldaneEnabled takes true or false, not \"yes\""},
        {{"set", "notifications", ""}, "config: notifications takes true or false, not \"\""},
        {{"set", "veldaneBaseURL", "ftp://example.com"},
         "config: veldaneBaseURL takes an absolute http(s) URL, not \"ftp://example.com\""},
        {{"set", "excludeFilePatterns", "*.tmp"},
         "config: excludeFilePatterns takes a JSON array of patterns, like [\"README.md\",\"*.tmp\"], not \"*.tmp\""},
        {{"set", "vaultPath", ""}, "config: vaultPath takes a folder, not an empty value"},
        {{"unset", "vaultPath"}, "config: vaultPath has no default to go back to; set it to a folder instead"},
        {{"set", "watchedFoldersRaw", "[]"},
         "config: watchedFoldersRaw is changed with: quillet-capture config watch PATH / config unwatch PATH"},
        {{"unwatch", h + "/Elsewhere"},
         "config: " + h + "/Elsewhere is not watched (quillet-capture config get watchedFoldersRaw lists them)"},
        {{"set", "captureVeldaneEnabled"}, "config set needs a VALUE"},
        {{"frobnicate"}, "config: unknown subcommand \"frobnicate\" (list, get, set, unset, watch, unwatch)"},
    };
    for (const auto& refusal : refusals) {
        auto result = config(refusal.words);
        EXPECT_EQ(result.status, 2) << refusal.words[0];
        EXPECT_EQ(result.errors, refusal.error + "\n");
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(test::factsOf(settingsFile), facts) << refusal.error;
    }
}

TEST_F(ConfigTest, WatchAddsOneFolderAndUnwatchRemovesOnlyThatOne)
{
    setUp({"--after-transcript", "make notes"});
    const json before = saved();
    fs::create_directories(home.path() / "Recordings");
    test::writeFile(home.path() / "Recordings/already-there.m4a", "audio");

    // A relative folder is stored absolute, and it is first watched now.
    const auto start = std::chrono::system_clock::now() - std::chrono::seconds(1);
    auto result = test::runProcess("/bin/sh", {"-c", "cd '" + h + "' && exec \"$0\" config watch Recordings/",
                                               test::programPath()});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Watching " + h + "/Recordings\n");
    auto folders = saved()["watchedFoldersRaw"];
    ASSERT_EQ(folders.size(), before["watchedFoldersRaw"].size() + 1);
    EXPECT_EQ(folders.back()["path"], h + "/Recordings");
    EXPECT_EQ(folders.back()["enabled"], true);
    EXPECT_EQ(without(saved(), "watchedFoldersRaw"), without(before, "watchedFoldersRaw"));
    auto first = FirstWatched::find(WatchedFolder::generic(h + "/Recordings").id);
    ASSERT_TRUE(first);
    EXPECT_GE(*first, start);

    // The same folder again, by another spelling, is said to be watched and changes nothing.
    auto facts = test::factsOf(settingsFile);
    for (const auto& spelling : {h + "/Recordings/", std::string("~/Recordings"), h + "/./Recordings"}) {
        result = config({"watch", spelling});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_THAT(result.output, ::testing::StartsWith(spelling + " is already watched"));
        EXPECT_EQ(test::factsOf(settingsFile), facts);
    }

    // Unwatch removes that folder alone; the earlier one and every other key stay.
    result = config({"unwatch", "~/Recordings"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "No longer watching " + h + "/Recordings\n");
    EXPECT_EQ(saved(), before);

    // The Voice Memos folder keeps its entry and is switched on and off.
    const std::string voiceMemos = WatchedFolder::voiceMemos(true).url().string();
    result = config({"watch", voiceMemos});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(saved()["captureVoiceMemosEnabled"], true);
    EXPECT_EQ(saved()["watchedFoldersRaw"][0]["id"], "voice-memos");
    EXPECT_EQ(saved()["watchedFoldersRaw"][0]["enabled"], true);
    result = config({"set", "captureVoiceMemosEnabled", "false"});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "captureVoiceMemosEnabled: true -> false\n");
    EXPECT_EQ(saved()["watchedFoldersRaw"][0]["enabled"], false);
    EXPECT_EQ(saved()["watchedFoldersRaw"].size(), before["watchedFoldersRaw"].size());
    EXPECT_EQ(saved()["watchedFoldersRaw"][1]["path"], h + "/Phone");
}

} // namespace
} // namespace quillet
