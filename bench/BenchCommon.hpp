// What every benchmark needs: a scratch home, medians and verdicts, timing a child process,
// and the notes of a typical inbox.
#pragma once

#include "quillet_capture/vault/InboxWriter.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace bench {

namespace fs = std::filesystem;

inline void check(bool ok, const char* what)
{
    if (!ok) {
        std::perror(what);
        std::exit(1);
    }
}

/// The peak resident size in a `rusage` (from getrusage or wait4), in KiB: the field counts
/// KiB on Linux and bytes on macOS.
inline long peakKiB(const rusage& usage)
{
#if defined(__APPLE__)
    return usage.ru_maxrss / 1024;
#else
    return usage.ru_maxrss;
#endif
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline const char* verdict(bool pass)
{
    return pass ? "PASS" : "FAIL";
}

/// A fresh folder named `name`-XXXXXX in `parent` (default: the temporary folder).
inline fs::path scratchFolder(const char* name, const fs::path& parent = fs::temp_directory_path())
{
    std::string pattern = (parent / (std::string(name) + "-XXXXXX")).string();
    check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    return pattern;
}

/// A scratch home: $HOME points at a fresh folder and the token store is a file in it.
inline fs::path scratchHome(const char* name)
{
    fs::path home = scratchFolder(name);
    ::setenv("HOME", home.c_str(), 1);
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        ::unsetenv(variable);
    }
    ::setenv("QUILLET_TOKEN_STORE", "file", 1);
    return home;
}

/// How a child process ran.
struct Spawned {
    double seconds = 0;     // wall-clock time from spawn to exit
    double cpuSeconds = 0;  // its user and system time
    long peakKiB = 0;       // its peak resident memory
    int status = -1;        // its exit status, or 128 + the signal that ended it
};

/// Runs `arguments` (the program found through PATH) to its end, its standard output and
/// error sent to /dev/null.
inline Spawned spawnAndWait(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        std::perror(argv[0]);
        std::exit(1);
    }
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    Spawned run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    run.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    run.peakKiB = peakKiB(usage);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

/// Note `i` of a typical inbox: one in ten still queued, one in ten failed, the others done
/// with a transcript of 2 to 40 KB.
inline std::string sampleNote(int i, std::mt19937& random)
{
    char id[32];
    std::snprintf(id, sizeof id, "24%02d%02d-%06d", 1 + i % 12, 1 + i % 28, i);
    auto fm = quillet::InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
    fm.status = "pending";
    std::string body;
    switch (random() % 10) {
    case 0:
        fm.vdJobStatus = "queued";
        break;
    case 1:
        fm.vdJobStatus = "upload_failed";
        break;
    default: {
        fm.vdJobStatus = "done";
        fm.externalId = "DOC_" + std::to_string(random());
        fm.audioDurationSec = static_cast<int64_t>(random() % 3600);
        fm.title = "Weekly sync: notes " + std::to_string(i);
        fm.tags = {"voice-memo", "quillet-mac"};
        size_t length = 2'000 + random() % 38'000;
        static const std::string words = "and the meeting was about the plan for next quarter so we ";
        while (body.size() < length) {
            body += words;
        }
    }
    }
    return quillet::InboxWriter::renderMarkdown(fm, body);
}

} // namespace bench
