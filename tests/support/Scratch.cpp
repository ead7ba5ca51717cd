#include "tests/support/Scratch.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/service/RefusedToken.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace quillet::test {

namespace fs = std::filesystem;

ScratchDir::ScratchDir()
{
    std::string pattern = (fs::temp_directory_path() / "quillet-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

ScratchDir::~ScratchDir()
{
    std::error_code ignored;
    // Give back permissions that a test took away, so that everything can be removed.
    for (auto it = fs::recursive_directory_iterator(path_, fs::directory_options::skip_permission_denied, ignored);
         it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(path_, ignored);
}

namespace {
const char* const kIsolated[] = {"HOME",          "XDG_CONFIG_HOME",     "XDG_STATE_HOME", "XDG_DATA_HOME",
                                 "CFFIXED_USER_HOME", "QUILLET_TOKEN_STORE", "QUILLET_URL_OPENER"};
}

ScratchHome::ScratchHome()
{
    for (const char* name : kIsolated) {
        const char* value = std::getenv(name);
        saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
        unsetenv(name);
    }
    setenv("HOME", dir_.path().c_str(), 1);
    // CoreFoundation's preferences (the retry watermark) follow this variable, not $HOME; a
    // process reads it when it starts, so it reaches the programs that tests start.
    setenv("CFFIXED_USER_HOME", dir_.path().c_str(), 1);
    // The login Keychain does not follow either: no test reaches it unless it asks for it.
    if (Paths::current() == Platform::macOS) {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
    }
    // A fresh user has had no token refused, whatever earlier tests in this process played.
    RefusedToken::shared().forget();
}

ScratchHome::~ScratchHome()
{
    for (auto& [name, value] : saved_) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
}

std::string readFile(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::optional<FileFacts> factsOf(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
#ifdef __APPLE__
    auto modified = info.st_mtimespec;
#else
    auto modified = info.st_mtim;
#endif
    return FileFacts{readFile(file), static_cast<std::int64_t>(info.st_size),
                     static_cast<std::int64_t>(modified.tv_sec) * 1'000'000'000 + modified.tv_nsec};
}

void writeFile(const fs::path& file, const std::string& contents)
{
    fs::create_directories(file.parent_path());
    std::ofstream outFile(file, std::ios::binary | std::ios::trunc);
    outFile << contents;
}

std::vector<std::string> readLines(const fs::path& file)
{
    std::vector<std::string> lines;
    std::istringstream in(readFile(file));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::optional<std::string>>& environment)
{
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    pid_ = fork();
    if (pid_ == 0) {
        for (auto& [name, value] : environment) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
        int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        close(outPipe[0]);
        close(errPipe[0]);
        std::vector<char*> raw;
        for (auto& arg : argv) {
            raw.push_back(arg.data());
        }
        raw.push_back(nullptr);
        execv(program.c_str(), raw.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    outFd_ = outPipe[0];
    errFd_ = errPipe[0];
}

ChildProcess::~ChildProcess()
{
    if (!reaped_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    if (outFd_ >= 0) {
        close(outFd_);
    }
    if (errFd_ >= 0) {
        close(errFd_);
    }
}

void ChildProcess::signal(int signo)
{
    kill(pid_, signo);
}

ProcessResult ChildProcess::wait(double timeoutSeconds)
{
    ProcessResult result;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    bool outOpen = true;
    bool errOpen = true;
    char buffer[8192];
    while (outOpen || errOpen) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(pid_, SIGKILL);
            break;
        }
        pollfd fds[2] = {{outOpen ? outFd_ : -1, POLLIN, 0}, {errOpen ? errFd_ : -1, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                (i == 0 ? outOpen : errOpen) = false;
            } else {
                (i == 0 ? result.output : result.errors).append(buffer, static_cast<size_t>(n));
            }
        }
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    if (outOpen || errOpen) {
        result.status = -1;
    } else if (WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.status = 128 + WTERMSIG(status);
    }
    return result;
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment, double timeoutSeconds)
{
    ChildProcess child(program, arguments, environment);
    return child.wait(timeoutSeconds);
}

void writeWav(const fs::path& file, int sampleRate, int samples)
{
    auto put32 = [](std::ofstream& out, std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            out.put(static_cast<char>((value >> (8 * i)) & 0xFF));
        }
    };
    auto put16 = [](std::ofstream& out, std::uint16_t value) {
        out.put(static_cast<char>(value & 0xFF));
        out.put(static_cast<char>(value >> 8));
    };
    std::uint32_t dataBytes = static_cast<std::uint32_t>(samples) * 2;
    std::ofstream out(file, std::ios::binary);
    out.write("RIFF", 4);
    put32(out, 36 + dataBytes);
    out.write("WAVEfmt ", 8);
    put32(out, 16);
    put16(out, 1); // PCM
    put16(out, 1); // mono
    put32(out, static_cast<std::uint32_t>(sampleRate));
    put32(out, static_cast<std::uint32_t>(sampleRate) * 2);
    put16(out, 2);
    put16(out, 16);
    out.write("data", 4);
    put32(out, dataBytes);
    for (int i = 0; i < samples; ++i) {
        put16(out, static_cast<std::uint16_t>((i * 97) % 4000));
    }
}

} // namespace quillet::test
