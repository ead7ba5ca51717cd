#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using nlohmann::json;
using Lines = std::vector<std::string>;
using TimePoint = std::chrono::system_clock::time_point;

constexpr const char* kToken = "tok_batch_0123456789";
constexpr const char* kNoToken = "No device token readable here. Run pair first.\n";

Lines splitLines(const std::string& text)
{
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TimePoint at(std::int64_t seconds)
{
    return TimePoint(std::chrono::seconds(seconds));
}

// The batch commands run as a user would: the built program, a scratch home whose settings
// point at a vault and at the fake service, a token in the credentials file, and a fake
// `systemctl` first in PATH that records its calls (every call succeeds, so the agent counts
// as loaded).
struct BatchCommandsTest : ::testing::Test {
    test::ScratchHome home;
    test::ScratchDir bin;
    FakeVeldane fake;
    fs::path vault = home.path() / "vault";
    fs::path inbox = vault / "_inbox";
    fs::path unit = home.path() / ".config/systemd/user/se.Brannick.quillet.capture.service";
    std::string unitName = "se.Brannick.quillet.capture.service";
    fs::path voiceMemos = Paths::voiceMemosCandidates().front();

    BatchCommandsTest()
    {
        test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                                  "printf '%s\\n' \"$*\" >> \"$(dirname \"$0\")/calls\"\n");
        fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
        test::writeSettings([this](AppSettings& s) {
            s.vaultPath = vault.string();
            s.veldaneBaseURL = fake.baseURL();
            s.captureVeldaneEnabled = true;
            s.captureVoiceMemosEnabled = true;
        });
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string(kToken)));
    }

    // The agent manager is the systemd one only on Linux; elsewhere these commands would talk
    // to the real launchd.
    void SetUp() override
    {
        if (Paths::current() != Platform::linux) {
            GTEST_SKIP() << "the agent manager is faked only on Linux";
        }
    }

    test::ProcessResult run(const Lines& arguments, double timeoutSeconds = 60)
    {
        const char* system = std::getenv("PATH");
        return test::runProcess(test::programPath(), arguments,
                                {{"PATH", bin.path().string() + ":" + (system ? system : "/usr/bin:/bin")},
                                 {"QUILLET_TOKEN_STORE", "file"},
                                 {"TZ", "UTC"}},
                                timeoutSeconds);
    }

    Lines calls() const { return test::readLines(bin.path() / "calls"); }

    Lines stoppedAndRestarted() const
    {
        return {"--user is-active --quiet " + unitName, "--user disable --now " + unitName, "--user daemon-reload",
                "--user enable --now " + unitName};
    }

    void install() { test::writeFile(unit, "[Service]\n"); }

    void recordings(const Lines& names)
    {
        for (const auto& name : names) {
            test::writeFile(voiceMemos / name, "audio of " + name);
        }
    }

    // A capture in the vault with its audio copy, in the job status `status`.
    void capture(const std::string& id, const std::string& status, bool withAudio = true)
    {
        InboxWriter writer(vault);
        auto note = InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
        note.vdJobStatus = status;
        writer.writeStub(note);
        if (withAudio) {
            test::writeFile(writer.audioURL(id), "audio of " + id);
        }
    }

    static const std::string& notInstalled()
    {
        static const std::string line = "The capture agent is not installed. Run: quillet-capture install\n";
        return line;
    }
};

// import-existing

