#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/support/Scratch.hpp"
#include "tests/support/StatusFacts.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// `status` through the built program, with a scratch home, the token in the credentials file
// and a fake `systemctl` first in PATH that reports the agent active while a flag file exists.
struct StatusTest : ::testing::Test {
    test::ScratchHome home;
    test::ScratchDir bin;
    const std::string h = home.path().string();
    const fs::path logFile = home.path() / ".local/state/quillet/quillet.log";

    StatusTest()
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                                  "here=$(dirname \"$0\")\n"
                                                  "printf '%s\\n' \"$*\" >> \"$here/calls\"\n"
                                                  "[ \"$2\" = is-active ] && [ ! -f \"$here/active\" ] && exit 3\n"
                                                  "exit 0\n");
        fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
    }

    void SetUp() override
    {
        if (Paths::current() != Platform::linux) {
            GTEST_SKIP() << "the agent is a systemd unit only on Linux";
        }
    }

    test::ProcessResult run(const std::vector<std::string>& arguments)
    {
        const char* system = std::getenv("PATH");
        return test::runProcess(test::programPath(), arguments,
                                {{"PATH", bin.path().string() + ":" + (system ? system : "/usr/bin:/bin")}});
    }

    test::ProcessResult status() { return run({"status"}); }

    std::string program() const { return fs::canonical(test::programPath()).string(); }
    std::string voiceMemos() const { return WatchedFolder::voiceMemos(false).url().string(); }

    // Lines 12 to 17 of the report.
    static std::string logSection(const std::string& access, const std::string& file,
                                  const std::vector<std::string>& tail)
    {
        std::string text = "\nAccess as seen by the running capture (from the log):\n  " +
                           access + "\n\nLast log lines (" + file + "):\n";
        for (const auto& line : tail) {
            text += "  " + line + "\n";
        }
        return text;
    }

    void note(const fs::path& vault, const std::string& id, std::optional<std::string> jobStatus,
              std::optional<std::string> key = std::nullopt, bool audio = false)
    {
        auto frontmatter = InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
        frontmatter.vdJobStatus = std::move(jobStatus);
        frontmatter.externalId = std::move(key);
        InboxWriter(vault).writeMarkdown(frontmatter, "");
        if (audio) {
            test::writeFile(vault / "_inbox/.audio" / (id + ".m4a"), "audio");
        }
    }
};

TEST_F(StatusTest, BeforeSetup)
{
    auto result = status();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output,
              "quillet-capture 1.7.3\n"
              "  program:     " + program() + "\n"
              "  config:      " + h + "/.config/quillet/settings.json  (missing -- run setup)\n"
              "  vault:       " + h + "/workspace/Halden\n"
              "  folder:      Voice Memos off -- " + voiceMemos() + "\n"
              "  upload:      off\n"
              "  after a transcript: off\n"
              "  paired:      no token readable here -- run pair\n"
              "  systemd user unit: not loaded -- run install\n"
              "  inbox:       no _inbox yet\n" +
                  logSection("(no access line yet)", logFile.string(), {}));
    // It only reads: no settings file, no log file, no state appear.
    EXPECT_FALSE(fs::exists(home.path() / ".config/quillet/settings.json"));
    EXPECT_FALSE(fs::exists(home.path() / ".local/state/quillet"));
}

