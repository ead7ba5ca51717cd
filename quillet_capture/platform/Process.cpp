#include "quillet_capture/platform/Process.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace quillet {

namespace Process {

namespace {

std::string reason(const std::string& subject, int error)
{
    return subject + ": " + std::strerror(error);
}

// Both ends close on exec, so that a child started by another thread at the same moment
// cannot inherit the write end and keep the pipe open after our child has ended.
void makePipe(int fds[2])
{
#if defined(__linux__)
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw SpawnError(reason("pipe", errno));
    }
#else
    if (::pipe(fds) != 0) {
        throw SpawnError(reason("pipe", errno));
    }
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#endif
}

std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& changes)
{
    std::vector<std::string> entries;
    for (char** entry = environment(); entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        auto name = text.substr(0, text.find('='));
        if (changes.find(std::string(name)) == changes.end()) {
            entries.emplace_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// RAII for the spawn attribute objects, which must be destroyed on every path.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    SpawnSetup()
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
};

} // namespace

Child spawn(const std::string& path, const std::vector<std::string>& arguments, const SpawnOptions& options)
{
    int fds[2];
    makePipe(fds);

    SpawnSetup setup;
    posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&setup.actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&setup.actions, fds[1], STDERR_FILENO);
    if (options.workingFolder) {
        posix_spawn_file_actions_addchdir_np(&setup.actions, options.workingFolder->c_str());
    }
    short flags = 0;
    if (options.group == Group::own) {
        flags |= POSIX_SPAWN_SETPGROUP;
        posix_spawnattr_setpgroup(&setup.attributes, 0);
    }
    // Nothing but the three standard descriptors reaches the child, also a descriptor that a
    // library opened without close-on-exec (a connection to the service, say).
#if defined(POSIX_SPAWN_CLOEXEC_DEFAULT)
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#else
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, STDERR_FILENO + 1);
#endif
    posix_spawnattr_setflags(&setup.attributes, flags);

    std::vector<std::string> argv{path};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    auto argvPointers = pointers(argv);
    std::vector<std::string> env;
    std::vector<char*> envPointers;
    char** childEnv = environment();
    if (!options.environment.empty()) {
        env = childEnvironment(options.environment);
        envPointers = pointers(env);
        childEnv = envPointers.data();
    }

    pid_t pid = -1;
    int error = posix_spawn(&pid, path.c_str(), &setup.actions, &setup.attributes, argvPointers.data(), childEnv);
    ::close(fds[1]);
    if (error != 0) {
        ::close(fds[0]);
        throw SpawnError(reason(path, error));
    }
    return Child{pid, fds[0]};
}

int terminationStatus(int waitStatus)
{
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    if (WIFSIGNALED(waitStatus)) {
        return WTERMSIG(waitStatus);
    }
    return -1;
}

int waitFor(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

std::optional<std::string> findInPath(const std::string& name)
{
    if (name.empty()) {
        return std::nullopt;
    }
    std::string searchPath;
    if (const char* value = std::getenv("PATH"); value != nullptr) {
        searchPath = value;
    } else {
        searchPath = "/usr/bin:/bin";
    }
    size_t start = 0;
    while (start <= searchPath.size()) {
        size_t end = searchPath.find(':', start);
        if (end == std::string::npos) {
            end = searchPath.size();
        }
        // An empty entry means the working folder, as in the shell.
        std::string folder = end > start ? searchPath.substr(start, end - start) : ".";
        std::filesystem::path candidate = std::filesystem::path(folder) / name;
        std::error_code ignored;
        if (std::filesystem::is_regular_file(candidate, ignored) && ::access(candidate.c_str(), X_OK) == 0) {
            return std::filesystem::absolute(candidate, ignored).string();
        }
        start = end + 1;
    }
    return std::nullopt;
}

std::string outputText(std::string_view bytes, InvalidUtf8 policy)
{
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string text;
    text.reserve(bytes.size());
    size_t i = 0;
    const size_t n = bytes.size();
    while (i < n) {
        auto lead = static_cast<unsigned char>(bytes[i]);
        if (lead < 0x80) {
            text += static_cast<char>(lead);
            ++i;
            continue;
        }
        int needed = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            needed = 1;
        } else if (lead == 0xE0) {
            needed = 2;
            low = 0xA0;
        } else if (lead >= 0xE1 && lead <= 0xEC) {
            needed = 2;
        } else if (lead == 0xED) {
            needed = 2;
            high = 0x9F; // no surrogates
        } else if (lead >= 0xEE && lead <= 0xEF) {
            needed = 2;
        } else if (lead == 0xF0) {
            needed = 3;
            low = 0x90;
        } else if (lead >= 0xF1 && lead <= 0xF3) {
            needed = 3;
        } else if (lead == 0xF4) {
            needed = 3;
            high = 0x8F; // nothing above U+10FFFF
        }
        size_t j = i + 1;
        int got = 0;
        while (got < needed && j < n) {
            auto next = static_cast<unsigned char>(bytes[j]);
            if (next < low || next > high) {
                break;
            }
            low = 0x80;
            high = 0xBF;
            ++j;
            ++got;
        }
        if (needed > 0 && got == needed) {
            text.append(bytes.substr(i, j - i));
        } else {
            if (policy == InvalidUtf8::empty) {
                return {};
            }
            // One replacement for the longest prefix that could have begun a character.
            text.append(kReplacement);
        }
        i = j;
    }
    return text;
}

} // namespace Process

ShellResult shell(const std::string& path, const std::vector<std::string>& arguments)
{
    Process::Child child;
    try {
        child = Process::spawn(path, arguments);
    } catch (const Process::SpawnError& error) {
        return {-1, error.what()};
    }
    std::string bytes;
    char buffer[8192];
    for (;;) {
        ssize_t count = ::read(child.output, buffer, sizeof buffer);
        if (count > 0) {
            bytes.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(child.output);
    int status = Process::waitFor(child.pid);
    return {Process::terminationStatus(status), Process::outputText(bytes, Process::InvalidUtf8::empty)};
}

std::string executablePath()
{
    namespace fs = std::filesystem;
    std::string reported = Process::startedExecutable();
    fs::path file = reported;
    std::error_code error;
    if (reported.empty() || reported.front() != '/') {
        file = fs::current_path(error).string() + "/" + reported;
    }
    fs::path resolved = fs::canonical(file, error);
    if (error) {
        return file.lexically_normal().string();
    }
    return resolved.string();
}

} // namespace quillet
