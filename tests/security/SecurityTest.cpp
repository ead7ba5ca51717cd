#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/service/ServiceTestSupport.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <future>
#include <regex>
#include <set>
#include <sstream>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

mode_t modeOf(const fs::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        ADD_FAILURE() << "cannot stat " << file;
        return 0;
    }
    return info.st_mode & 0777;
}

// Sets the umask for the life of the value.
struct Umask {
    mode_t saved;
    explicit Umask(mode_t mask) : saved(::umask(mask)) {}
    ~Umask() { ::umask(saved); }
};

// Every regular file under `folder`, recursively.
std::vector<fs::path> filesUnder(const fs::path& folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        if (it->is_regular_file()) {
            files.push_back(it->path());
        }
    }
    return files;
}

// A program that appends how it was called (its arguments and its environment) to `record`.
void writeRecorder(const fs::path& program, const fs::path& record)
{
    test::writeFile(program, "#!/bin/sh\n"
                             "{ printf 'called:'; printf ' [%s]' \"$0\" \"$@\"; echo; env; } >> '" +
                                 record.string() + "'\n");
    fs::permissions(program, fs::perms::owner_all);
}

// Who can read what the program writes, and where the token goes, under a private umask and
// an open one. Secrets and the agent's own bookkeeping are owner-only whatever the umask;
// notes, audio copies, the state file, the settings and the agent definition get what the
// umask gives new files, so a private umask keeps transcripts and recordings private. Only the
// token's first 12 characters are ever shown or logged; it is never on a command line or in
// the environment of a child process (xdg-open during pair, the after-transcript command,
// systemctl during install), never in a file but its store, and it travels only in the
// Authorization header of requests to the configured service.
TEST(Security, FilesAndTheTokenStayWithTheOwner)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "reads /proc and fakes xdg-open and systemctl";
    }
    const std::string token = "tok_SECRET_6f1c0e9a4b7d4e2f8a3c5b1d9e7f6a2b";
    const std::string tooMuch = token.substr(0, 13);
    for (mode_t mask : {mode_t(077), mode_t(0)}) {
        SCOPED_TRACE("umask " + std::to_string(mask));
        Umask umask(mask);
        CaptureAgentHarness agent(1);
        auto bin = agent.home() / "bin";
        auto children = agent.home() / "children.txt";
        writeRecorder(bin / "xdg-open", children);
        writeRecorder(bin / "systemctl", children);
        const std::string path = bin.string() + ":" + std::getenv("PATH");

        nlohmann::json init = {{"device_code", "dev-1"}, {"user_code", "ABCD-EFGH"},
                               {"verification_url", "https://veldane.test/device"}, {"interval", 1},
                               {"expires_in", 60}};
        agent.service().enqueue("POST", "auth/devices/init", test::FakeVeldane::Answer::json(init.dump()));
        nlohmann::json approved = {{"status", "approved"}, {"token", token}};
        agent.service().enqueue("POST", "auth/devices/token", test::FakeVeldane::Answer::json(approved.dump()));
        auto paired = test::runProcess(test::programPath(), {"pair"}, {{"QUILLET_TOKEN_STORE", "file"}, {"PATH", path}});
        ASSERT_EQ(paired.status, 0) << paired.errors;
        EXPECT_NE(paired.output.find(token.substr(0, 12)), std::string::npos);
        EXPECT_EQ((paired.output + paired.errors).find(tooMuch), std::string::npos);
        ASSERT_EQ(Keychain::deviceToken(), token);

        // A capture, with an after-transcript command that records how it was started.
        agent.editSettings([&](AppSettings& settings) {
            settings.afterTranscriptCommand =
                "{ printf 'after:'; tr '\\0' ' ' < /proc/$$/cmdline; echo; env; } >> '" + children.string() + "'";
        });
        agent.setPollInterval(1);
        agent.setPace({.processingPolls = 0});
        agent.dropHistory(0);
        ASSERT_TRUE(agent.startAndWait());
        for (const char* file : {"cmdline", "environ"}) {
            auto text = test::readFile(fs::path("/proc") / std::to_string(agent.pid()) / file);
            EXPECT_FALSE(text.empty());
            EXPECT_EQ(text.find(tooMuch), std::string::npos) << "the agent's " << file;
        }
        auto recording = agent.drop(1);
        ASSERT_TRUE(agent.waitUntilAllDone(30)) << agent.agentOutput();
        EXPECT_TRUE(test::eventually([&] { return test::readFile(children).find("after:") != std::string::npos; }, 10));
        EXPECT_EQ(agent.stop(), 0);
        UserDefaults::setDate("quillet.securityTest", std::chrono::system_clock::now());

        // The agent's definition, and the file its output goes to (the service manager appends
        // to it, and would create it readable by everyone).
        auto installed = test::runProcess(test::programPath(), {"install"}, {{"PATH", path}});
        EXPECT_EQ(installed.status, 0) << installed.errors;
        EXPECT_NE(test::readFile(children).find("] [--user] [enable] [--now] ["), std::string::npos) << "systemctl ran";
        EXPECT_TRUE(test::eventually(
            [&] { return test::readFile(children).find("] [https://veldane.test/device]\n") != std::string::npos; }, 10))
            << "xdg-open ran";

        const mode_t shared = 0644 & ~mask;
        EXPECT_EQ(modeOf(Paths::credentialsFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::credentialsFile().parent_path()), 0700u);
        EXPECT_EQ(modeOf(agent.stateFolder() / "intake.json"), 0600u);
        EXPECT_EQ(modeOf(Paths::defaultsFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::logFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::agentOutputFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::agentDefinition()), shared);
        EXPECT_EQ(modeOf(Paths::stateFile()), shared);
        EXPECT_EQ(modeOf(agent.inbox() / (recording.id + ".md")), shared);
        EXPECT_EQ(modeOf(agent.inbox() / ".audio" / (recording.id + ".m4a")), shared);
        auto settings = agent.home() / "settings-copy.json";
        writeFileAtomically(settings, "{}");
        EXPECT_EQ(modeOf(settings), shared) << "the settings file is written so";

        // Not a byte more than the shown start of the token in any file but the store.
        int scanned = 0;
        for (const auto& file : filesUnder(agent.home())) {
            auto text = test::readFile(file);
            if (file == Paths::credentialsFile()) {
                EXPECT_NE(text.find(token), std::string::npos);
            } else {
                EXPECT_EQ(text.find(tooMuch), std::string::npos) << file;
            }
            ++scanned;
        }
        EXPECT_GE(scanned, 10);
        EXPECT_EQ(test::countLogLines("paired (" + token.substr(0, 12) + ")"), 1);

        int authorised = 0;
        for (const auto& request : agent.service().requests()) {
            EXPECT_EQ((request.path + request.query + request.body).find(tooMuch), std::string::npos) << request.endpoint;
            for (const auto& [name, value] : request.headers) {
                if (value.find(tooMuch) != std::string::npos) {
                    EXPECT_EQ(name, "Authorization");
                    EXPECT_EQ(value, "Bearer " + token);
                    ++authorised;
                }
            }
        }
        EXPECT_GE(authorised, 3) << "upload, status and transcript";
    }
}

