#include "tests/e2e/CaptureAgentHarness.hpp"

#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>

namespace quillet::test {

namespace fs = std::filesystem;

namespace {

// A key's endpoint below "sources/": the key and, for the status, "/status".
std::optional<std::pair<std::string, bool>> sourceKey(const std::string& endpoint)
{
    const std::string prefix = "sources/";
    if (!endpoint.starts_with(prefix)) {
        return std::nullopt;
    }
    std::string rest = endpoint.substr(prefix.size());
    bool status = rest.ends_with("/status");
    if (status) {
        rest.resize(rest.size() - std::string("/status").size());
    }
    if (rest.empty() || rest.find('/') != std::string::npos || rest == "tasks") {
        return std::nullopt;
    }
    return std::make_pair(rest, status);
}

void sleepFor(double seconds)
{
    if (seconds > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
}

const std::map<std::string, std::optional<std::string>> kEnvironment = {{"QUILLET_TOKEN_STORE", "file"}};

// How many starts of `run` the log holds.
long runsLogged()
{
    return countLogLines("[quillet] capture-cli: run ");
}

// The name and id of recording number `index`.
CaptureAgentHarness::Recording makeRecording(int index)
{
    // Names a minute and a second apart, from 1 March 2024, 08:00:00 UTC on.
    std::time_t when = 1709280000 + static_cast<std::time_t>(index) * 61;
    std::tm parts{};
    gmtime_r(&when, &parts);
    char name[32];
    std::strftime(name, sizeof name, "%Y%m%d %H%M%S.m4a", &parts);
    CaptureAgentHarness::Recording recording;
    recording.name = name;  // "20240301 080000.m4a"
    recording.id = recording.name.substr(2, 6) + "-" + recording.name.substr(9, 6);
    return recording;
}

} // namespace

CaptureAgentHarness::CaptureAgentHarness(unsigned seed)
    : random_(seed)
{
    memos_ = Paths::voiceMemosCandidates().front();
    fs::create_directories(memos_);
    fs::create_directories(vault());
    fixture_ = readFile(fs::path(QUILLET_SOURCE_DIR) / "tests/fixtures/short-1500ms.m4a");
    editSettings({});
    setenv("QUILLET_TOKEN_STORE", "file", 1);
    if (!Keychain::setDeviceToken(std::string("tok_harness_0123456789abcdefghijklmnop"))) {
        ADD_FAILURE() << "cannot store the token";
    }
    service_.fallback([this](const Request& request) { return answer(request); });
}

CaptureAgentHarness::~CaptureAgentHarness()
{
    if (pid_ > 0) {
        kill();
    }
    waitForWriters();
}

void CaptureAgentHarness::editSettings(const std::function<void(AppSettings&)>& edit)
{
    writeSettings([&](AppSettings& settings) {
        settings.vaultPath = vault().string();
        settings.captureVoiceMemosEnabled = true;
        settings.captureVeldaneEnabled = true;
        settings.veldaneBaseURL = service_.baseURL();
        settings.keepVoiceMemosRunning = false;
        if (edit) {
            edit(settings);
        }
    });
}

fs::path CaptureAgentHarness::watchSyncedFolder(const std::function<void(AppSettings&)>& edit)
{
    auto synced = home() / "Synced";
    fs::create_directories(synced);
    editSettings([&](AppSettings& settings) {
        settings.watchedFoldersRaw =
            std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true), WatchedFolder::generic(synced.string())};
        if (edit) {
            edit(settings);
        }
    });
    setPollInterval(1);
    setPace({.processingPolls = 0});
    return synced;
}

fs::path CaptureAgentHarness::stateFolder() const
{
    return Paths::stateFile().parent_path();
}

void CaptureAgentHarness::setPace(const Pace& pace)
{
    std::lock_guard guard(lock_);
    pace_ = pace;
}

void CaptureAgentHarness::setFault(Fault fault)
{
    std::lock_guard guard(lock_);
    fault_ = std::move(fault);
}

double CaptureAgentHarness::draw(double low, double high)
{
    std::lock_guard guard(lock_);
    if (high <= low) {
        return low;
    }
    return std::uniform_real_distribution<double>(low, high)(random_);
}

