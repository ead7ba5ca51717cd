#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// What `shell` returns: the child's termination status (its exit code, or the number of the
/// signal that ended it; -1 when it could not be started) and everything it wrote.
struct ShellResult {
    std::int32_t status = -1;
    std::string output;
};

/// Runs the executable at `path` with `arguments` directly (no shell, the agent's own
/// environment), standard output and standard error into one pipe, standard input from the
/// null device; reads the pipe to its end and waits for the child. The output is decoded as
/// UTF-8 and is empty when the bytes are not valid UTF-8. When the child cannot be started
/// the status is -1 and the output is the reason. Blocks the caller; any thread.
ShellResult shell(const std::string& path, const std::vector<std::string>& arguments);

/// The absolute path of this program with symbolic links resolved, as the system reports
/// the executable that runs (no search-path lookup): a relative report is joined to the
/// working folder first. Any thread.
std::string executablePath();

/// Child processes and this process's own executable.
namespace Process {

/// Thrown by `spawn`; what() is the reason, such as "/bin/zsh: No such file or directory".
class SpawnError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Whether a child gets a process group of its own, so that it and everything it starts can
/// be signalled together.
enum class Group { inherit, own };

struct SpawnOptions {
    /// Entries added to (or replacing those of) the agent's environment.
    std::map<std::string, std::string> environment;
    /// The child's working folder; the agent's own when absent.
    std::optional<std::filesystem::path> workingFolder;
    Group group = Group::inherit;
};

/// A started child: its process id and the reading end of the pipe that receives its
/// standard output and standard error. The caller closes `output` and reaps `pid`.
struct Child {
    pid_t pid = -1;
    int output = -1;
};

/// Starts the executable at `path` (not searched for) with `arguments`; its standard input is
/// the null device. Throws SpawnError when it cannot be started. Any thread.
Child spawn(const std::string& path, const std::vector<std::string>& arguments, const SpawnOptions& options = {});

/// The termination status of a `waitpid` status word: the exit code, or the signal number.
int terminationStatus(int waitStatus);

/// Waits for `pid` to end (retrying interrupted waits) and returns its `waitpid` status word.
int waitFor(pid_t pid);

/// The first executable file called `name` in the folders of `$PATH` (the system's default
/// search path when unset); nothing when there is none.
std::optional<std::string> findInPath(const std::string& name);

/// What to do with bytes that are not valid UTF-8.
enum class InvalidUtf8 { empty, repair };

/// `bytes` as UTF-8 text: unchanged when valid; otherwise empty, or with each invalid
/// sequence replaced by U+FFFD.
std::string outputText(std::string_view bytes, InvalidUtf8 policy);

/// An executable and its arguments.
struct Command {
    std::string executable;
    std::vector<std::string> arguments;
};

/// How to run `text` through the user's login shell: "/bin/zsh -lc <text>" on macOS; on
/// Linux the same when /bin/zsh exists, else "/bin/bash -lc <text>".
Command loginShell(const std::string& text);

/// The executable of this process as the system reports it; may be relative on macOS.
std::string startedExecutable();

/// This process's environment as children inherit it (`environ`; on macOS, where `environ`
/// is only reliable in the main executable, `_NSGetEnviron()`). Any thread; the array changes
/// with setenv and unsetenv.
char** environment();

} // namespace Process
} // namespace quillet
