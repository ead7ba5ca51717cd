#include "quillet_capture/cli/StatusReport.hpp"

#include "quillet_capture/util/Iso8601.hpp"

#include "tests/support/Scratch.hpp"
#include "tests/support/StatusFacts.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Keys = std::set<std::string>;

// A report with every part that can be there: two folders (one of them Voice Memos with a
// readable library), pairing, an after-transcript command, inbox counts, captures the agent
// tries again, given up and with notes that do not parse, an access line and a log tail.
StatusReport fullReport()
{
    using namespace std::chrono;
    StatusReport report;
    report.version = "9.8.7";
    report.program = "/opt/quillet/bin/quillet-capture";
    report.settingsFile = "/home/ada/.config/quillet/settings.json";
    report.vault = "/home/ada/Vault";
    report.inboxPath = "/home/ada/Vault/_inbox";
    StatusReport::Library library;
    library.state = "readable";
    library.summary = "readable, 5 recordings";
    library.recordings = 5;
    library.waitingForDownload = 2;
    library.oldestWaiting = system_clock::time_point(seconds(1'709'280'061));
    library.recentlyDeleted = 1;
    StatusReport::Folder memos;
    memos.id = "voice-memos";
    memos.name = "Voice Memos";
    memos.path = "/home/ada/Recordings";
    memos.enabled = true;
    memos.voiceMemos = true;
    memos.library = library;
    StatusReport::Folder phone;
    phone.id = "folder-1X2Y";
    phone.name = "Phone";
    phone.path = "/home/ada/Sync/Phone";
    phone.enabled = false;
    report.folders = {memos, phone};
    report.upload = true;
    report.afterTranscript = "echo \"done\"";
    report.pairing = StatusReport::Pairing::paired;
    report.tokenPrefix = "tok-0123456789";
    report.keepVoiceMemosRunning = true;
    report.voiceMemosRunning = true;
    report.agentLoaded = true;
    report.inbox.state = StatusReport::Inbox::State::listed;
    report.inbox.transcribed = 4;
    report.inbox.inProgress = 3;
    report.inbox.other = 2;
    report.inbox.canBeSent = 1;
    report.inbox.waitingForPairing = 1;
    report.recovery.waiting = 2;
    report.recovery.next = system_clock::time_point(seconds(1'773'480'000));
    report.recovery.givenUp = 1;
    report.recovery.unreadableNotes = {"250101-090000", "250102-090000"};
    report.logFile = "/home/ada/.local/state/quillet/quillet.log";
    report.log.accessLine = "2026-03-14T09:00:30Z [quillet] capture: Voice Memos access -> ok (3 files)";
    report.log.tail = {"2026-03-14T09:01:00Z line one", "2026-03-14T09:01:01Z line \"two\" \\ tab\t"};
    return report;
}

// A report with nothing optional: no settings, no token, no inbox, no log.
StatusReport emptyReport()
{
    StatusReport report;
    report.version = "9.8.7";
    report.program = "/usr/bin/quillet-capture";
    report.settingsFile = "/home/bo/.config/quillet/settings.json";
    report.settingsMissing = true;
    report.vault = "/home/bo/Vault";
    report.inboxPath = "/home/bo/Vault/_inbox";
    StatusReport::Folder memos;
    memos.id = "voice-memos";
    memos.name = "Voice Memos";
    memos.path = "/home/bo/Recordings";
    memos.voiceMemos = true;
    report.folders = {memos};
    report.logFile = "/home/bo/.local/state/quillet/quillet.log";
    return report;
}

// Every key of `value` as a path: "counts.nextTry", "folders[].library.state".
void collectKeys(const json& value, const std::string& prefix, Keys& keys)
{
    if (value.is_object()) {
        for (const auto& [key, member] : value.items()) {
            std::string path = prefix.empty() ? key : prefix + "." + key;
            keys.insert(path);
            collectKeys(member, path, keys);
        }
    } else if (value.is_array()) {
        for (const auto& element : value) {
            collectKeys(element, prefix + "[]", keys);
        }
    }
}

// The keys that the manual page documents under `status --json`: the italic tags of the list
// between the --json option and the next command.
Keys documentedKeys()
{
    std::string page = test::readFile(fs::path(QUILLET_SOURCE_DIR) / "man/quillet-capture.1");
    auto begin = page.find("\n.B \\-\\-json\n");
    auto end = page.find("\n.B run\n", begin);
    EXPECT_NE(begin, std::string::npos) << "no --json entry in the manual page";
    EXPECT_NE(end, std::string::npos);
    std::string section = page.substr(begin, end - begin);
    Keys keys;
    std::regex tag("\n\\.TP\n\\.I ([^\n ]+)\n");
    for (auto it = std::sregex_iterator(section.begin(), section.end(), tag); it != std::sregex_iterator(); ++it) {
        keys.insert((*it)[1].str());
    }
    return keys;
}

TEST(StatusReport, TheJsonCarriesEveryFactOfTheText)
{
    // Each variation of the full report changes one fact; each must read the same both ways.
    std::vector<std::function<void(StatusReport&)>> variations = {
        [](StatusReport&) {},
        [](StatusReport& r) { r.pairing = StatusReport::Pairing::noToken; },
        [](StatusReport& r) { r.pairing = StatusReport::Pairing::noTokenInKeychain; },
        [](StatusReport& r) {
            r.pairing = StatusReport::Pairing::tokenFileUnreadable;
            r.unreadableTokenFile = "/home/ada/.local/share/quillet/credentials.json";
        },
        [](StatusReport& r) {
            r.inbox = {};
            r.inbox.state = StatusReport::Inbox::State::unreadable;
            r.inbox.error = "Permission denied";
        },
        [](StatusReport& r) { r.inbox = {}; },
        [](StatusReport& r) {
            r.folders[0].library->state = "unreadable";
            r.folders[0].library->summary = "cannot be read (authorization denied)";
            r.folders[0].library->recordings.reset();
            r.folders[0].library->waitingForDownload.reset();
            r.folders[0].library->oldestWaiting.reset();
            r.folders[0].library->recentlyDeleted.reset();
        },
        [](StatusReport& r) { r.folders[0].library->oldestWaiting.reset(); },
        [](StatusReport& r) { r.recovery = {}; },
        [](StatusReport& r) {
            r.afterTranscript.reset();
            r.upload = false;
            r.agentLoaded = false;
            r.voiceMemosRunning = false;
            r.log = {};
        },
        [](StatusReport& r) {
            r.agentLoaded = false;
            r.agentPid = 4242;
            r.inbox.agentWorking = true;
        },
        [](StatusReport& r) {
            r.agentPid = 4242;
            r.inbox.agentWorking = true;
        },
        [](StatusReport& r) {
            r.platform = Platform::linux;
            r.agentName = "systemd user unit";
        },
        [](StatusReport& r) {
            r.platform = Platform::linux;
            r.agentName = "systemd user unit";
            r.agentLoaded = false;
            r.folders[0].enabled = false;
            r.folders[0].library.reset();
        },
    };
    for (std::size_t i = 0; i < variations.size(); ++i) {
        SCOPED_TRACE("variation " + std::to_string(i));
        StatusReport report = fullReport();
        variations[i](report);
        json facts = json::parse(report.jsonText());
        test::expectSameFacts(report.text(), facts);
    }
    SCOPED_TRACE("the empty report");
    test::expectSameFacts(emptyReport().text(), json::parse(emptyReport().jsonText()));
}

TEST(StatusReport, TheAgentLineAndTheRetryHintFollowTheRunningAgent)
{
    StatusReport report = fullReport();
    report.agentLoaded = false;
    EXPECT_NE(report.text().find("\n  LaunchAgent: not loaded -- run install\n"), std::string::npos) << report.text();
    EXPECT_NE(report.text().find(" -- 1 can be sent with: quillet-capture retry"), std::string::npos);

    // Started by hand: named with its pid, and it sends what retry would.
    report.agentPid = 4242;
    report.inbox.agentWorking = true;
    EXPECT_NE(report.text().find("\n  agent:       running (pid 4242, started by hand)\n"), std::string::npos)
        << report.text();
    EXPECT_EQ(report.text().find("can be sent with"), std::string::npos) << report.text();
    EXPECT_EQ(report.text().find("run install"), std::string::npos) << report.text();
    json facts = json::parse(report.jsonText());
    EXPECT_EQ(facts["agent"]["pid"], 4242);
    EXPECT_EQ(facts["agent"]["startedByHand"], true);
    EXPECT_EQ(facts["counts"]["canBeSentWithRetry"], 1);
}

TEST(StatusReport, OnLinuxTheTextsSpeakOfWhatIsThere)
{
    StatusReport mac = fullReport();
    mac.folders[0].enabled = false;
    mac.folders[0].library.reset();
    StatusReport onLinux = mac;
    onLinux.platform = Platform::linux;
    onLinux.agentName = "systemd user unit";

    // macOS: as it always was.
    EXPECT_NE(mac.text().find("\n  keep Voice Memos running: on (running now)\n  LaunchAgent: loaded\n"),
              std::string::npos)
        << mac.text();
    EXPECT_NE(mac.text().find("(from the log; this Terminal has its own permissions):\n"), std::string::npos);

    // Linux: no Voice Memos line while no Voice Memos folder is watched, the unit by its name,
    // and no Terminal.
    std::string text = onLinux.text();
    EXPECT_EQ(text.find("Voice Memos running"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  systemd user unit: loaded\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nAccess as seen by the running capture (from the log):\n"), std::string::npos) << text;
    for (const char* macOnly : {"LaunchAgent", "Terminal", "Keychain", "Mac"}) {
        EXPECT_EQ(text.find(macOnly), std::string::npos) << macOnly << "\n" << text;
    }
    // A watched Voice Memos folder (copied from a Mac) brings its line back.
    onLinux.folders[0].enabled = true;
    EXPECT_NE(onLinux.text().find("\n  keep Voice Memos running: "), std::string::npos);
}

TEST(StatusReport, TheJsonHoldsTheGatheredValuesWithUtcDates)
{
    StatusReport report = fullReport();
    json facts = json::parse(report.jsonText());
    EXPECT_EQ(facts["vault"], report.vault);
    EXPECT_EQ(facts["inbox"]["path"], report.inboxPath);
    ASSERT_EQ(facts["folders"].size(), 2U);
    EXPECT_EQ(facts["folders"][0]["id"], "voice-memos");
    EXPECT_EQ(facts["folders"][0]["kind"], "voiceMemos");
    EXPECT_EQ(facts["folders"][1]["kind"], "folder");
    EXPECT_EQ(facts["folders"][1]["id"], report.folders[1].id);
    EXPECT_EQ(facts["folders"][1]["enabled"], false);
    EXPECT_TRUE(facts["folders"][1]["library"].is_null());
    const json& library = facts["folders"][0]["library"];
    EXPECT_EQ(library["recordings"], 5);
    EXPECT_EQ(library["waitingForDownload"], 2);
    EXPECT_EQ(library["recentlyDeleted"], 1);
    EXPECT_EQ(library["oldestWaiting"], "2024-03-01T08:01:01Z");
    EXPECT_EQ(facts["counts"]["nextTry"], Iso8601::format(*report.recovery.next));
    EXPECT_TRUE(facts["counts"]["nextTry"].get<std::string>().ends_with("Z"));
    EXPECT_EQ(facts["counts"]["givenUp"], 1);
    EXPECT_EQ(facts["counts"]["unreadableNotes"], json(report.recovery.unreadableNotes));
    EXPECT_EQ(facts["logTail"], json(report.log.tail)); // quotes, backslashes and tabs survive
    EXPECT_EQ(facts["afterTranscript"], *report.afterTranscript);

    json empty = json::parse(emptyReport().jsonText());
    EXPECT_EQ(empty["settingsMissing"], true);
    EXPECT_EQ(empty["paired"], false);
    EXPECT_TRUE(empty["afterTranscript"].is_null());
    EXPECT_TRUE(empty["unreadableTokenFile"].is_null());
    EXPECT_EQ(empty["inbox"]["state"], "missing");
    EXPECT_TRUE(empty["counts"]["nextTry"].is_null());
    EXPECT_EQ(empty["counts"]["unreadableNotes"], json::array());
    EXPECT_TRUE(empty["lastAccessLine"].is_null());
    EXPECT_EQ(empty["logTail"], json::array());
}

TEST(StatusReport, TheTokenIsNeverInTheJson)
{
    for (auto pairing : {StatusReport::Pairing::paired, StatusReport::Pairing::tokenFileUnreadable}) {
        StatusReport report = fullReport();
        report.pairing = pairing;
        report.tokenPrefix = "sekrit-7f3a9"; // what the gathering keeps of a token
        std::string output = report.jsonText();
        EXPECT_EQ(output.find("sekrit"), std::string::npos) << output;
        EXPECT_EQ(json::parse(output)["paired"], pairing == StatusReport::Pairing::paired);
    }
    StatusReport report = fullReport();
    report.tokenPrefix = "sekrit-7f3a9";
    EXPECT_NE(report.text().find("  paired:      yes (sekrit-7f3a9...)\n"), std::string::npos) << report.text();
}

TEST(StatusReport, TheOutputIsOneIndentedObjectWithOneLineFeedEvenForBytesThatAreNotUtf8)
{
    StatusReport report = fullReport();
    std::string output = report.jsonText();
    ASSERT_TRUE(output.ends_with("}\n")) << output;
    EXPECT_FALSE(output.ends_with("\n\n"));
    EXPECT_TRUE(output.starts_with("{\n  \"version\": \"9.8.7\",\n")) << output;
    EXPECT_EQ(output, nlohmann::ordered_json::parse(output).dump(2) + "\n");

    // A path on Linux is bytes: one that is not UTF-8 is shown with U+FFFD, never a failure.
    report.vault = "/home/ada/Vault-\xFF\xFE";
    report.log.tail.push_back("fine");
    ASSERT_NO_THROW(output = report.jsonText());
    json facts = json::parse(output);
    EXPECT_EQ(facts["vault"], "/home/ada/Vault-\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(facts["logTail"].back(), "fine");
}

TEST(StatusReport, EveryKeyIsLowerCamelCaseAndDocumentedInTheManualPage)
{
    Keys keys;
    collectKeys(json::parse(fullReport().jsonText()), "", keys);
    std::regex camel("[a-z][A-Za-z0-9]*");
    for (const auto& path : keys) {
        std::string last = path.substr(path.find_last_of(".]") == std::string::npos ? 0 : path.find_last_of(".]") + 1);
        EXPECT_TRUE(std::regex_match(last, camel)) << path;
    }
    // Keys that only the empty report has (none should) would be missed above.
    Keys emptyKeys;
    collectKeys(json::parse(emptyReport().jsonText()), "", emptyKeys);
    for (const auto& path : emptyKeys) {
        EXPECT_TRUE(keys.contains(path)) << path;
    }
    EXPECT_EQ(documentedKeys(), keys);
}

} // namespace
} // namespace quillet