std::string CaptureAgentHarness::transcriptOf(const std::string& id, int take)
{
    auto text = "This is the transcript of recording " + id + ", spoken clearly.";
    return take == 1 ? text : text + " Take " + std::to_string(take) + ".";
}

CaptureAgentHarness::Answer CaptureAgentHarness::answer(const Request& request)
{
    Fault fault;
    Pace pace;
    {
        std::lock_guard guard(lock_);
        fault = fault_;
        pace = pace_;
    }
    if (fault) {
        if (auto played = fault(request)) {
            return *played;
        }
    }
    if (request.method == "POST" && request.endpoint == "sources") {
        return upload(request, pace);
    }
    auto key = sourceKey(request.endpoint);
    if (request.method != "GET" || !key) {
        return Answer::json(R"({"error":"not_found"})", 404);
    }
    std::string id;
    int take = 1;
    int polls = 0;
    {
        std::lock_guard guard(lock_);
        // An uploaded id's key is "key-" and the id, and "~" and the take after the first.
        std::string named = key->first.starts_with("key-") ? key->first.substr(4) : "";
        if (auto tilde = named.rfind('~'); tilde != std::string::npos) {
            take = std::atoi(named.c_str() + tilde + 1);
            named.resize(tilde);
        }
        if (keyOfId_.contains(named) && take >= 1 && take <= static_cast<int>(takesOfId_[named].size())) {
            id = named;
            polls = key->second ? ++statusPolls_[key->first] : 0;
        }
    }
    if (id.empty()) {
        return Answer::json(R"({"error":"not_found"})", 404);
    }
    if (key->second) {
        sleepFor(draw(pace.statusMin, pace.statusMax));
        std::string word = polls > pace.processingPolls ? "completed" : "processing";
        nlohmann::json body = {{"status", {{"transcription", {{"status", word}}}}}};
        return Answer::json(body.dump());
    }
    sleepFor(draw(pace.sourceMin, pace.sourceMax));
    nlohmann::json body = {{"success", true},
                           {"cache_key", key->first},
                           {"result",
                            {{"text", transcriptOf(id, take)},
                             {"status", "completed"},
                             {"language", "en"},
                             {"duration", 1.5},
                             {"word_count", 9}}}};
    return Answer::json(body.dump());
}

CaptureAgentHarness::Answer CaptureAgentHarness::upload(const Request& request, const Pace& pace)
{
    // The audio copy is sent under the capture's id, with its extension (".m4a", ".wav").
    const std::string marker = "filename=\"";
    auto start = request.body.find(marker);
    auto quote = start == std::string::npos ? start : request.body.find('"', start + marker.size());
    auto end = quote == std::string::npos ? quote : request.body.rfind('.', quote);
    if (end == std::string::npos || end < start + marker.size()) {
        return Answer::json(R"({"error":"no file"})", 400);
    }
    std::string id = request.body.substr(start + marker.size(), end - start - marker.size());
    // The audio is the part's content, up to the next boundary line.
    std::string audio;
    auto boundary = request.body.substr(0, request.body.find("\r\n"));
    if (auto from = request.body.find("\r\n\r\n", end); from != std::string::npos) {
        auto to = request.body.find("\r\n" + boundary, from + 4);
        audio = request.body.substr(from + 4, to == std::string::npos ? std::string::npos : to - from - 4);
    }
    // The wait happens here rather than in the answer's delay, so that the test can see an
    // upload in flight at the moment it kills the agent.
    ++uploadsInFlight_;
    sleepFor(draw(pace.uploadMin, pace.uploadMax));
    --uploadsInFlight_;
    std::lock_guard guard(lock_);
    ++uploadsOfId_[id];
    keyOfId_.try_emplace(id, "key-" + id);
    // Other audio under an id (a recording that grew) is another take, with a key and a
    // transcript of its own; the same audio again is a duplicate of its take.
    auto& takes = takesOfId_[id];
    auto found = std::find(takes.begin(), takes.end(), std::hash<std::string>{}(audio));
    bool duplicate = found != takes.end();
    if (!duplicate) {
        takes.push_back(std::hash<std::string>{}(audio));
        found = std::prev(takes.end());
    }
    auto take = found - takes.begin() + 1;
    auto cacheKey = take == 1 ? "key-" + id : "key-" + id + "~" + std::to_string(take);
    nlohmann::json body = {{"status", duplicate ? "duplicate_upload" : "queued"}, {"cache_key", cacheKey}};
    return Answer::json(body.dump());
}