TEST_F(BatchCommandsTest, ImportSinceADayQueuesThoseRecordingsWithTheAgentStopped)
{
    install();
    recordings({"20240131 235959.m4a", "20240201 000000.m4a", "20240305 101500-AB12.m4a", "Interview.m4a"});
    {
        CaptureStateStore store(Paths::stateFile(), Paths::legacyWatcherFile());
        store.markIndexed({{"20240131 235959.m4a", "240131-235959"},
                           {"20240201 000000.m4a", "240201-000000"},
                           {"Interview.m4a", ""}});
    }

    auto result = run({"import-existing", "--since", "2024-02-01"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Queued 2 recordings from " + voiceMemos.string() +
                                 ".\n"
                                 "The capture agent picks them up within about 30 seconds and uploads them one at a "
                                 "time.\n"
                                 "Follow progress with: quillet-capture status\n");
    EXPECT_EQ(calls(), stoppedAndRestarted());

    CaptureStateStore store(Paths::stateFile(), Paths::legacyWatcherFile());
    EXPECT_TRUE(store.hasSeen("20240131 235959.m4a"));
    EXPECT_FALSE(store.hasSeen("20240201 000000.m4a"));
    EXPECT_TRUE(store.hasSeen("Interview.m4a"));
    EXPECT_TRUE(store.hasSeen(CaptureStateStore::indexedMarker));
    EXPECT_EQ(test::countLogLines("[quillet] capture import: 2 recordings from " + voiceMemos.string() +
                                  " queued (1 were marked seen)"),
              1);
}

TEST_F(BatchCommandsTest, ImportWithoutADateTakesEverythingAndWarnsWhenNotPaired)
{
    recordings({"20240131 235959.m4a", "Interview.m4a"});
    ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));

    auto result = run({"import-existing"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, notInstalled() + "Queued 2 recordings from " + voiceMemos.string() +
                                 ".\n"
                                 "No device token readable here: this computer is not paired (run pair first).\n"
                                 "The capture agent picks them up within about 30 seconds and uploads them one at a "
                                 "time.\n"
                                 "Follow progress with: quillet-capture status\n");
    // Not installed: stopped when loaded, and not started again.
    EXPECT_EQ(calls(), (Lines{"--user is-active --quiet " + unitName, "--user disable --now " + unitName}));

    // One recording: singular. Nothing from that day on: said so, still status 0.
    fs::remove(voiceMemos / "Interview.m4a");
    EXPECT_EQ(splitLines(run({"import-existing"}).output)[1],
              "Queued 1 recording from " + voiceMemos.string() + ".");
    result = run({"import-existing", "--since", "2025-01-01"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, notInstalled() + "No recordings to send in " + voiceMemos.string() + ".\n");
}

TEST_F(BatchCommandsTest, ImportRefusesBadInputBeforeTouchingTheAgentAndExplainsAMissingFolder)
{
    install();
    auto result = run({"import-existing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "Cannot read " + voiceMemos.string() +
                                 ": No such file or directory. If it says permission, give this user read and search "
                                 "permission on the folder (for example chmod u+rx on it).\n");
    EXPECT_EQ(calls(), stoppedAndRestarted());
    EXPECT_EQ(test::countLogLines("capture import:"), 0);

    fs::remove(bin.path() / "calls");
    recordings({"20240131 235959.m4a"});
    for (const char* since : {"2026-13-40", "yesterday", "2026-02-30"}) {
        result = run({"import-existing", "--since", since});
        EXPECT_EQ(result.status, 2) << since;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, std::string("import-existing: --since wants a date like 2026-09-01, not \"") + since +
                                     "\" (see quillet-capture import-existing --help)\n");
    }
    fs::remove(Paths::settingsFile());
    result = run({"import-existing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "Run setup first.\n");
    EXPECT_TRUE(calls().empty());
}

// import-existing over a watched folder of its own: what was in it before it was first watched
// is offered to the agent, which captures each recording once, as it does new ones.
struct ImportFolderTest : ::testing::Test {
    test::CaptureAgentHarness agent{11};
    test::ScratchDir bin;
    fs::path synced;

    void SetUp() override
    {
        if (Paths::current() != Platform::linux) {
            GTEST_SKIP() << "the agent manager is faked only on Linux";
        }
        // A fake `systemctl` that records its calls: the harness's agent is no service.
        test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                                  "printf '%s\\n' \"$*\" >> \"$(dirname \"$0\")/calls\"\n");
        fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
        synced = agent.watchSyncedFolder();
    }

    test::ProcessResult run(const Lines& arguments)
    {
        const char* system = std::getenv("PATH");
        return test::runProcess(test::programPath(), arguments,
                                {{"PATH", bin.path().string() + ":" + (system ? system : "/usr/bin:/bin")},
                                 {"QUILLET_TOKEN_STORE", "file"},
                                 {"TZ", "UTC"}});
    }

    // Every file under `folder` with its bytes.
    static std::map<std::string, std::string> snapshot(const fs::path& folder)
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            if (entry.is_regular_file()) {
                files[fs::relative(entry.path(), folder).string()] = test::readFile(entry.path());
            }
        }
        return files;
    }
};