TEST_F(StatusTest, AfterSetupWithNotesOfEveryStatus)
{
    // The Voice Memos folder is named so that Linux watches it as a Mac does.
    auto setup = run({"setup", "--vault", "~/Vault", "--no-keep-voice-memos", "--watch", voiceMemos(), "--watch",
                      "~/Sync/Phone",
                      "--after-transcript", "echo done"});
    ASSERT_EQ(setup.status, 0) << setup.errors;
    ASSERT_TRUE(Keychain::setDeviceToken("abcd1234"));
    test::writeFile(bin.path() / "active", "");
    // An old watermark, so that every note below may be retried.
    test::writeFile(home.path() / ".local/state/quillet/defaults.json",
                    R"({"quillet.captureRetry.watermark": "2020-01-01T00:00:00Z"})");

    const fs::path vault = home.path() / "Vault";
    note(vault, "250101-090000", "done");
    for (const char* resumable : {"queued", "pending", "processing", "completed", "poll_timeout"}) {
        note(vault, std::string("250102-") + resumable, resumable, "key-" + std::string(resumable));
    }
    note(vault, "250103-090000", "upload_failed", std::nullopt, true); // in progress, and retryable
    note(vault, "250104-090000", "failed", std::nullopt, true);        // other, retryable
    note(vault, "250104-090001", "paywalled");                         // other, no audio: not retryable
    note(vault, "250104-090002", "unknown");
    note(vault, "250104-090003", std::nullopt); // no job status counts as skipped
    note(vault, "250104-090004", "skipped");
    note(vault, "250105-090000", "queued", "key-q", true); // in progress; with a key: not retryable
    // Not counted: a note without frontmatter, hidden and non-note files, other cases of ".md".
    test::writeFile(vault / "_inbox/plain.md", "just text, no frontmatter\n");
    test::writeFile(vault / "_inbox/.hidden.md", "---\nid: x\nsource:\n  vd_job_status: done\n---\n");
    test::writeFile(vault / "_inbox/notes.txt", "x");
    test::writeFile(vault / "_inbox/LOUD.MD", "---\nid: x\nsource:\n  vd_job_status: done\n---\n");
    fs::create_directories(vault / "_inbox/folder.md");

    // The last access line is older than the last 12 lines; empty lines do not count.
    std::string log = "2026-03-14T09:00:00Z [quillet] capture: Voice Memos access -> denied\n"
                      "2026-03-14T09:00:30Z [quillet] capture: Voice Memos access -> ok (3 files)\n\n";
    std::vector<std::string> tail;
    for (int i = 1; i <= 14; ++i) {
        std::string line = "2026-03-14T09:01:" + std::to_string(10 + i) + "Z [quillet] capture pipeline: line " +
                           std::to_string(i);
        log += line + "\n\n";
        if (i > 2) {
            tail.push_back(line);
        }
    }
    test::writeFile(logFile, log);

    auto result = status();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output,
              "quillet-capture 1.7.3\n"
              "  program:     " + program() + "\n"
              "  config:      " + h + "/.config/quillet/settings.json\n"
              "  vault:       " + h + "/Vault\n"
              "  folder:      Voice Memos on -- " + voiceMemos() + "\n"
              "  library:     not found\n"
              "  folder:      Phone on -- " + h + "/Sync/Phone\n"
              "  upload:      on\n"
              "  after a transcript: echo done\n"
              "  paired:      yes (abcd1234...)\n"
              "  keep Voice Memos running: off (not running now)\n"
              "  systemd user unit: loaded\n"
              "  inbox:       1 transcribed, 7 in progress, 5 other -- 2 can be sent with: quillet-capture retry\n" +
                  logSection("2026-03-14T09:00:30Z [quillet] capture: Voice Memos access -> ok (3 files)",
                             logFile.string(), tail));
    EXPECT_EQ(test::readLines(bin.path() / "calls").back(), "--user is-active --quiet se.Brannick.quillet.capture.service");

    // Only the first 12 characters of a longer token are shown.
    ASSERT_TRUE(Keychain::setDeviceToken("0123456789abcdef-the-secret-rest"));
    result = status();
    EXPECT_NE(result.output.find("\n  paired:      yes (0123456789ab...)\n"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("the-secret-rest"), std::string::npos);
}

TEST_F(StatusTest, WithoutAWatermarkRecorderCapturesCountAndNothingIsStored)
{
    ASSERT_EQ(run({"setup", "--vault", h + "/Vault"}).status, 0);
    // Set up by an earlier version, which left the watermark to the first retry.
    ASSERT_TRUE(fs::remove(Paths::defaultsFile()));
    fs::remove(logFile);
    const fs::path vault = home.path() / "Vault";
    note(vault, "250101-090000", "failed", std::nullopt, true);
    auto recorded = InboxWriter::Frontmatter::forCapture("250101-100000", std::chrono::system_clock::now());
    recorded.vdJobStatus = "upload_failed";
    recorded.sourceOrigin = "quillet_recorder";
    InboxWriter(vault).writeMarkdown(recorded, "");
    test::writeFile(vault / "_inbox/.audio/250101-100000.m4a", "audio");

    auto result = status();
    ASSERT_EQ(result.status, 0) << result.errors;
    // Only the recorder's capture is older than a watermark fixed now would be.
    EXPECT_NE(result.output.find("\n  inbox:       0 transcribed, 1 in progress, 1 other -- 1 can be sent with: "
                                 "quillet-capture retry\n"),
              std::string::npos)
        << result.output;
    EXPECT_EQ(result.errors, "");
    EXPECT_FALSE(fs::exists(home.path() / ".local/state/quillet/defaults.json"));
    EXPECT_FALSE(fs::exists(logFile));
}