int CaptureAgentHarness::uploadCount() const
{
    std::lock_guard guard(lock_);
    int total = 0;
    for (const auto& [id, count] : uploadsOfId_) {
        total += count;
    }
    return total;
}

CaptureAgentHarness::Recording CaptureAgentHarness::filled(int index, std::size_t padding) const
{
    auto recording = makeRecording(index);
    // A free box at the end keeps the file valid MP4 and makes its bytes its own.
    std::string payload = "quillet test recording " + recording.name;
    for (std::size_t i = 0; i < padding; ++i) {
        payload.push_back(static_cast<char>('a' + (i * 7 + static_cast<std::size_t>(index)) % 26));
    }
    std::uint32_t size = static_cast<std::uint32_t>(8 + payload.size());
    recording.bytes = fixture_;
    for (int shift = 24; shift >= 0; shift -= 8) {
        recording.bytes.push_back(static_cast<char>((size >> shift) & 0xff));
    }
    recording.bytes += "free" + payload;
    return recording;
}

CaptureAgentHarness::Recording CaptureAgentHarness::drop(int index, std::size_t padding)
{
    return dropInto(memos_, index, padding);
}

void CaptureAgentHarness::place(const fs::path& file, const std::string& bytes, std::optional<fs::file_time_type> modified)
{
    // A short hidden name: the final one may be as long as a name can be.
    static std::atomic<int> placed{0};
    auto hidden = file.parent_path() / (".incoming-" + std::to_string(++placed));
    writeFile(hidden, bytes);
    if (modified) {
        fs::last_write_time(hidden, *modified);
    }
    fs::rename(hidden, file);
}

CaptureAgentHarness::Recording CaptureAgentHarness::dropInto(const fs::path& folder, int index, std::size_t padding)
{
    auto recording = filled(index, padding);
    place(folder / recording.name, recording.bytes);
    std::lock_guard guard(lock_);
    recordings_.push_back(recording);
    return recording;
}

CaptureAgentHarness::Recording CaptureAgentHarness::dropSlowly(int index, double seconds, std::size_t padding)
{
    auto recording = filled(index, padding);
    {
        std::lock_guard guard(lock_);
        recordings_.push_back(recording);
        slow_.insert(recording.name);
    }
    // Written piece by piece under its final name, as a sync that is still downloading.
    writers_.emplace_back([file = memos_ / recording.name, bytes = recording.bytes, seconds] {
        constexpr int kPieces = 12;
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            return;
        }
        std::size_t piece = bytes.size() / kPieces + 1;
        for (std::size_t offset = 0; offset < bytes.size(); offset += piece) {
            std::size_t length = std::min(piece, bytes.size() - offset);
            if (::write(fd, bytes.data() + offset, length) != static_cast<ssize_t>(length)) {
                break;
            }
            sleepFor(seconds / kPieces);
        }
        ::close(fd);
    });
    return recording;
}

void CaptureAgentHarness::waitForWriters()
{
    for (auto& writer : writers_) {
        writer.join();
    }
    writers_.clear();
}

CaptureAgentHarness::Recording CaptureAgentHarness::dropHistory(int index)
{
    auto recording = drop(index);
    std::lock_guard guard(lock_);
    recordings_.pop_back();
    history_.push_back(recording);
    return recording;
}