TEST_F(ImportFolderTest, RecordingsThereBeforeTheFolderWasWatchedAreCapturedOnceEach)
{
    // Two recordings made two days before the folder was first watched: the agent's first
    // index keeps them as history and captures nothing.
    const auto twoDaysAgo = std::chrono::time_point_cast<std::chrono::seconds>(fs::file_time_type::clock::now()) -
                            std::chrono::hours(48);
    std::map<std::string, std::string> history = {{"before one.m4a", agent.fixture() + "recording before one"},
                                                  {"before two.m4a", agent.fixture() + "recording before two"}};
    for (const auto& [name, bytes] : history) {
        test::CaptureAgentHarness::place(synced / name, bytes, twoDaysAgo);
    }
    ASSERT_TRUE(agent.startAndWait()) << agent.agentOutput();
    ASSERT_TRUE(test::eventually([&] { return test::countLogLines("initial index complete (2 existing") == 1; }));
    EXPECT_EQ(agent.stop(), 0);
    ASSERT_TRUE(agent.noteIds().empty()) << "history is not captured by itself";

    const auto stateBefore = snapshot(agent.stateFolder());
    const auto vaultBefore = snapshot(agent.vault());

    // A dry run lists them and changes nothing, without touching the agent.
    auto dry = run({"import-existing", "--dry-run", "--folder", synced.string()});
    EXPECT_EQ(dry.status, 0) << dry.errors;
    auto lines = splitLines(dry.output);
    ASSERT_EQ(lines.size(), 3u) << dry.output;
    EXPECT_TRUE(lines[0].starts_with(synced.string() + "  before one.m4a  ")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with(synced.string() + "  before two.m4a  ")) << lines[1];
    EXPECT_EQ(lines[2], "Would queue 2 recordings; nothing was queued (--dry-run).");
    EXPECT_EQ(snapshot(agent.stateFolder()), stateBefore);
    EXPECT_EQ(snapshot(agent.vault()), vaultBefore);
    EXPECT_FALSE(fs::exists(bin.path() / "calls")) << "a dry run leaves the agent running";

    // A folder that is not watched is refused and nothing changes.
    fs::create_directories(agent.home() / "Elsewhere");
    auto refused = run({"import-existing", "--folder", (agent.home() / "Elsewhere").string()});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.output, "");
    EXPECT_NE(refused.errors.find("is not a watched folder"), std::string::npos) << refused.errors;
    EXPECT_NE(refused.errors.find(synced.string()), std::string::npos) << "it names the watched folders";
    EXPECT_EQ(std::count(refused.errors.begin(), refused.errors.end(), '\n'), 1);
    EXPECT_EQ(snapshot(agent.stateFolder()), stateBefore);
    EXPECT_EQ(snapshot(agent.vault()), vaultBefore);
    EXPECT_FALSE(fs::exists(bin.path() / "calls"));

    // Queued (the folder named as the person types it), then captured by the agent.
    auto queued = run({"import-existing", "--folder", "~/Synced"});
    EXPECT_EQ(queued.status, 0) << queued.errors;
    EXPECT_NE(queued.output.find("Queued 2 recordings from " + synced.string() + ".\n"), std::string::npos)
        << queued.output;
    EXPECT_FALSE(test::readLines(bin.path() / "calls").empty()) << "the agent is stopped while queueing";

    agent.start();
    auto bothDone = [&] {
        auto ids = agent.noteIds();
        return ids.size() == 2 && std::all_of(ids.begin(), ids.end(), [&](const std::string& id) {
                   try {
                       return InboxWriter::readFrontmatter(agent.inbox() / (id + ".md")).vdJobStatus == "done";
                   } catch (const std::exception&) {
                       return false;
                   }
               });
    };
    bool done = test::eventually(bothDone, 60);
    EXPECT_EQ(agent.stop(), 0);
    ASSERT_TRUE(done) << agent.agentOutput();

    // Started again, the agent captures nothing more: each recording once.
    ASSERT_TRUE(agent.startAndWait()) << agent.agentOutput();
    std::this_thread::sleep_for(std::chrono::seconds(3));  // a few polls at one a second
    EXPECT_EQ(agent.stop(), 0);
    auto ids = agent.noteIds();
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(agent.uploadCount(), 2);
    std::set<std::string> copies;
    for (const auto& id : ids) {
        copies.insert(test::readFile(agent.inbox() / ".audio" / (id + ".m4a")));
    }
    EXPECT_EQ(copies, (std::set<std::string>{history["before one.m4a"], history["before two.m4a"]}));
}

