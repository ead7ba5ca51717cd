#include "quillet_capture/pipeline/AfterTranscriptCommand.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

namespace quillet {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

struct AfterTranscriptCommand::Running {
    mutable std::mutex lock;
    std::set<std::string> ids;
};

namespace {

constexpr size_t kOutputTail = 2000;
// How often a run looks whether its child has ended while the child writes nothing.
constexpr auto kTick = std::chrono::milliseconds(50);
// A command that ignores the polite request to stop gets this long before it is killed.
constexpr auto kKillGrace = std::chrono::seconds(5);

// The process groups of the commands running in this process, whichever instance started
// them, so that the agent can end them when it stops. A group is entered under the lock in
// the same step as its spawn, so a stop can never miss a command being started.
struct Groups {
    std::mutex lock;
    std::set<pid_t> running;
    bool stopping = false;
};

Groups& groups()
{
    static auto* instance = new Groups; // never destroyed: command threads may outlive main
    return *instance;
}

// True while any process of the group `group` exists.
bool groupAlive(pid_t group)
{
    return ::kill(-group, 0) == 0 || errno == EPERM;
}

// White space and line breaks as Unicode knows them, in UTF-8, beyond the ASCII ones.
constexpr std::array<std::string_view, 17> kWideSpaces = {
    "\xC2\x85",     "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xA8", "\xE2\x80\xA9", "\xE3\x80\x80",
};

bool isAsciiSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string trimmed(std::string_view text)
{
    for (bool changed = true; changed && !text.empty();) {
        changed = false;
        if (isAsciiSpace(text.front())) {
            text.remove_prefix(1);
            changed = true;
            continue;
        }
        for (auto space : kWideSpaces) {
            if (text.starts_with(space)) {
                text.remove_prefix(space.size());
                changed = true;
                break;
            }
        }
    }
    for (bool changed = true; changed && !text.empty();) {
        changed = false;
        if (isAsciiSpace(text.back())) {
            text.remove_suffix(1);
            changed = true;
            continue;
        }
        for (auto space : kWideSpaces) {
            if (text.ends_with(space)) {
                text.remove_suffix(space.size());
                changed = true;
                break;
            }
        }
    }
    return std::string(text);
}

class OutputTail {
public:
    void append(const char* bytes, size_t count)
    {
        tail_.append(bytes, count);
        if (tail_.size() > kOutputTail) {
            tail_.erase(0, tail_.size() - kOutputTail);
        }
    }
    const std::string& bytes() const { return tail_; }

private:
    std::string tail_;
};

enum class ReadResult { data, nothing, closed };

ReadResult readSome(int fd, OutputTail& tail)
{
    char buffer[8192];
    ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count > 0) {
        tail.append(buffer, static_cast<size_t>(count));
        return ReadResult::data;
    }
    if (count < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
        return ReadResult::nothing;
    }
    return ReadResult::closed;
}

// Blocks the calling thread until the command has ended (or was stopped at the time limit).
void run(const std::string& command, const std::string& id, const fs::path& folder, const fs::path& file,
         std::chrono::duration<double> timeLimit)
{
    auto shellCommand = Process::loginShell(command);
    Process::Child child;
    std::error_code folderError;
    if (!fs::is_directory(folder, folderError)) {
        rlog("[quillet] after-transcript: could not start for %@: %@", id,
             folder.string() + ": " + std::strerror(fs::exists(folder, folderError) ? ENOTDIR : ENOENT));
        return;
    }
    auto& all = groups();
    std::unique_lock registry(all.lock);
    if (all.stopping) {
        rlog("[quillet] after-transcript: not started for %@: the agent is stopping", id);
        return;
    }
    try {
        Process::SpawnOptions options;
        options.environment = {
            {"QUILLET_ID", id},
            {"QUILLET_FILE", file.string()},
            {"QUILLET_FOLDER", folder.string()},
        };
        options.workingFolder = folder;
        // A group of its own lets the time limit stop everything the command started, not
        // only the shell.
        options.group = Process::Group::own;
        child = Process::spawn(shellCommand.executable, shellCommand.arguments, options);
    } catch (const Process::SpawnError& error) {
        registry.unlock();
        rlog("[quillet] after-transcript: could not start for %@: %@", id, error.what());
        return;
    }
    all.running.insert(child.pid);
    registry.unlock();
    const auto start = SteadyClock::now();
    rlog("[quillet] after-transcript: started for %@ (pid %d)", id, child.pid);

    const auto deadline = start + std::chrono::duration_cast<SteadyClock::duration>(timeLimit);
    OutputTail tail;
    bool pipeOpen = true;
    bool stoppedByLimit = false;
    auto killAt = SteadyClock::time_point::max();
    int waitStatus = 0;
    for (;;) {
        if (pipeOpen) {
            pollfd watch{child.output, POLLIN, 0};
            int ready = ::poll(&watch, 1, static_cast<int>(kTick.count()));
            if (ready > 0 && readSome(child.output, tail) == ReadResult::closed) {
                pipeOpen = false;
            }
        } else {
            std::this_thread::sleep_for(kTick);
        }
        // Waiting here, on the thread that also signals, means a signal can never reach a
        // process id that was already reaped and handed to someone else.
        pid_t ended = ::waitpid(child.pid, &waitStatus, WNOHANG);
        if (ended == child.pid || (ended < 0 && errno != EINTR)) {
            break;
        }
        auto now = SteadyClock::now();
        if (!stoppedByLimit && now >= deadline) {
            stoppedByLimit = true;
            ::kill(-child.pid, SIGTERM);
            killAt = now + kKillGrace;
        } else if (now >= killAt) {
            ::kill(-child.pid, SIGKILL);
            killAt = SteadyClock::time_point::max();
        }
    }
    {
        std::lock_guard guard(all.lock);
        all.running.erase(child.pid);
    }
    // Whatever is already in the pipe belongs to the output; a background process that the
    // command left behind may hold the pipe open, so this does not wait for its end.
    if (pipeOpen) {
        ::fcntl(child.output, F_SETFL, ::fcntl(child.output, F_GETFL) | O_NONBLOCK);
        while (readSome(child.output, tail) == ReadResult::data) {
        }
    }
    ::close(child.output);

    auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(SteadyClock::now() - start).count();
    if (stoppedByLimit) {
        rlog("[quillet] after-transcript: %@ stopped after %d s (time limit)", id, elapsed);
    } else {
        rlog("[quillet] after-transcript: %@ exited %d after %d s", id, Process::terminationStatus(waitStatus),
             elapsed);
    }
    auto output = trimmed(Process::outputText(tail.bytes(), Process::InvalidUtf8::repair));
    if (!output.empty()) {
        rlog("[quillet] after-transcript: %@ output (end):\n%@", id, output);
    }
}

} // namespace