void CaptureAgentHarness::start()
{
    ASSERT_LT(pid_, 0) << "an agent is already running";
    if (!setUp_) {
        // The harness writes the settings itself; `setup`, which the user runs before the
        // agent, would also have fixed the moment each folder was first watched.
        setUp_ = true;
        auto now = std::chrono::system_clock::now();
        for (const auto& folder : Settings::shared().enabledWatchedFolders()) {
            FirstWatched::fix(folder.id, now);
        }
    }
    runsBefore_ = runsLogged();
    auto output = home() / "agent-output.log";
    auto environment = kEnvironment;
    if (pollInterval_ > 0) {
        environment["QUILLET_POLL_INTERVAL_SECONDS"] = std::to_string(pollInterval_);
    }
    if (retryMinute_ > 0) {
        environment["QUILLET_RETRY_MINUTE_SECONDS"] = std::to_string(retryMinute_);
    }
    for (const auto& [name, value] : environment_) {
        environment[name] = value;
    }
    std::string program = programPath();
    pid_ = ::fork();
    if (pid_ == 0) {
        for (auto& [name, value] : environment) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
        int null = ::open("/dev/null", O_RDONLY);
        int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(null, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        char* argv[] = {program.data(), const_cast<char*>("run"), nullptr};
        ::execv(program.c_str(), argv);
        ::_exit(127);
    }
    ASSERT_GT(pid_, 0) << "fork failed";
}

bool CaptureAgentHarness::startAndWait(double seconds)
{
    auto started = [] { return countLogLines("[quillet] capture: coordinator started"); };
    auto before = started();
    start();
    return eventually([&] { return started() > before; }, seconds);
}

void CaptureAgentHarness::kill()
{
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
}

int CaptureAgentHarness::stop(int signo)
{
    if (pid_ <= 0) {
        return -1;
    }
    // The agent arms its SIGTERM handler before its first log line; a stop sent earlier, while
    // the process is still being loaded, would end it with the default action.
    auto armed = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (runsLogged() <= runsBefore_ && std::chrono::steady_clock::now() < armed) {
        sleepFor(0.02);
    }
    ::kill(pid_, signo);
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (::waitpid(pid_, &status, WNOHANG) != pid_) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the agent did not stop on signal " << signo;
            kill();
            return -1;
        }
        sleepFor(0.02);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string CaptureAgentHarness::agentOutput() const
{
    return readFile(home() / "agent-output.log");
}

bool CaptureAgentHarness::indexed() const
{
    auto text = readWholeFile(Paths::stateFile());
    auto state = text ? CaptureStateStore::decode(*text) : std::nullopt;
    if (!state) {
        return false;
    }
    auto folder = state->seenByFolder.find(CaptureStateStore::voiceMemosFolderId);
    return folder != state->seenByFolder.end() && folder->second.contains(CaptureStateStore::indexedMarker);
}

std::vector<CaptureAgentHarness::Recording> CaptureAgentHarness::recordings() const
{
    std::lock_guard guard(lock_);
    return recordings_;
}

std::set<std::string> CaptureAgentHarness::noteIds() const
{
    std::set<std::string> ids;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(inbox(), error)) {
        if (entry.path().extension() == ".md") {
            ids.insert(entry.path().stem().string());
        }
    }
    return ids;
}

std::map<std::string, std::string> CaptureAgentHarness::statuses() const
{
    std::map<std::string, std::string> result;
    for (const auto& recording : recordings()) {
        std::string status;
        try {
            status = InboxWriter::readFrontmatter(inbox() / (recording.id + ".md")).vdJobStatus.value_or("");
        } catch (const std::exception&) {
        }
        result[recording.id] = status;
    }
    return result;
}

bool CaptureAgentHarness::waitUntilAllDone(double seconds) const
{
    return eventually(
        [&] {
            auto all = recordings();
            return std::all_of(all.begin(), all.end(), [&](const Recording& recording) {
                std::error_code error;
                auto size = fs::file_size(inbox() / ".audio" / (recording.id + ".m4a"), error);
                auto note = readWholeFile(inbox() / (recording.id + ".md")).value_or("");
                int take = takeOf(recording);
                return !error && size == recording.bytes.size() && take > 0 &&
                       note.find("vd_job_status: done\n") != std::string::npos &&
                       note.find(transcriptOf(recording.id, take)) != std::string::npos;
            });
        },
        seconds);
}