// retry

// Three runs: nothing pending since the watermark; one pending capture with the agent not
// installed; three, one at a time, with one refused by the service.
TEST_F(BatchCommandsTest, RetryUploadsPendingCapturesOneAtATime)
{
    UserDefaults::setDate(CaptureRetry::watermarkKey, at(1773476813));  // 2026-03-14 08:26:53 UTC
    capture("261101-080000", "done");
    capture("261101-080001", "upload_failed", /*withAudio=*/false);
    auto result = run({"retry"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output,
              "Nothing to upload: every capture since 2026-03-14 08:26:53 +0000 is transcribed or in progress.\n");
    EXPECT_TRUE(calls().empty());
    EXPECT_TRUE(fake.requests().empty());

    UserDefaults::setDate(CaptureRetry::watermarkKey, at(1577836800));
    capture("261101-090000", "upload_failed");
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"ok","cache_key":"ck-1"})"));
    result = run({"retry"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Uploading 1 capture...\n"
                             "  1/1  261101-090000\n"
                             "Uploaded 1, skipped 0, failed 0.\n" +
                                 notInstalled() +
                                 "The capture agent polls them to their transcripts. Follow progress with: "
                                 "quillet-capture status\n");
    EXPECT_EQ(calls(), (Lines{"--user is-active --quiet " + unitName, "--user disable --now " + unitName}));
    EXPECT_EQ(fake.requests("POST", "sources").size(), 1u);
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / "261101-090000.md").externalId, "ck-1");

    install();
    fs::remove(bin.path() / "calls");
    fake.reset();
    capture("261101-100000", "skipped");
    capture("261101-110000", "poll_timeout");
    capture("261101-120000", "queued");
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"ok","cache_key":"ck-2"})"));
    fake.enqueue("POST", "sources", Answer::json("storage full", 507));
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"ok","cache_key":"ck-4"})"));
    result = run({"retry"}, 120);
    EXPECT_EQ(result.status, 0) << result.errors;
    auto lines = splitLines(result.output);
    ASSERT_EQ(lines.size(), 7u) << result.output;
    EXPECT_EQ(lines[0], "Uploading 3 captures...");
    // Captures go in the order of the inbox listing, which the file system decides.
    std::set<std::string> ids;
    std::string second;
    for (int position = 1; position <= 3; ++position) {
        std::string line = lines[static_cast<size_t>(position < 3 ? position : position + 1)];
        std::string prefix = "  " + std::to_string(position) + "/3  ";
        ASSERT_TRUE(line.starts_with(prefix)) << line;
        ids.insert(line.substr(prefix.size()));
        if (position == 2) {
            second = line.substr(prefix.size());
        }
    }
    EXPECT_EQ(ids, (std::set<std::string>{"261101-100000", "261101-110000", "261101-120000"}));
    EXPECT_EQ(lines[3], "  upload failed: " + second);
    EXPECT_EQ(lines[5], "Uploaded 2, skipped 0, failed 1.");
    EXPECT_EQ(lines[6], "The capture agent polls them to their transcripts. Follow progress with: quillet-capture "
                        "status");
    EXPECT_EQ(calls(), stoppedAndRestarted());

    auto uploads = fake.requests("POST", "sources");
    ASSERT_EQ(uploads.size(), 3u);
    for (size_t i = 1; i < uploads.size(); ++i) {
        EXPECT_GE(std::chrono::duration<double>(uploads[i].arrived - uploads[i - 1].arrived).count(), 1.9);
    }
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (second + ".md")).vdJobStatus, "upload_failed");
}