// On Linux there is no Keychain to be locked over SSH and an _inbox that is there is not
// "not yet": a token file that cannot be read and an _inbox that cannot be listed are named.
TEST_F(StatusTest, AnUnreadableTokenFileOrInboxIsSaidToBeSo)
{
    ASSERT_EQ(run({"setup", "--vault", h + "/Vault"}).status, 0);
    test::writeFile(Paths::credentialsFile(), "{\"se.Brannick.quillet.mac\": ");
    fs::remove_all(home.path() / "Vault/_inbox");
    test::writeFile(home.path() / "Vault/_inbox", "a file where the folder should be");
    auto result = status();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("\n  paired:      no token readable here -- run pair (" +
                                 Paths::credentialsFile().string() + " cannot be read)\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("\n  inbox:       cannot read _inbox (Not a directory)\n"), std::string::npos)
        << result.output;
}

// How the log's bytes and lines are read is StatusLogTest's; here, that a log that cannot be
// read or is huge still gives the report, and soon.
TEST_F(StatusTest, HugeOrUnreadableLogsStillGiveTheReport)
{
    // A folder where the log should be cannot be read.
    fs::create_directories(logFile);
    auto result = status();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_TRUE(result.output.ends_with(logSection("(no access line yet)", logFile.string(), {}))) << result.output;
    fs::remove(logFile);

    // 80 MB: the access line near the start is found and the tail is the last 12 lines.
    std::string filler(200, 'x');
    std::string text = "2026-03-14T09:00:00Z [quillet] capture: Voice Memos access -> ok (9 files)\n";
    text.reserve(80u << 20);
    int n = 0;
    while (text.size() < (80u << 20)) {
        text += "2026-03-14T09:00:01Z line " + std::to_string(++n) + " " + filler + "\n";
    }
    test::writeFile(logFile, text);
    std::vector<std::string> tail;
    for (int i = n - 11; i <= n; ++i) {
        tail.push_back("2026-03-14T09:00:01Z line " + std::to_string(i) + " " + filler);
    }
    auto started = std::chrono::steady_clock::now();
    result = status();
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_TRUE(result.output.ends_with(logSection(
        "2026-03-14T09:00:00Z [quillet] capture: Voice Memos access -> ok (9 files)", logFile.string(), tail)));
    EXPECT_LT(seconds, 20.0);
}

// `status --json` against `status` of the same home, before and after setup: the same facts,
// never the token, and only reads.
TEST_F(StatusTest, AnAgentStartedByHandIsNamedWithItsPidAndLeftToRetryItsCaptures)
{
    ASSERT_EQ(run({"setup", "--vault", "~/Vault", "--no-upload", "--no-keep-voice-memos", "--watch", "~/Sync/Phone"})
                  .status,
              0);
    test::writeFile(home.path() / ".local/state/quillet/defaults.json",
                    R"({"quillet.captureRetry.watermark": "2020-01-01T00:00:00Z"})");
    note(home.path() / "Vault", "250103-090000", "upload_failed", std::nullopt, true);
    const std::string hint = " -- 1 can be sent with: quillet-capture retry";

    const char* system = std::getenv("PATH");
    test::ChildProcess agent(test::programPath(), {"run"},
                             {{"PATH", bin.path().string() + ":" + (system ? system : "/usr/bin:/bin")}});
    ASSERT_TRUE(test::eventually([&] { return AgentLock::runningAgent() == agent.pid(); }, 20));

    // Unknown to the service manager: started by hand, and the agent sends the capture itself.
    auto text = status();
    ASSERT_EQ(text.status, 0) << text.errors;
    EXPECT_NE(text.output.find("\n  agent:       running (pid " + std::to_string(agent.pid()) + ", started by hand)\n"),
              std::string::npos)
        << text.output;
    EXPECT_EQ(text.output.find("run install"), std::string::npos) << text.output;
    EXPECT_EQ(text.output.find("quillet-capture retry"), std::string::npos) << text.output;
    auto json = run({"status", "--json"});
    auto facts = nlohmann::json::parse(json.output);
    test::expectSameFacts(text.output, facts);
    EXPECT_EQ(facts["agent"]["pid"], agent.pid());
    EXPECT_EQ(facts["agent"]["startedByHand"], true);
    EXPECT_EQ(facts["counts"]["canBeSentWithRetry"], 1);

    // Known to the service manager: loaded, and still no retry suggested.
    test::writeFile(bin.path() / "active", "");
    text = status();
    EXPECT_NE(text.output.find("\n  systemd user unit: loaded\n"), std::string::npos) << text.output;
    EXPECT_EQ(text.output.find("quillet-capture retry"), std::string::npos) << text.output;
    fs::remove(bin.path() / "active");

    // Once it has stopped, nothing sends the capture: retry is suggested again.
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait().status, 0);
    text = status();
    EXPECT_NE(text.output.find("\n  systemd user unit: not loaded -- run install\n"), std::string::npos)
        << text.output;
    EXPECT_NE(text.output.find(hint + "\n"), std::string::npos) << text.output;
    facts = nlohmann::json::parse(run({"status", "--json"}).output);
    test::expectSameFacts(text.output, facts);
    EXPECT_EQ(facts["agent"]["pid"], nullptr);
}