int CaptureAgentHarness::takeOf(const Recording& recording) const
{
    std::lock_guard guard(lock_);
    auto takes = takesOfId_.find(recording.id);
    if (takes == takesOfId_.end()) {
        return 0;
    }
    auto found = std::find(takes->second.begin(), takes->second.end(), std::hash<std::string>{}(recording.bytes));
    return found == takes->second.end() ? 0 : static_cast<int>(found - takes->second.begin()) + 1;
}

LibraryFixture& CaptureAgentHarness::library()
{
    if (!library_) {
        library_ = std::make_unique<LibraryFixture>(memos_);
    }
    return *library_;
}

CaptureAgentHarness::Recording CaptureAgentHarness::dropListed(int index, const std::string& title,
                                                               std::size_t padding, std::optional<int> folder)
{
    auto recording = filled(index, padding);
    recording.name = fs::path(recording.name).replace_extension(".qta").string();
    std::time_t when = 1709280000 + static_cast<std::time_t>(index) * 61;
    library().add({"REC-" + std::to_string(index), recording.name, std::chrono::system_clock::from_time_t(when), 1.5,
                   title, folder, false, ""});
    place(memos_ / recording.name, recording.bytes);
    std::lock_guard guard(lock_);
    recordings_.push_back(recording);
    listed_.emplace(recording.name, "REC-" + std::to_string(index));
    return recording;
}

bool CaptureAgentHarness::joinTwin()
{
    std::lock_guard guard(lock_);
    for (const auto& recording : recordings_) {
        std::error_code error;
        if (!listed_.contains(recording.name) || twinned_.contains(recording.name) ||
            !fs::exists(inbox() / (recording.id + ".md"), error)) {
            continue;
        }
        place(memos_ / fs::path(recording.name).replace_extension(".m4a"), recording.bytes + "as aac");
        twinned_.insert(recording.name);
        return true;
    }
    return false;
}

bool CaptureAgentHarness::renameListed(const std::string& title)
{
    std::lock_guard guard(lock_);
    for (const auto& recording : recordings_) {
        std::error_code error;
        if (listed_.contains(recording.name) && fs::exists(inbox() / (recording.id + ".md"), error)) {
            library().setTitle(listed_.at(recording.name), title);
            return true;
        }
    }
    return false;
}

bool CaptureAgentHarness::growCaptured(std::size_t extra)
{
    std::lock_guard guard(lock_);
    for (auto& recording : recordings_) {
        std::error_code error;
        if (slow_.contains(recording.name) || grown_.contains(recording.name) ||
            !fs::exists(inbox() / (recording.id + ".md"), error)) {
            continue;
        }
        std::string more(extra, 'g');
        int fd = ::open((memos_ / recording.name).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        bool written = ::write(fd, more.data(), more.size()) == static_cast<ssize_t>(more.size());
        ::close(fd);
        EXPECT_TRUE(written) << "cannot grow " << recording.name;
        recording.bytes += more;
        grown_.insert(recording.name);
        return true;
    }
    return false;
}

std::vector<fs::path> CaptureAgentHarness::leftovers(const fs::path& folder)
{
    std::vector<fs::path> found;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        std::string name = it->path().filename().string();
        if (isAtomicWriteLeftover(name) || name.find(".quillet-tmp-") != std::string::npos) {
            found.push_back(it->path());
        }
    }
    return found;
}