// A pipeline in this process against a fake service whose answers the test scripts.
struct HostileService {
    test::ScratchHome home;
    test::FakeVeldane fake{test::FakeVeldane::Options{.keepAliveSeconds = 2}};
    test::FakeClock clock;
    fs::path vault = home.path() / "vault";
    fs::path recording = home.path() / "Recordings" / "20240131 142530.m4a";
    std::string id = "240131-142530";
    fs::path note = vault / "_inbox" / (id + ".md");
    CapturePipeline pipeline{test::pipelineEnvironment(vault, fake.baseURL(), clock), nullptr};

    HostileService()
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string("tok_hostile_0123456789")));
        test::writeFile(recording, "audio");
        fake.enqueue("POST", "sources", test::FakeVeldane::Answer::json(R"({"status":"queued","cache_key":"k1"})"));
    }

    static test::FakeVeldane::Answer status(const std::string& word)
    {
        nlohmann::json body = {{"status", {{"transcription", {{"status", word}}}}}};
        return test::FakeVeldane::Answer::json(body.dump());
    }

    // Starts the capture; it runs until the held status answer is released.
    std::shared_ptr<test::FakeVeldane::Hold> startHeldAfter(const std::string& firstWord)
    {
        fake.enqueue("GET", "sources/k1/status", status(firstWord));
        auto hold = std::make_shared<test::FakeVeldane::Hold>();
        auto held = status("completed");
        held.hold = hold;
        fake.enqueue("GET", "sources/k1/status", held);
        runtime::spawn(pipeline.handle({recording, id, clock.now(), "voice-memos"}));
        EXPECT_TRUE(test::eventually([&] { return fake.requests("GET", "sources/k1/status").size() == 2; }, 20));
        return hold;
    }
};