int AfterTranscriptCommand::stopAll(std::chrono::milliseconds grace)
{
    auto& all = groups();
    std::vector<pid_t> running;
    {
        std::lock_guard guard(all.lock);
        all.stopping = true;
        running.assign(all.running.begin(), all.running.end());
    }
    if (running.empty()) {
        return 0;
    }
    rlog("[quillet] after-transcript: the agent stops; ending %d running command(s) (SIGTERM, SIGKILL after %d ms)",
         static_cast<int>(running.size()), static_cast<int>(grace.count()));
    // Signalled by group: the shell's children and theirs are ended with it. A group's id is
    // not given to another process while any process of the group lives, so a group that ends
    // meanwhile costs a signal that reaches nobody, never one that reaches a stranger.
    for (pid_t group : running) {
        ::kill(-group, SIGTERM);
    }
    const auto deadline = SteadyClock::now() + grace;
    auto anyAlive = [&running] {
        return std::any_of(running.begin(), running.end(), [](pid_t group) { return groupAlive(group); });
    };
    while (anyAlive() && SteadyClock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (pid_t group : running) {
        if (groupAlive(group)) {
            ::kill(-group, SIGKILL);
        }
    }
    return static_cast<int>(running.size());
}

AfterTranscriptCommand& AfterTranscriptCommand::shared()
{
    static auto* instance = new AfterTranscriptCommand();
    return *instance;
}

AfterTranscriptCommand::AfterTranscriptCommand(std::chrono::duration<double> timeLimit)
    : running_(std::make_shared<Running>())
    , timeLimit_(timeLimit)
{
}

AfterTranscriptCommand::~AfterTranscriptCommand() = default;

void AfterTranscriptCommand::transcriptWritten(const std::string& id, const fs::path& file, const std::string& command,
                                               const fs::path& folder)
{
    std::string text = trimmed(command);
    if (text.empty()) {
        return;
    }
    {
        std::lock_guard guard(running_->lock);
        if (!running_->ids.insert(id).second) {
            rlog("[quillet] after-transcript: %@ already running; not started again", id);
            return;
        }
    }
    // A thread per command rather than the shared blocking pool: a command may take up to the
    // time limit, and a few slow ones must not hold up the uploads and polls that share the
    // pool. The running-id set bounds the threads to one per capture.
    std::weak_ptr<Running> running = running_;
    try {
        std::thread([text = std::move(text), id, folder, file, limit = timeLimit_, running] {
            run(text, id, folder, file, limit);
            if (auto set = running.lock()) {
                std::lock_guard guard(set->lock);
                set->ids.erase(id);
            }
        }).detach();
    } catch (const std::system_error& error) {
        rlog("[quillet] after-transcript: could not start for %@: %@", id, error.what());
        std::lock_guard guard(running_->lock);
        running_->ids.erase(id);
    }
}

bool AfterTranscriptCommand::isRunning(const std::string& id) const
{
    std::lock_guard guard(running_->lock);
    return running_->ids.count(id) > 0;
}

} // namespace quillet
