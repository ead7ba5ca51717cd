#include "quillet_capture/cli/StatusCommand.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/LibraryFixture.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"
#include "tests/support/StatusFacts.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct StatusLogTest : ::testing::Test {
    test::ScratchDir dir;
    fs::path file = dir.path() / "quillet.log";

    StatusLog read(const std::string& text, std::size_t tailLines = 12)
    {
        test::writeFile(file, text);
        return readStatusLog(file, tailLines);
    }
};

TEST_F(StatusLogTest, LinesAreSplitAtLineFeedsWithoutEmptyOnes)
{
    auto log = read("one\n\n\ntwo\r\n  \nthree access -> ok\nfour");
    EXPECT_EQ(log.tail, (Lines{"one", "two\r", "  ", "three access -> ok", "four"}));
    EXPECT_EQ(log.accessLine, "three access -> ok");

    log = read("a\nb\nc\nd\ne\n");
    EXPECT_EQ(log.tail, (Lines{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(log.accessLine, std::nullopt);

    EXPECT_EQ(read("").tail, Lines{});
    EXPECT_EQ(read("\n\n\n").tail, Lines{});
}

TEST_F(StatusLogTest, TheLatestAccessLineIsFoundAnywhereAndTheTailIsTheLastLines)
{
    std::string text = "x access -> denied\ny access -> ok (2 files)\n";
    Lines expected;
    for (int i = 0; i < 20; ++i) {
        text += "line " + std::to_string(i) + "\n";
        if (i >= 8) {
            expected.push_back("line " + std::to_string(i));
        }
    }
    auto log = read(text);
    EXPECT_EQ(log.accessLine, "y access -> ok (2 files)");
    EXPECT_EQ(log.tail, expected);
    EXPECT_EQ(read(text, 3).tail, (Lines{"line 17", "line 18", "line 19"}));
    // "access" without the arrow is not an access line.
    EXPECT_EQ(read("access denied\naccess->x\n").accessLine, std::nullopt);
}

TEST_F(StatusLogTest, LinesLongerThanOneReadAndManyOfThem)
{
    std::string longLine(300 * 1024, 'a');
    longLine += " access -> ok";
    std::string text = longLine + "\n";
    for (int i = 0; i < 100000; ++i) {
        text += "l" + std::to_string(i) + "\n";
    }
    auto log = read(text, 2);
    EXPECT_EQ(log.accessLine, longLine);
    EXPECT_EQ(log.tail, (Lines{"l99998", "l99999"}));
}

TEST_F(StatusLogTest, ALogThatIsNotUtf8OrCannotBeReadCountsAsEmpty)
{
    // One bad byte anywhere, even long before the tail, empties the whole log.
    std::string text = "a access -> ok\n\xC3(\n";
    for (int i = 0; i < 50; ++i) {
        text += "fine line\n";
    }
    auto log = read(text);
    EXPECT_EQ(log.accessLine, std::nullopt);
    EXPECT_EQ(log.tail, Lines{});
    // A truncated sequence at the very end as well.
    EXPECT_EQ(read("good\nbad \xE2\x82").tail, Lines{});
    // Valid multi-byte text is kept as it is.
    EXPECT_EQ(read("caf\xC3\xA9 \xE2\x82\xAC\n").tail, Lines{"caf\xC3\xA9 \xE2\x82\xAC"});

    EXPECT_EQ(readStatusLog(dir.path() / "missing.log").tail, Lines{});
    EXPECT_EQ(readStatusLog(dir.path()).tail, Lines{}); // a folder
}

TEST(InboxSummary, CountsAndTheRetryHint)
{
    test::ScratchDir dir;
    std::vector<std::string> asked;
    // Sends the notes whose job status is one of `states`, and remembers what it was asked.
    auto sending = [&asked](std::set<std::string> states) {
        return [&asked, states](const fs::path& note, const InboxWriter::Frontmatter& frontmatter) {
            asked.push_back(note.filename().string());
            return states.contains(frontmatter.vdJobStatus.value_or("skipped"));
        };
    };
    EXPECT_EQ(inboxSummary(dir.path() / "_inbox", sending({"done"})), "no _inbox yet");
    EXPECT_TRUE(asked.empty());

    fs::path inbox = dir.path() / "_inbox";
    test::writeFile(inbox / "a.m4a", "x");
    test::writeFile(inbox / "readme.txt", "x");
    test::writeFile(inbox / ".audio/x.md", "---\nid: x\n---\n");
    EXPECT_EQ(inboxSummary(inbox, sending({"done"})), "0 transcribed, 0 in progress, 0 other");
    EXPECT_TRUE(asked.empty());

    auto note = [&](const std::string& name, const std::string& jobStatus) {
        test::writeFile(inbox / name, "---\nid: " + name + "\nsource:\n  vd_job_status: " + jobStatus + "\n---\n");
    };
    note("a.md", "done");
    note("b.md", "done");
    note("c.md", "processing");
    note("d.md", "upload_failed");
    note("e.md", "failed");
    test::writeFile(inbox / "f.md", "---\nid: f\n---\nno job status: skipped\n");
    test::writeFile(inbox / "g.md", "no frontmatter at all\n");
    EXPECT_EQ(inboxSummary(inbox, sending({"upload_failed"})),
              "2 transcribed, 2 in progress, 2 other -- 1 can be sent with: quillet-capture retry");
    // Every note with a frontmatter is asked about, once.
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ(asked, (std::vector<std::string>{"a.md", "b.md", "c.md", "d.md", "e.md", "f.md"}));
    EXPECT_EQ(inboxSummary(inbox, sending({"done", "processing", "upload_failed", "failed", "skipped"})),
              "2 transcribed, 2 in progress, 2 other -- 6 can be sent with: quillet-capture retry");
}

// The facts gathered from a scratch home: its settings, token file, inbox, library and log,
// with the agent's stores and the service manager of the test.
struct StatusGatherTest : ::testing::Test {
    std::optional<std::string> savedStore;
    test::ScratchHome home;
    test::ScratchDir bin;
    test::FakeClock clock;
    CaptureRecovery recovery{home.path() / "state/recovery.json", clock};
    CaptureIdentities identities{home.path() / "state/identities.json"};
    SystemdAgentManager agent{(bin.path() / "systemctl").string()};
    bool voiceMemosRunning = false;

    StatusGatherTest()
    {
        if (const char* store = std::getenv("QUILLET_TOKEN_STORE")) {
            savedStore = store;
        }
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        // Reports the agent active while the flag file "active" exists beside it.
        test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                                  "here=$(dirname \"$0\")\n"
                                                  "[ \"$2\" = is-active ] && [ ! -f \"$here/active\" ] && exit 3\n"
                                                  "exit 0\n");
        fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
        Settings::shared().resetToDefaults();
    }

    ~StatusGatherTest() override
    {
        if (savedStore) {
            setenv("QUILLET_TOKEN_STORE", savedStore->c_str(), 1);
        } else {
            unsetenv("QUILLET_TOKEN_STORE");
        }
        Settings::shared().resetToDefaults();
    }

    StatusReport gather()
    {
        return gatherStatus({
            .settings = Settings::shared(),
            .recovery = recovery,
            .agent = agent,
            .identities = identities,
            .voiceMemosRunning = [this] { return voiceMemosRunning; },
        });
    }

    // The report both ways, checked against each other; the JSON.
    nlohmann::json gatherBoth()
    {
        StatusReport report = gather();
        std::string text = report.text();
        nlohmann::json facts = nlohmann::json::parse(report.jsonText());
        test::expectSameFacts(text, facts);
        return facts;
    }

    void note(const fs::path& vault, const std::string& id, std::optional<std::string> jobStatus, bool audio = false)
    {
        auto frontmatter = InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
        frontmatter.vdJobStatus = std::move(jobStatus);
        InboxWriter(vault).writeMarkdown(frontmatter, "");
        if (audio) {
            test::writeFile(vault / "_inbox/.audio" / (id + ".m4a"), "audio");
        }
    }
};

TEST_F(StatusGatherTest, AHomeWithoutSettingsIsReportedAsSuchAndLeftAsItWas)
{
    auto facts = gatherBoth();
    EXPECT_EQ(facts["settingsFile"], fs::absolute(Paths::settingsFile()).string());
    EXPECT_EQ(facts["settingsMissing"], true);
    EXPECT_EQ(facts["vault"], Settings::shared().vaultPath());
    EXPECT_EQ(facts["inbox"]["state"], "missing");
    EXPECT_EQ(facts["paired"], false);
    EXPECT_EQ(facts["agent"]["loaded"], false);
    EXPECT_EQ(facts["upload"], false);
    ASSERT_EQ(facts["folders"].size(), Settings::shared().watchedFolders().size());
    for (const auto& folder : facts["folders"]) {
        EXPECT_TRUE(folder["library"].is_null()) << folder; // none enabled
    }
    for (const char* count : {"transcribed", "inProgress", "other", "canBeSentWithRetry", "waitingForPairing",
                              "waitingForRetry", "givenUp"}) {
        EXPECT_EQ(facts["counts"][count], 0) << count;
    }
    EXPECT_TRUE(facts["lastAccessLine"].is_null());
    EXPECT_EQ(facts["logTail"], nlohmann::json::array());
    EXPECT_EQ(facts["logFile"], fs::absolute(Paths::logFile()).string());
    EXPECT_FALSE(fs::exists(Paths::settingsFile()));
    EXPECT_FALSE(fs::exists(Paths::logFile()));
}

TEST_F(StatusGatherTest, AVaultWithFoldersNotesFailuresAndALibrary)
{
    const fs::path vault = home.path() / "Vault";
    const fs::path phone = home.path() / "Sync/Phone";
    fs::create_directories(phone);
    fs::create_directories(vault / "_inbox");
    test::writeSettings([&](AppSettings& settings) {
        settings.vaultPath = "~/Vault";
        settings.captureVoiceMemosEnabled = true;
        settings.captureVeldaneEnabled = true;
        settings.afterTranscriptCommand = "echo done";
        auto off = WatchedFolder::generic(home.path().string() + "/Old");
        off.enabled = false;
        settings.watchedFoldersRaw =
            std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true), WatchedFolder::generic("~/Sync/Phone"), off};
    });
    const std::string token = "tok-abcdefghijk-the-secret-rest";
    ASSERT_TRUE(Keychain::setDeviceToken(token));
    test::writeFile(bin.path() / "active", "");
    voiceMemosRunning = true;
    UserDefaults::setDate(CaptureRetry::watermarkKey, std::chrono::system_clock::time_point(std::chrono::seconds(0)));

    // The library lists a recording that is there, one still in iCloud, one thrown away.
    const fs::path memos = CaptureAccess::voiceMemosURL();
    fs::create_directories(memos);
    test::LibraryFixture library(memos);
    const auto recorded = std::chrono::system_clock::time_point(std::chrono::seconds(1'709'280'061));
    library.add({"REC-1", "20240301 080000.m4a", recorded, 4.0, "Here", std::nullopt, false, ""});
    library.add({"REC-2", "20240301 090000.m4a", recorded, 4.0, "In iCloud", std::nullopt, false, ""});
    library.add({"REC-3", "20240301 100000.m4a", recorded, 4.0, "Thrown away", std::nullopt, true, ""});
    test::writeFile(memos / "20240301 080000.m4a", "audio");

    note(vault, "250101-090000", "done");
    note(vault, "250101-090001", "done");
    note(vault, "250102-090000", "processing");
    note(vault, "250103-090000", "upload_failed", true);
    note(vault, "250104-090000", "needs_pairing");
    note(vault, "250105-090000", "failed", true);
    note(vault, "250105-090001", std::nullopt);
    test::writeFile(vault / "_inbox/plain.md", "no frontmatter\n");

    recovery.failed("250102-090000", "fetch_failed");
    for (int i = 0; i <= CaptureRecovery::maxServiceFailures; ++i) {
        recovery.failed("250105-090000", "failed");
    }
    recovery.failed("250106-090000", CaptureRecovery::noteUnreadable);

    test::writeFile(Paths::logFile(), "2026-03-14T09:00:00Z [quillet] capture: Voice Memos access -> ok (1 files)\n"
                                      "2026-03-14T09:00:01Z [quillet] capture pipeline: one\n\n"
                                      "2026-03-14T09:00:02Z [quillet] capture pipeline: two\n");

    auto facts = gatherBoth();
    EXPECT_EQ(facts["settingsMissing"], false);
    EXPECT_EQ(facts["vault"], vault.string());
    EXPECT_EQ(facts["inbox"]["path"], (vault / "_inbox").string());
    EXPECT_EQ(facts["inbox"]["state"], "listed");
    EXPECT_EQ(facts["upload"], true);
    EXPECT_EQ(facts["afterTranscript"], "echo done");
    EXPECT_EQ(facts["paired"], true);
    EXPECT_EQ(facts["agent"]["loaded"], true);
    EXPECT_EQ(facts["voiceMemos"]["running"], true);

    ASSERT_EQ(facts["folders"].size(), 3U);
    EXPECT_EQ(facts["folders"][0]["path"], memos.string());
    EXPECT_EQ(facts["folders"][1]["path"], phone.string());
    EXPECT_EQ(facts["folders"][1]["name"], "Phone");
    EXPECT_EQ(facts["folders"][1]["id"], WatchedFolder::generic("~/Sync/Phone").id);
    EXPECT_EQ(facts["folders"][2]["enabled"], false);
    const auto& libraryFacts = facts["folders"][0]["library"];
    EXPECT_EQ(libraryFacts["state"], "readable");
    EXPECT_EQ(libraryFacts["recordings"], 3);
    EXPECT_EQ(libraryFacts["waitingForDownload"], 1);
    EXPECT_EQ(libraryFacts["oldestWaiting"], Iso8601::format(recorded));
    EXPECT_EQ(libraryFacts["recentlyDeleted"], 1);

    const auto& counts = facts["counts"];
    EXPECT_EQ(counts["transcribed"], 2);
    EXPECT_EQ(counts["inProgress"], 3); // processing, upload_failed, needs_pairing
    EXPECT_EQ(counts["other"], 2);      // failed, none
    EXPECT_EQ(counts["canBeSentWithRetry"], 2);
    EXPECT_EQ(counts["waitingForPairing"], 1);
    EXPECT_EQ(counts["waitingForRetry"], 2);
    EXPECT_EQ(counts["nextTry"], Iso8601::format(*recovery.earliest()));
    EXPECT_EQ(counts["givenUp"], 1);
    EXPECT_EQ(counts["unreadableNotes"], nlohmann::json::array({"250106-090000"}));

    EXPECT_EQ(facts["lastAccessLine"], "2026-03-14T09:00:00Z [quillet] capture: Voice Memos access -> ok (1 files)");
    EXPECT_EQ(facts["logTail"].size(), 3U);
    EXPECT_EQ(facts["logTail"].back(), "2026-03-14T09:00:02Z [quillet] capture pipeline: two");

    // The text shows the start of the token; the JSON none of it.
    std::string json = gather().jsonText();
    EXPECT_EQ(json.find(token.substr(0, 6)), std::string::npos) << json;
    EXPECT_NE(gather().text().find(token.substr(0, 12)), std::string::npos);
}

} // namespace
} // namespace quillet