// A status word from the service is written into the note unquoted: its line breaks (any of
// LF, CR, VT, FF, NEL, LS, PS) are removed, so it cannot add keys, end the frontmatter early or
// hide the cache key. A transcript is the note's body: "---" lines and a frontmatter of its
// own inside it change nothing, and a title with line breaks stays on its line.
TEST(Security, HostileAnswersCannotAddKeysToANoteOrEndItsFrontmatter)
{
    HostileService service;
    const std::string word = "processing\nvd_job_status: done\r\n---\nexternal_id: \"evil\"\xE2\x80\xA8title: injected";
    auto hold = service.startHeldAfter(word);
    auto frontmatter = InboxWriter::readFrontmatter(service.note);
    EXPECT_EQ(frontmatter.vdJobStatus, "processingvd_job_status: done---external_id: \"evil\"title: injected");
    EXPECT_EQ(frontmatter.externalId, "k1");
    EXPECT_FALSE(frontmatter.title);
    EXPECT_EQ(InboxWriter::readBody(service.note), "");
    EXPECT_FALSE(CaptureRetry::isRetryable(frontmatter));

    const std::string transcript = "---\nvd_job_status: failed\nexternal_id: \"evil\"\n---\n\nHello.\n---\nMore.";
    nlohmann::json detail = {{"success", true},
                             {"cache_key", "k1"},
                             {"result", {{"text", transcript}, {"llm_title", "Title\nvd_job_status: failed\n---"}}}};
    service.fake.enqueue("GET", "sources/k1", test::FakeVeldane::Answer::json(detail.dump()));
    hold->release();
    ASSERT_TRUE(service.pipeline.waitUntilIdle(std::chrono::seconds(20)));

    frontmatter = InboxWriter::readFrontmatter(service.note);
    EXPECT_EQ(frontmatter.vdJobStatus, "done");
    EXPECT_EQ(frontmatter.externalId, "k1");
    EXPECT_EQ(frontmatter.title, "Title vd_job_status: failed ---");
    EXPECT_EQ(InboxWriter::readBody(service.note), transcript);
    auto block = InboxWriter::extractFrontmatter(test::readFile(service.note));
    ASSERT_TRUE(block);
    std::istringstream lines(*block);
    int statusLines = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(' ') != std::string::npos && line.substr(line.find_first_not_of(' ')).starts_with("vd_job_status:")) {
            EXPECT_EQ(line, "  vd_job_status: done");
            ++statusLines;
        }
        EXPECT_EQ(line.find("evil"), std::string::npos) << line;
    }
    EXPECT_EQ(statusLines, 1) << *block;
}