TEST_F(BatchCommandsTest, RetryWhoseAgentCannotBeRestartedSaysSoInOneLineAndKeepsItsResult)
{
    // A login without a user manager: every systemctl --user call fails as systemd's own does.
    test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                              "printf '%s\\n' \"$*\" >> \"$(dirname \"$0\")/calls\"\n"
                                              "echo 'Failed to connect to bus: No medium found' >&2\n"
                                              "exit 1\n");
    install();
    UserDefaults::setDate(CaptureRetry::watermarkKey, at(1577836800));
    capture("261101-090000", "upload_failed");
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"ok","cache_key":"ck-1"})"));
    auto result = run({"retry"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Uploading 1 capture...\n"
                             "  1/1  261101-090000\n"
                             "Uploaded 1, skipped 0, failed 0.\n"
                             "Could not restart the agent (no systemd user session here); start it with: "
                             "quillet-capture install\n"
                             "The capture agent polls them to their transcripts. Follow progress with: "
                             "quillet-capture status\n");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / "261101-090000.md").externalId, "ck-1");
}

TEST_F(BatchCommandsTest, RetryAndSyncNeedSetupAndAToken)
{
    for (const char* command : {"retry", "sync"}) {
        ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));
        auto result = run({command});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, kNoToken);
        test::writeFile(Paths::credentialsFile(), "not JSON");
        fs::permissions(Paths::credentialsFile(), fs::perms::owner_read | fs::perms::owner_write);
        result = run({command});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.errors, "No device token readable here (" + Paths::credentialsFile().string() +
                                     " cannot be read). Run pair first.\n");
        fs::remove(Paths::credentialsFile());

        fs::remove(Paths::settingsFile());
        result = run({command});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.errors, "Run setup first.\n");
        test::writeSettings([this](AppSettings& s) {
            s.vaultPath = vault.string();
            s.veldaneBaseURL = fake.baseURL();
        });
    }
    EXPECT_TRUE(calls().empty());
    EXPECT_TRUE(fake.requests().empty());
}

// sync

struct SyncCommandTest : BatchCommandsTest {
    // Read by the fake service's threads, grown by the test between runs of the program.
    std::mutex libraryLock;
    json library = json::array();
    std::set<std::string> failing;

    // sync never touches the agent, so it runs on every platform.
    void SetUp() override {}

    SyncCommandTest()
    {
        fake.route("GET", "sources", [this](const FakeVeldane::Request& request) {
            // Pages of ten.
            std::size_t page = request.queryItem("before") ? std::stoul(*request.queryItem("before")) : 0;
            std::lock_guard guard(libraryLock);
            json files = json::array();
            for (std::size_t i = page * 10; i < library.size() && i < page * 10 + 10; ++i) {
                files.push_back(library[i]);
            }
            bool more = (page + 1) * 10 < library.size();
            json body = {{"files", files}, {"count", files.size()}, {"has_more", more}};
            if (more) {
                body["next_cursor"] = std::to_string(page + 1);
            }
            return Answer::json(body.dump());
        });
        fake.fallback([this](const FakeVeldane::Request& request) {
            std::string key = request.endpoint.substr(std::string("sources/").size());
            std::lock_guard guard(libraryLock);
            if (failing.contains(key)) {
                return Answer::json("boom", 500);
            }
            return Answer::json(
                json{{"success", true}, {"cache_key", key}, {"result", {{"text", "Transcript of " + key}}}}.dump());
        });
    }

    void add(int count, bool deleted = false)
    {
        std::lock_guard guard(libraryLock);
        for (int i = 0; i < count; ++i) {
            int n = static_cast<int>(library.size());
            library.push_back({{"cache_key", "src-" + std::to_string(n)},
                               {"created_at", 1714555800.0 + 3600.0 * n},
                               {"is_deleted", deleted}});
        }
    }