void CaptureAgentHarness::expectConsistent(bool requireDone) const
{
    auto expected = recordings();
    std::set<std::string> expectedNotes;
    std::set<std::string> expectedCopies;
    for (const auto& recording : expected) {
        expectedNotes.insert(recording.id);
        expectedCopies.insert(recording.id + ".m4a");
    }

    // Exactly the expected notes and copies: nothing for history, no suffixed second capture.
    EXPECT_EQ(noteIds(), expectedNotes);
    std::set<std::string> copies;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(inbox() / ".audio", error)) {
        if (!entry.path().filename().string().starts_with('.')) {
            copies.insert(entry.path().filename().string());
        }
    }
    EXPECT_EQ(copies, expectedCopies);

    for (const auto& recording : expected) {
        auto note = inbox() / (recording.id + ".md");
        auto copy = inbox() / ".audio" / (recording.id + ".m4a");
        EXPECT_TRUE(readFile(copy) == recording.bytes) << "the audio copy of " << recording.name << " differs";
        try {
            auto frontmatter = InboxWriter::readFrontmatter(note);
            EXPECT_EQ(frontmatter.id, recording.id);
            EXPECT_EQ(frontmatter.audioPath, "_inbox/.audio/" + recording.id + ".m4a");
            // A recording the library lists is known by its library id, crashes or not.
            std::string libraryId;
            {
                std::lock_guard guard(lock_);
                auto listed = listed_.find(recording.name);
                libraryId = listed != listed_.end() ? listed->second : "";
            }
            if (!libraryId.empty()) {
                EXPECT_EQ(frontmatter.voiceMemosId.value_or(""), libraryId) << recording.id;
            }
            if (requireDone) {
                EXPECT_EQ(frontmatter.vdJobStatus.value_or(""), "done") << recording.id;
                // The transcript of the recording as it is now (the take of its last bytes).
                int take = takeOf(recording);
                EXPECT_GT(take, 0) << recording.id << " was never uploaded as it is now";
                auto key = "key-" + recording.id + (take > 1 ? "~" + std::to_string(take) : "");
                EXPECT_EQ(frontmatter.externalId.value_or(""), key) << recording.id;
                EXPECT_NE(InboxWriter::readBody(note).find(transcriptOf(recording.id, take)), std::string::npos)
                    << recording.id;
            }
        } catch (const std::exception& failure) {
            ADD_FAILURE() << "the note of " << recording.name << " does not read: " << failure.what();
        }
    }

    auto stateText = readWholeFile(Paths::stateFile());
    auto state = stateText ? CaptureStateStore::decode(*stateText) : std::nullopt;
    if (!state) {
        ADD_FAILURE() << "state.json does not parse";
    } else {
        const auto& seen = state->seenByFolder[std::string(CaptureStateStore::voiceMemosFolderId)];
        // A folder that was empty at the first start has nothing to index and no marker.
        if (!history_.empty()) {
            EXPECT_TRUE(seen.contains(CaptureStateStore::indexedMarker));
        }
        for (const auto& recording : expected) {
            auto entry = seen.find(recording.name);
            if (entry == seen.end()) {
                ADD_FAILURE() << recording.name << " is not in the seen set";
            } else {
                EXPECT_EQ(entry->second.canonicalId, recording.id);
            }
        }
        for (const auto& old : history_) {
            EXPECT_TRUE(seen.contains(old.name)) << old.name << " (history) is not in the seen set";
        }
    }

    auto intakeText = readWholeFile(stateFolder() / "intake.json");
    if (intakeText) {
        auto intake = nlohmann::json::parse(*intakeText, nullptr, false);
        EXPECT_TRUE(intake.is_object() && intake["pending"].is_array()) << *intakeText;
        if (requireDone && intake.is_object()) {
            EXPECT_TRUE(intake["pending"].empty()) << "the intake journal still holds " << intake["pending"].dump();
        }
    }

    for (const auto& folder : {vault(), stateFolder()}) {
        for (const auto& leftover : leftovers(folder)) {
            ADD_FAILURE() << "temporary file left behind: " << leftover;
        }
    }
}

CapturePipeline::Environment pipelineEnvironment(const fs::path& vault, const std::string& baseURL,
                                                 runtime::Clock& clock, VeldaneClient::Timeouts timeouts)
{
    return CapturePipeline::Environment{
        [vault] { return vault; },
        [] { return true; },
        [] { return std::vector<WatchedFolder>{WatchedFolder::voiceMemos(true)}; },
        [baseURL] { return baseURL; },
        {},
        &clock,
        timeouts,
    };
}

void runToEnd(CapturePipeline& pipeline, asio::awaitable<void> task)
{
    std::promise<void> done;
    runtime::spawn(
        [](asio::awaitable<void> task, std::promise<void>& done) -> asio::awaitable<void> {
            co_await std::move(task);
            done.set_value();
        }(std::move(task), done));
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    ASSERT_TRUE(pipeline.waitUntilIdle(std::chrono::seconds(60)));
}

} // namespace quillet::test