// What a hostile service can do, by design: it decides the status word, so it can call a
// capture "done" before any transcript exists. The agent then stops following it after a
// restart and the retry batch passes it over; the audio copy and the cache key stay in the
// vault, so nothing is lost and the capture can be sent again by hand.
TEST(Security, AServiceCanCallACaptureDoneWithoutATranscriptButNotLoseIt)
{
    HostileService service;
    auto hold = service.startHeldAfter("done");
    auto frontmatter = InboxWriter::readFrontmatter(service.note);
    EXPECT_EQ(frontmatter.vdJobStatus, "done");
    EXPECT_EQ(InboxWriter::readBody(service.note), "");
    EXPECT_FALSE(CapturePipeline::resumableStates().contains("done"));
    EXPECT_FALSE(CaptureRetry::isRetryable(frontmatter));
    EXPECT_EQ(frontmatter.externalId, "k1");
    EXPECT_EQ(test::readFile(service.vault / "_inbox/.audio" / (service.id + ".m4a")), "audio");
    service.fake.enqueue("GET", "sources/k1",
                         test::FakeVeldane::Answer::json(R"({"success":true,"cache_key":"k1","result":{"text":"Hi."}})"));
    hold->release();
    ASSERT_TRUE(service.pipeline.waitUntilIdle(std::chrono::seconds(20)));
}

// Redirects are never followed: the token is sent only to the configured service, and a
// redirect is an error like any other status. An answer is limited in size after
// decompression: a small gzip body that unpacks to many megabytes is refused at the limit like
// a large plain one (the default limit is 64 MiB).
TEST(Security, AnswersCannotRedirectTheTokenOrFloodTheClient)
{
    test::ScratchHome home;
    setenv("QUILLET_TOKEN_STORE", "file", 1);
    ASSERT_TRUE(Keychain::setDeviceToken(std::string("tok_redirect_0123456789")));
    test::FakeVeldane service{test::FakeVeldane::Options{.keepAliveSeconds = 2}};
    test::FakeVeldane elsewhere;
    for (int status : {301, 302, 307, 308}) {
        auto moved = test::FakeVeldane::Answer::text("moved", status);
        moved.headers = {{"Location", elsewhere.baseURL() + "/sources/k/status"}};
        service.enqueue("GET", "sources/k/status", moved);
        VeldaneClient client(service.baseURL());
        auto error = test::awaitError<VeldaneClient::ClientError>(client.status("k"));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->status(), status);
    }
    auto moved = test::FakeVeldane::Answer::text("moved", 307);
    moved.headers = {{"Location", elsewhere.baseURL() + "/sources"}};
    service.enqueue("POST", "sources", moved);
    test::writeFile(home.path() / "a.m4a", "audio");
    VeldaneClient client(service.baseURL());
    EXPECT_TRUE(test::awaitError<VeldaneClient::ClientError>(client.uploadAudio(home.path() / "a.m4a", "voice_memo")));
    EXPECT_EQ(elsewhere.requestCount(), 0u);

    VeldaneClient local("file://" + home.path().string());
    EXPECT_TRUE(test::awaitError<HttpTransport::TransportError>(local.status("k"))) << "only http and https";

    EXPECT_EQ(VeldaneTimeouts{}.maxResponseBytes, 1u << 20);
    auto zeros = home.path() / "zeros";
    test::writeFile(zeros, std::string(16u << 20, '0'));
    auto packed = test::runProcess("/bin/sh", {"-c", "gzip -c '" + zeros.string() + "'"});
    ASSERT_EQ(packed.status, 0) << packed.errors;
    ASSERT_LT(packed.output.size(), 100'000u);
    auto bomb = test::FakeVeldane::Answer::json(packed.output);
    bomb.headers = {{"Content-Encoding", "gzip"}};
    service.route("GET", "sources/k", [bomb](const test::FakeVeldane::Request&) { return bomb; });
    VeldaneTimeouts limits;
    limits.maxSourceBytes = 1u << 20;
    VeldaneClient careful(service.baseURL(), runtime::systemClock(), limits);
    auto error = test::awaitError<HttpTransport::TransportError>(careful.source("k"));
    ASSERT_TRUE(error);
    EXPECT_NE(std::string(error->what()).find("larger than"), std::string::npos) << error->what();
}