    Lines fetched() const
    {
        Lines keys;
        for (const auto& request : fake.requests()) {
            if (request.endpoint.starts_with("sources/")) {
                keys.push_back(request.endpoint.substr(8));
            }
        }
        return keys;
    }

    std::size_t noteCount() const
    {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(inbox)) {
            count += entry.path().extension() == ".md";
        }
        return count;
    }
};

// One library through four runs: a listing that fails half-way, a first sync, a second that
// finds everything there, and a third with new items of which one cannot be fetched.
TEST_F(SyncCommandTest, BringsDownEachItemOnceAndReportsFailures)
{
    add(25);
    fake.enqueue("GET", "sources",
                 Answer::json(json{{"files", json::array({library[0]})}, {"has_more", true}, {"count", 1},
                                   {"next_cursor", "1"}}
                                  .dump()));
    fake.enqueue("GET", "sources", Answer::json(R"({"detail":"try later"})", 503));
    auto result = run({"sync"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "Listing your Veldane library...\n"
                             "Sync failed: VD request failed (503): {\"detail\":\"try later\"}\n");
    EXPECT_TRUE(fetched().empty());
    EXPECT_FALSE(fs::exists(inbox)) << "a listing that fails writes nothing";
    EXPECT_EQ(test::countLogLines(
                  "[quillet] BackfillSync: listAllSources failed: VD request failed (503): {\"detail\":\"try later\"}"),
              1);

    // Deleted items are never fetched; a note without frontmatter sits in the inbox already.
    add(2, /*deleted=*/true);
    test::writeFile(inbox / "README.md", "Notes from the library land here.\n");
    fake.reset();
    result = run({"sync"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Listing your Veldane library...\n"
                             "25 to bring down.\n"
                             "  10/25\n"
                             "  20/25\n"
                             "  25/25\n"
                             "Done: 25 written to " +
                                 inbox.string() + ", 0 already there, 0 failed.\n");
    auto keys = fetched();
    EXPECT_EQ(keys.size(), 25u);
    EXPECT_EQ(std::count(keys.begin(), keys.end(), "src-25") + std::count(keys.begin(), keys.end(), "src-26"), 0);
    EXPECT_EQ(noteCount(), 26u);
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / "240501-093000.md").externalId, "src-0");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / "240502-093000.md").externalId, "src-24");
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: total_remote=27 already_local=0 to_fetch=25"), 1);
    // The agent keeps running through a sync.
    EXPECT_TRUE(calls().empty());

    fake.reset();
    result = run({"sync"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "Listing your Veldane library...\n"
                             "Done: 0 written to " +
                                 inbox.string() + ", 25 already there, 0 failed.\n");
    EXPECT_TRUE(fetched().empty());
    EXPECT_EQ(noteCount(), 26u);

    // Failed items end with status 1 after the done line.
    add(3);
    {
        std::lock_guard guard(libraryLock);
        failing = {"src-28"};
    }
    fake.reset();
    result = run({"sync"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "Listing your Veldane library...\n"
                             "3 to bring down.\n"
                             "  3/3\n"
                             "Done: 2 written to " +
                                 inbox.string() + ", 25 already there, 1 failed.\n");
    EXPECT_EQ(fetched(), (Lines{"src-27", "src-28", "src-29"}));
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: failed cache_key=src-28 err=VD request failed (500): boom"),
              1);
}

// --since

