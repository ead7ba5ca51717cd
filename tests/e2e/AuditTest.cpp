#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sstream>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// `audit` as a person or a login script runs it: the built program in a scratch home whose
// vault and watched folder hold a capture in each state.
struct AuditCommandTest : ::testing::Test {
    test::ScratchHome home;
    fs::path vault = home.path() / "vault";
    fs::path folder = home.path() / "Phone";
    WatchedFolder watched = WatchedFolder::generic((home.path() / "Phone").string(), "Phone");
    InboxWriter writer{vault};
    NoteLedger ledger{vault};
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
    std::vector<CaptureStateStore::SeenFile> seen;

    AuditCommandTest()
    {
        fs::create_directories(folder);
        test::writeSettings([this](AppSettings& s) {
            s.vaultPath = vault.string();
            s.captureVeldaneEnabled = true;
            s.captureVoiceMemosEnabled = false;
            s.watchedFoldersRaw = std::vector<WatchedFolder>{watched};
        });
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string("tok_audit_0123456789")));
    }

    void captured(const std::string& id, const std::string& status, int daysAgo)
    {
        const auto name = id + ".m4a";
        test::writeFile(folder / name, "audio of " + id);
        auto copy = writer.copyAudio(folder / name, id);
        ledger.copyWritten(id, copy.sha256, copy.size, now);
        auto note = InboxWriter::Frontmatter::forCapture(id, now - std::chrono::hours(24 * daysAgo));
        note.vdJobStatus = status;
        note.title = "Memo " + id;
        writer.writeStub(note);
        ledger.noteMade(id, {watched.id, name}, note.created, now);
        seen.push_back({name, id, "1:2:3"});
    }

    void saveState()
    {
        CaptureStateStore store(Paths::stateFile(), Paths::legacyWatcherFile());
        store.markIndexed({}, watched.id);
        store.markSeen(seen, watched.id);
    }

    test::ProcessResult run(const std::vector<std::string>& arguments)
    {
        return test::runProcess(test::programPath(), arguments, {{"QUILLET_TOKEN_STORE", "file"}, {"TZ", "UTC"}});
    }
};

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(AuditCommandTest, TextJsonAndExitStatusAgree)
{
    captured("251120-090000", "done", 5);
    captured("251121-090000", "done", 4);
    captured("251122-090000", "done", 3);
    fs::remove(writer.noteURL("251122-090000"));  // removed by the person
    test::writeFile(folder / "old.m4a", "there before");
    seen.push_back({"old.m4a", "250101-000000", ""});
    saveState();

    // Nothing needs the person: status 0; the skipped file is counted, listed only with --all.
    auto result = run({"audit"});
    EXPECT_EQ(result.status, 0) << result.errors;
    auto lines = linesOf(result.output);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "4 recordings: 2 captured, 0 waiting, 1 skipped, 0 needs you, 1 removed by you");
    EXPECT_NE(result.output.find("captured (2)\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("removed by you (1)\n"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("old.m4a"), std::string::npos) << "skipped files are hidden by default";
    // Newest first within a group.
    EXPECT_LT(result.output.find("Memo 251121-090000"), result.output.find("Memo 251120-090000"));
    auto all = run({"audit", "--all"});
    EXPECT_NE(all.output.find("skipped (1)\n"), std::string::npos) << all.output;
    EXPECT_NE(all.output.find("old.m4a"), std::string::npos);

    // A copy changed on disk after capture: plain audit cannot see it, --verify can.
    auto copy = writer.audioURL("251121-090000");
    auto bytes = test::readFile(copy);
    bytes.back() ^= 0x20;
    test::writeFile(copy, bytes);
    EXPECT_EQ(run({"audit"}).status, 0);
    auto verified = run({"audit", "--verify"});
    EXPECT_EQ(verified.status, 1) << verified.output;
    EXPECT_NE(verified.output.find("needs you (1)\n"), std::string::npos) << verified.output;
    EXPECT_NE(verified.output.find("SHA-256 differs"), std::string::npos);

    // JSON: one object per recording with the same states and counts as the text.
    auto asJson = run({"audit", "--verify", "--json"});
    EXPECT_EQ(asJson.status, 1);
    auto parsed = json::parse(asJson.output);
    EXPECT_EQ(parsed["counts"]["total"], 4);
    EXPECT_EQ(parsed["counts"]["needsYou"], 1);
    EXPECT_EQ(parsed["counts"]["removedByYou"], 1);
    std::map<std::string, json> byId;
    for (const auto& item : parsed["recordings"]) {
        for (const char* key : {"state", "kind", "id", "title", "date", "reason", "jobStatus", "nextTry", "folder",
                                "source", "note", "copy", "sha256", "verified"}) {
            EXPECT_TRUE(item.contains(key)) << key;
        }
        if (item["id"].is_string()) {
            byId[item["id"]] = item;
        }
    }
    EXPECT_EQ(byId["251121-090000"]["state"], "needsYou");
    EXPECT_EQ(byId["251121-090000"]["verified"], false);
    EXPECT_EQ(byId["251120-090000"]["state"], "captured");
    EXPECT_EQ(byId["251120-090000"]["verified"], true);
    EXPECT_EQ(byId["251120-090000"]["source"], (folder / "251120-090000.m4a").string());
    EXPECT_EQ(byId["251122-090000"]["state"], "removedByYou");

    // --since keeps the recordings of that day on.
    auto recent = json::parse(run({"audit", "--json", "--since", "2000-01-01"}).output);
    EXPECT_EQ(recent["counts"]["total"], 4);
    EXPECT_EQ(run({"audit", "--since", "2999-01-01"}).status, 2) << "a day the clock cannot hold";
    auto future = run({"audit", "--since", "2200-01-01"});
    EXPECT_EQ(future.status, 0);
    EXPECT_EQ(linesOf(future.output).back(), "0 recordings: 0 captured, 0 waiting, 0 skipped, 0 needs you");
}

TEST_F(AuditCommandTest, UsageErrorsAreStatusTwoAndWriteNothing)
{
    captured("251120-090000", "done", 1);
    saveState();
    auto before = test::readFile(ledger.file());
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"audit", "--verfy"}, {"audit", "--since"}, {"audit", "--since", "yesterday"}, {"audit", "extra"}}) {
        auto result = run(arguments);
        EXPECT_EQ(result.status, 2) << arguments.back();
        EXPECT_TRUE(result.output.empty()) << result.output;
        EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
        EXPECT_NE(result.errors.find("audit"), std::string::npos);
    }
    auto help = run({"audit", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("Exit status: 0 when nothing needs you"), std::string::npos);
    EXPECT_EQ(test::readFile(ledger.file()), before);

    // Without setup it is a configuration error.
    fs::remove(Paths::settingsFile());
    auto unset = run({"audit"});
    EXPECT_EQ(unset.status, 2);
    EXPECT_NE(unset.errors.find("Run setup first"), std::string::npos) << unset.errors;
}

} // namespace
} // namespace quillet
