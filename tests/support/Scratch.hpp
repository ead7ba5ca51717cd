#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quillet::test {

/// A fresh scratch folder, removed with everything in it when the value goes away.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// A scratch home folder: `$HOME` points at it (and the XDG variables are cleared) while the
/// value lives, so every path of the program lands inside it.
class ScratchHome {
public:
    ScratchHome();
    ~ScratchHome();

    const std::filesystem::path& path() const { return dir_.path(); }

private:
    ScratchDir dir_;
    std::map<std::string, std::optional<std::string>> saved_;
};

std::string readFile(const std::filesystem::path& file);

/// A file's bytes, size and modification time (to the nanosecond): what a reader must leave
/// as it found it.
struct FileFacts {
    std::string bytes;
    std::int64_t size = -1;
    std::int64_t modifiedNs = 0;
    bool operator==(const FileFacts&) const = default;
};
/// The facts of `file`; nothing when it cannot be looked at.
std::optional<FileFacts> factsOf(const std::filesystem::path& file);
void writeFile(const std::filesystem::path& file, const std::string& contents);

/// Writes a mono 16-bit PCM WAV file of `samples` samples at `sampleRate`: real audio whose
/// length the duration readers can tell.
void writeWav(const std::filesystem::path& file, int sampleRate, int samples);
std::vector<std::string> readLines(const std::filesystem::path& file);

/// The result of running a program to its end.
struct ProcessResult {
    int status = -1;     // exit status, or 128 + signal number
    std::string output;  // standard output
    std::string errors;  // standard error
};

/// Runs `program` with `arguments`, the current environment plus `environment` (a value of
/// nullopt removes the variable), and empty standard input; waits at most `timeoutSeconds`
/// (then kills it and reports status -1).
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment = {},
                         double timeoutSeconds = 60);

/// A started child process that tests can signal and wait for.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::map<std::string, std::optional<std::string>>& environment = {});
    ~ChildProcess();

    int pid() const { return pid_; }
    void signal(int signo);
    /// Waits for the end; returns the result, or status -1 after `timeoutSeconds`.
    ProcessResult wait(double timeoutSeconds = 60);

private:
    int pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    bool reaped_ = false;
};

/// Polls `condition` every 20 ms until it holds or `timeoutSeconds` pass.
template <typename F>
bool eventually(F condition, double timeoutSeconds = 10);

/// The built program.
inline std::string programPath() { return QUILLET_CAPTURE_BINARY; }

} // namespace quillet::test

#include <chrono>
#include <thread>

template <typename F>
bool quillet::test::eventually(F condition, double timeoutSeconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