TEST(ParseLocalDayTest, AcceptsRealDaysOnly)
{
    std::optional<std::string> savedTZ;
    if (const char* tz = std::getenv("TZ")) {
        savedTZ = tz;
    }
    setenv("TZ", "Europe/Stockholm", 1);
    tzset();
    // Local midnight: 2026-09-01 00:00 in Stockholm is 2026-08-31 22:00 UTC (summer time).
    EXPECT_EQ(parseLocalDay("2026-09-01"), at(1788213600));
    EXPECT_EQ(parseLocalDay("2026-9-1"), parseLocalDay("2026-09-01"));
    EXPECT_TRUE(parseLocalDay("2024-02-29"));
    for (const char* bad : {"2026-13-40", "2026-02-29", "2026-04-31", "2026-00-10", "2026-09-00", "26-09-01x",
                            "2026/09/01", "", "--since", "2026-09-01T00:00", " 2026-09-01", "20260901"}) {
        EXPECT_FALSE(parseLocalDay(bad)) << bad;
    }
    if (savedTZ) {
        setenv("TZ", savedTZ->c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

// What the person removed stays removed

// A recording captured, transcribed and then removed from the inbox by the person (its copy
// stays, as the program never deletes one): import-existing, retry and sync leave it removed;
// retry --restore brings it back deliberately.
TEST_F(SyncCommandTest, ANoteThePersonRemovedIsNeverMadeAgainButCanBeAskedBack)
{
    const std::string id = "240201-090000";
    const std::string name = "20240201 090000.m4a";
    recordings({name});
    InboxWriter writer(vault);
    auto copy = writer.copyAudio(voiceMemos / name, id);
    NoteLedger ledger(vault);
    ledger.copyWritten(id, copy.sha256, copy.size, std::chrono::system_clock::now());
    capture(id, "done", false);
    ledger.noteMade(id, {"voice-memos", name}, std::chrono::system_clock::now(), std::chrono::system_clock::now());
    ledger.keyRecorded(id, "src-0");
    {
        CaptureStateStore store(Paths::stateFile(), Paths::legacyWatcherFile());
        store.markIndexed({});
        store.markSeen(name, id, CaptureStateStore::voiceMemosFolderId, std::nullopt, "1:2:3");
    }
    fs::remove(writer.noteURL(id));
    add(2);  // src-0 is the removed note's transcript; src-1 is new

    // sync brings what is new and not what the person removed.
    auto synced = run({"sync"});
    EXPECT_EQ(synced.status, 0) << synced.errors;
    EXPECT_EQ(fetched(), Lines{"src-1"});
    EXPECT_FALSE(fs::exists(writer.noteURL(id)));
    EXPECT_EQ(noteCount(), 1u);

    // import-existing (on Linux, where the agent is faked) leaves it out and says so.
    if (Paths::current() == Platform::linux) {
        install();
        auto imported = run({"import-existing"});
        EXPECT_EQ(imported.status, 0) << imported.errors;
        EXPECT_NE(imported.output.find("Left out 1 recording whose note you removed from the inbox"),
                  std::string::npos)
            << imported.output;
        CaptureStateStore store(Paths::stateFile(), Paths::legacyWatcherFile());
        EXPECT_TRUE(store.hasSeen(name)) << "a removed recording is not offered to the agent again";

        // retry has nothing of it to send.
        auto retried = run({"retry"});
        EXPECT_EQ(retried.status, 0) << retried.errors;
        EXPECT_FALSE(fs::exists(writer.noteURL(id)));
        EXPECT_TRUE(fake.requests("POST", "sources").empty());
    }

    // Asked back: the note is written again from the copy, and waits for the agent's upload.
    auto restored = run({"retry", "--restore", id});
    EXPECT_EQ(restored.status, 0) << restored.errors;
    EXPECT_NE(restored.output.find("Brought back " + writer.noteURL(id).string()), std::string::npos)
        << restored.output;
    auto note = InboxWriter::readFrontmatter(writer.noteURL(id));
    EXPECT_EQ(note.vdJobStatus, "queued");
    EXPECT_EQ(test::readFile(writer.audioURL(id)), "audio of " + name) << "the copy is the one captured";
    EXPECT_FALSE(ledger.removedByPerson(id));

    // Nothing else can be asked back.
    auto again = run({"retry", "--restore", id});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.errors.find("is in the inbox already"), std::string::npos) << again.errors;
    auto unknown = run({"retry", "--restore", "999999-000000"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.errors.find("is not a note removed from the inbox"), std::string::npos) << unknown.errors;
}

} // namespace
} // namespace quillet