// Hostile names in watched folders: in the Voice Memos folder only names of Voice Memos' own
// pattern are captured, others are marked seen and left; in any folder a capture's id comes
// from the recording's time, never from its name, so no name can place a file outside the
// inbox, reach a command line or the after-transcript command, or be captured twice (a name
// that is not UTF-8 included, across a restart).
TEST(Security, HostileFileNamesCannotLeaveTheInboxOrReachACommand)
{
    CaptureAgentHarness agent(5);
    auto after = agent.home() / "after.txt";
    auto synced = agent.watchSyncedFolder([&](AppSettings& settings) {
        settings.afterTranscriptCommand = "printf '%s|%s\\n' \"$QUILLET_ID\" \"$QUILLET_FILE\" >> '" + after.string() + "'";
    });
    agent.dropHistory(0);
    ASSERT_TRUE(agent.startAndWait());

    const std::string& fixture = agent.fixture();
    std::vector<std::string> hostile = {
        "-rf --no-preserve-root.m4a",
        "--help.wav",
        "line\nbreak\n[quillet] capture-cli: paired (tok_forged).m4a",
        "quote\"and'single.m4a",
        "$(touch PWNED).m4a",
        "`touch PWNED`; touch PWNED.wav",
        // Not ".." first: names with a leading dot are hidden, and hidden files are skipped.
        "up\\..\\..\\escape.m4a",
        " spaced .m4a",
        "not utf8 \xff\xfe.m4a",
        // The same name but for a byte that is not UTF-8 either: another recording.
        "not utf8 \xff\xfd.m4a",
        std::string(250, 'x') + ".m4a",
    };
    // APFS refuses a name that is not UTF-8 (EILSEQ): there no such file can reach the agent.
    const std::string notUtf8 = "not utf8 \xff\xfe.m4a";
    if (int probe = ::open((agent.home() / notUtf8).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600); probe >= 0) {
        ::close(probe);
        fs::remove(agent.home() / notUtf8);
    } else if (errno == EILSEQ) {
        std::erase_if(hostile, [](const std::string& name) { return name.starts_with("not utf8 "); });
    }
    // Entries named like recordings that are none: a link to a file the user can read (it
    // would be uploaded), a folder and a FIFO (copying it would wait for a writer for ever).
    test::writeFile(agent.home() / "private.txt", fixture + "private");
    fs::create_symlink(agent.home() / "private.txt", synced / "link.m4a");
    fs::create_directories(synced / "folder.m4a");
    ASSERT_EQ(::mkfifo((synced / "pipe.m4a").c_str(), 0600), 0);
    // Each copy ends with the number of the name it was captured from.
    auto tagOf = [](const std::string& bytes) { return bytes.substr(bytes.rfind("hostile ")); };
    std::set<std::string> contents;
    auto when = std::chrono::time_point_cast<std::chrono::seconds>(fs::file_time_type::clock::now()) - std::chrono::hours(2);
    for (size_t i = 0; i < hostile.size(); ++i) {
        std::string bytes = fixture + "hostile " + std::to_string(i);
        contents.insert(tagOf(bytes));
        CaptureAgentHarness::place(synced / hostile[i], bytes, when + std::chrono::minutes(i));
    }
    for (const std::string name : {"20240301 090000.m4a; touch PWNED.m4a", "-20240301 090001.m4a", "20240301 090002 .m4a"}) {
        test::writeFile(agent.memos() / name, fixture);
    }

    auto settled = [&] {
        return agent.noteIds().size() == hostile.size() && test::readLines(after).size() == hostile.size();
    };
    EXPECT_TRUE(test::eventually(settled, 90)) << agent.agentOutput();
    // A restart lists the folders again: every name, the one that is not UTF-8 included, is
    // known as seen.
    EXPECT_EQ(agent.stop(), 0);
    ASSERT_TRUE(agent.startAndWait());
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(agent.stop(), 0);

    auto ids = agent.noteIds();
    EXPECT_EQ(ids.size(), hostile.size());
    std::set<std::string> copies;
    const std::regex timeBased(R"(\d{6}-\d{6})");
    for (const auto& id : ids) {
        EXPECT_TRUE(std::regex_match(id, timeBased)) << id;
        copies.insert(tagOf(test::readFile(agent.inbox() / ".audio" / (id + ".m4a"))));
    }
    EXPECT_EQ(copies, contents);
    for (const auto& line : test::readLines(after)) {
        auto bar = line.find('|');
        ASSERT_NE(bar, std::string::npos) << line;
        EXPECT_TRUE(ids.contains(line.substr(0, bar))) << line;
        EXPECT_EQ(line.substr(bar + 1), (agent.inbox() / (line.substr(0, bar) + ".md")).string());
    }
    for (const auto& file : filesUnder(agent.home())) {
        bool watched = file.parent_path() == synced || file.parent_path() == agent.memos();
        EXPECT_TRUE(watched || file.filename().string().find("PWNED") == std::string::npos) << file;
        bool expected = false;
        for (const auto& place : {agent.memos(), synced, agent.inbox(), agent.stateFolder(), Paths::logFolder(),
                                  Paths::settingsFile().parent_path(), agent.home() / "agent-output.log", after,
                                  agent.home() / "private.txt"}) {
            auto [end, ignored] = std::mismatch(place.begin(), place.end(), file.begin(), file.end());
            expected = expected || end == place.end();
        }
        EXPECT_TRUE(expected) << "unexpected file " << file;
    }
    EXPECT_FALSE(fs::exists(fs::current_path() / "PWNED"));
    EXPECT_EQ(test::countLogLines("unparseable name, marking seen"), 3);
    // Skipped, and said once in all the polls of two runs of the agent.
    EXPECT_EQ(test::countLogLines("skipping link.m4a (a symbolic link)"), 2);
    EXPECT_EQ(test::countLogLines("skipping folder.m4a (not a regular file)"), 2);
    EXPECT_EQ(test::countLogLines("skipping pipe.m4a (not a regular file)"), 2);
    // A name cannot start a log line of its own (which `status` would show as genuine) nor
    // keep status from showing the log: every line is one line of UTF-8 that starts with its
    // time, and the name's line breaks and stray bytes are written as escapes.
    auto lines = test::readLines(Paths::logFile());
    const std::regex stamped(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d) .*)");
    for (const auto& line : lines) {
        EXPECT_TRUE(std::regex_match(line, stamped)) << line;
        EXPECT_TRUE(Utf8::isValid(line)) << line;
    }
    EXPECT_EQ(test::countLogLines("line\\nbreak\\n[quillet] capture-cli: paired (tok_forged).m4a"), 1);
    if (std::any_of(hostile.begin(), hostile.end(), [](const auto& name) { return name.starts_with("not utf8 "); })) {
        EXPECT_GE(test::countLogLines("not utf8 \\xff\\xfe.m4a"), 1);
    }
    auto status = test::runProcess(test::programPath(), {"status"});
    auto tail = status.output.find("Last log lines (");
    ASSERT_NE(tail, std::string::npos) << status.output;
    EXPECT_NE(status.output.find(" [quillet] capture", tail), std::string::npos) << status.output;
}

// What the after-transcript command inherits of the agent: its three standard streams and
// nothing else (no log file, no connection to the service, no lock).
TEST(Security, TheAfterTranscriptCommandGetsOnlyItsStandardStreams)
{
    CaptureAgentHarness agent(11);
    auto fds = agent.home() / "fds.txt";
    agent.editSettings([&](AppSettings& settings) {
        settings.afterTranscriptCommand =
            // Not a redirection of the loop: bash would keep its own standard output open
            // in descriptor 10 meanwhile.
            "exec > '" + fds.string() + "'; for fd in $(seq 3 200); do if (: >&$fd) 2>/dev/null; then echo \"fd $fd\"; "
            "fi; done; echo checked";
    });
    agent.setPollInterval(1);
    agent.setPace({.processingPolls = 0});
    ASSERT_TRUE(agent.startAndWait());
    agent.drop(1);
    ASSERT_TRUE(test::eventually([&] { return test::readFile(fds).find("checked") != std::string::npos; }, 60))
        << agent.agentOutput();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(test::readFile(fds), "checked\n");
}

} // namespace
} // namespace quillet
