// Shared pieces of the pipeline benchmarks: a fake Veldane service in a child process (so that
// its threads and memory are not counted as the program's), a scratch home with a stored
// token, and readings of /proc.
#pragma once

#include "bench/BenchCommon.hpp"
#include "tests/support/FakeVeldane.hpp"

#include <nlohmann/json.hpp>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace bench {

namespace fs = std::filesystem;

/// A fake service answering every upload with a fresh cache key, every status question with
/// `statusWord`, and every source request with a short transcript. It runs in a forked child,
/// so call `start` before the process has any other thread.
class ForkedFake {
public:
    static ForkedFake start(const std::string& statusWord)
    {
        int fds[2];
        check(::pipe(fds) == 0, "pipe");
        pid_t pid = ::fork();
        check(pid >= 0, "fork");
        if (pid == 0) {
            ::close(fds[0]);
            serve(statusWord, fds[1]);
        }
        ::close(fds[1]);
        int port = 0;
        check(::read(fds[0], &port, sizeof port) == static_cast<ssize_t>(sizeof port), "read port");
        ::close(fds[0]);
        return ForkedFake(pid, port);
    }

    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_) + "/api/v1"; }

    void stop()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    ForkedFake(pid_t pid, int port) : pid_(pid), port_(port) {}

    [[noreturn]] static void serve(const std::string& statusWord, int portPipe)
    {
        using quillet::test::FakeVeldane;
        auto* fake = new FakeVeldane();
        auto counter = std::make_shared<std::atomic<int>>(0);
        std::string status = nlohmann::json{{"status", {{"transcription", {{"status", statusWord}}}}}}.dump();
        fake->fallback([counter, status](const FakeVeldane::Request& request) {
            if (request.method == "POST" && request.endpoint == "sources") {
                return FakeVeldane::Answer::json(R"({"status":"queued","cache_key":"ck_)" +
                                                 std::to_string(++*counter) + R"("})");
            }
            if (request.endpoint.ends_with("/status")) {
                return FakeVeldane::Answer::json(status);
            }
            std::string key = request.endpoint.substr(std::string("sources/").size());
            return FakeVeldane::Answer::json(nlohmann::json{{"success", true},
                                                            {"cache_key", key},
                                                            {"result",
                                                             {{"text", "a short transcript of a short memo"},
                                                              {"language", "en"},
                                                              {"duration", 1.5}}}}
                                                 .dump());
        });
        int port = fake->port();
        (void)::write(portPipe, &port, sizeof port);
        ::close(portPipe);
        for (;;) {
            ::pause();
        }
    }

    pid_t pid_;
    int port_;
};

/// The "Key: value" lines of /proc/<pid>/status ("self" for this process).
inline std::map<std::string, std::string> procStatus(const std::string& pid = "self")
{
    std::map<std::string, std::string> values;
    std::ifstream in("/proc/" + pid + "/status");
    for (std::string line; std::getline(in, line);) {
        auto colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        auto value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(" \t"));
        values[line.substr(0, colon)] = value;
    }
    return values;
}

/// A /proc status value in kB ("VmRSS", "VmHWM") as MiB.
inline double mebibytes(const std::map<std::string, std::string>& status, const std::string& key)
{
    auto found = status.find(key);
    return found == status.end() ? 0 : std::atof(found->second.c_str()) / 1024.0;
}

inline int threads(const std::map<std::string, std::string>& status)
{
    auto found = status.find("Threads");
    return found == status.end() ? 0 : std::atoi(found->second.c_str());
}

/// User plus system CPU seconds of a process, from /proc/<pid>/stat.
inline double cpuSeconds(const std::string& pid)
{
    std::ifstream in("/proc/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold blanks; the fields start after its closing parenthesis.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14 || index == 15) {
            ticks += std::atof(field.c_str());
        }
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// CPU seconds run by all threads of a process, from /proc/<pid>/task/*/schedstat (nanosecond
/// resolution, where /proc/<pid>/stat counts clock ticks of 10 ms). Threads that have ended
/// are not counted.
inline double scheduledSeconds(const std::string& pid)
{
    double total = 0;
    std::error_code error;
    for (const auto& task : fs::directory_iterator("/proc/" + pid + "/task", error)) {
        std::ifstream in(task.path() / "schedstat");
        double nanoseconds = 0;
        if (in >> nanoseconds) {
            total += nanoseconds / 1e9;
        }
    }
    return total;
}

/// A value in kB of /proc/<pid>/smaps_rollup ("Pss", "Pss_Anon") as MiB.
inline double rollupMebibytes(const std::string& pid, const std::string& key)
{
    std::ifstream in("/proc/" + pid + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key + ":")) {
            return std::atof(line.c_str() + key.size() + 1) / 1024.0;
        }
    }
    return 0;
}

/// CPU time of the calling thread, in seconds.
inline double threadCpuSeconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

} // namespace bench