TEST_F(StatusTest, TheJsonCarriesTheSameFactsAsTheText)
{
    auto text = status();
    auto json = run({"status", "--json"});
    ASSERT_EQ(json.status, 0) << json.errors;
    EXPECT_EQ(json.errors, "");
    ASSERT_TRUE(json.output.ends_with("}\n")) << json.output;
    auto facts = nlohmann::json::parse(json.output);
    test::expectSameFacts(text.output, facts);
    EXPECT_EQ(facts["settingsMissing"], true);
    EXPECT_EQ(facts["program"], program());
    EXPECT_EQ(facts["inbox"]["state"], "missing");
    EXPECT_FALSE(fs::exists(home.path() / ".config/quillet/settings.json"));
    EXPECT_FALSE(fs::exists(home.path() / ".local/state/quillet"));

    ASSERT_EQ(run({"setup", "--vault", "~/Vault", "--no-keep-voice-memos", "--watch", voiceMemos(), "--watch",
                   "~/Sync/Phone"})
                  .status,
              0);
    const std::string token = "0123456789abcdef-the-secret-rest";
    ASSERT_TRUE(Keychain::setDeviceToken(token));
    test::writeFile(bin.path() / "active", "");
    test::writeFile(home.path() / ".local/state/quillet/defaults.json",
                    R"({"quillet.captureRetry.watermark": "2020-01-01T00:00:00Z"})");
    const fs::path vault = home.path() / "Vault";
    note(vault, "250101-090000", "done");
    note(vault, "250102-090000", "processing", "key-p");
    note(vault, "250103-090000", "upload_failed", std::nullopt, true);
    note(vault, "250104-090000", "needs_pairing", "key-n");
    note(vault, "250105-090000", "failed", std::nullopt, true);
    note(vault, "250106-090000", std::nullopt);
    test::writeFile(logFile, "2026-03-14T09:00:00Z [quillet] capture: Phone access -> ok (0 files)\n"
                             "2026-03-14T09:00:01Z [quillet] capture pipeline: \"quoted\" \\ line\n");

    text = status();
    json = run({"status", "--json"});
    ASSERT_EQ(json.status, 0) << json.errors;
    facts = nlohmann::json::parse(json.output);
    test::expectSameFacts(text.output, facts);
    EXPECT_EQ(facts["vault"], vault.string());
    EXPECT_EQ(facts["paired"], true);
    EXPECT_EQ(facts["agent"]["loaded"], true);
    ASSERT_EQ(facts["folders"].size(), 2U);
    EXPECT_EQ(facts["folders"][1]["path"], h + "/Sync/Phone");
    EXPECT_EQ(facts["counts"]["transcribed"], 1);
    EXPECT_EQ(facts["counts"]["inProgress"], 3);
    EXPECT_EQ(facts["counts"]["other"], 2);
    EXPECT_EQ(facts["counts"]["canBeSentWithRetry"], 2);
    EXPECT_EQ(facts["counts"]["waitingForPairing"], 1);
    EXPECT_EQ(facts["lastAccessLine"], "2026-03-14T09:00:00Z [quillet] capture: Phone access -> ok (0 files)");
    EXPECT_EQ(facts["logTail"].size(), 2U);
    // The audit's counts are those that `audit` itself prints.
    auto audit = run({"audit", "--json"});
    ASSERT_FALSE(audit.output.empty()) << audit.errors;
    EXPECT_EQ(facts["audit"], nlohmann::json::parse(audit.output)["counts"]);
    EXPECT_EQ(facts["audit"]["total"], 8) << "six notes, and the two watched folders that are not there";
    // The text shows the token's first 12 characters; the JSON not even those.
    EXPECT_NE(text.output.find(token.substr(0, 12)), std::string::npos);
    EXPECT_EQ(json.output.find(token.substr(0, 6)), std::string::npos) << json.output;

    // "--json" anywhere after the command word selects it; any other argument leaves the text.
    EXPECT_EQ(run({"status", "--verbose", "--json"}).output, json.output);
    auto other = run({"status", "--verbose"});
    EXPECT_EQ(other.status, 0);
    EXPECT_EQ(other.output, text.output);
}

} // namespace
} // namespace quillet
