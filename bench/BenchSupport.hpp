// Shared pieces of the pipeline benchmarks: a fake Veldane service in a child process (so that
// its threads and memory are not counted as the program's), a scratch home with a stored
// token, and what the system reports of a process (/proc on Linux, libproc on macOS).
#pragma once

#include "bench/BenchCommon.hpp"
#include "tests/support/FakeVeldane.hpp"

#include <nlohmann/json.hpp>

#include <signal.h>
#include <sys/wait.h>
#if defined(__APPLE__)
#include <libproc.h>
#include <mach/mach_time.h>
#include <sys/resource.h>
#endif
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
#include <optional>
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

/// What the system reports of a running process ("self" or a process id). Nothing when it
/// cannot be read, so that a benchmark fails instead of passing on zeros.
struct ProcessReading {
    double residentMiB = 0;
    /// Linux: the resident high-water mark; macOS: the largest physical footprint, the nearest
    /// figure that the system keeps.
    double peakMiB = 0;
    int threads = 0;
    /// CPU time of the process (Linux: of its living threads, to the nanosecond).
    double cpuSeconds = 0;
    /// Linux only: the resident memory that is the program's own, the mapped files, and the
    /// proportional share (smaps_rollup's Pss).
    std::optional<double> anonymousMiB;
    std::optional<double> fileMiB;
    std::optional<double> proportionalMiB;
};

#if defined(__APPLE__)

inline std::optional<ProcessReading> readProcess(const std::string& pid = "self")
{
    pid_t id = pid == "self" ? ::getpid() : static_cast<pid_t>(std::atol(pid.c_str()));
    proc_taskinfo task{};
    if (::proc_pidinfo(id, PROC_PIDTASKINFO, 0, &task, sizeof task) != static_cast<int>(sizeof task)) {
        return std::nullopt;
    }
    rusage_info_v4 usage{};
    if (::proc_pid_rusage(id, RUSAGE_INFO_V4, reinterpret_cast<rusage_info_t*>(&usage)) != 0) {
        return std::nullopt;
    }
    // The task's times are in Mach absolute time units, which are not nanoseconds on Apple silicon.
    mach_timebase_info_data_t timebase{};
    ::mach_timebase_info(&timebase);
    double units = static_cast<double>(task.pti_total_user + task.pti_total_system);
    ProcessReading reading;
    reading.residentMiB = static_cast<double>(task.pti_resident_size) / (1024.0 * 1024.0);
    reading.peakMiB = static_cast<double>(usage.ri_lifetime_max_phys_footprint) / (1024.0 * 1024.0);
    reading.threads = task.pti_threadnum;
    reading.cpuSeconds = units * timebase.numer / timebase.denom / 1e9;
    return reading;
}

#else

/// The "Key: value" lines of /proc/<pid>/status ("self" for this process).
inline std::map<std::string, std::string> procStatus(const std::string& pid)
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

/// A value in kB of /proc/<pid>/smaps_rollup ("Pss", "Pss_Anon") as MiB.
inline std::optional<double> rollupMebibytes(const std::string& pid, const std::string& key)
{
    std::ifstream in("/proc/" + pid + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key + ":")) {
            return std::atof(line.c_str() + key.size() + 1) / 1024.0;
        }
    }
    return std::nullopt;
}

/// CPU seconds run by the living threads of a process, from /proc/<pid>/task/*/schedstat
/// (nanosecond resolution, where /proc/<pid>/stat counts clock ticks of 10 ms).
inline std::optional<double> scheduledSeconds(const std::string& pid)
{
    double total = 0;
    std::error_code error;
    bool any = false;
    for (const auto& task : fs::directory_iterator("/proc/" + pid + "/task", error)) {
        std::ifstream in(task.path() / "schedstat");
        double nanoseconds = 0;
        if (in >> nanoseconds) {
            total += nanoseconds / 1e9;
            any = true;
        }
    }
    return any ? std::optional<double>(total) : std::nullopt;
}

inline std::optional<ProcessReading> readProcess(const std::string& pid = "self")
{
    auto status = procStatus(pid);
    auto kibibytes = [&status](const std::string& key) -> std::optional<double> {
        auto found = status.find(key);
        return found == status.end() ? std::nullopt : std::optional<double>(std::atof(found->second.c_str()) / 1024.0);
    };
    auto resident = kibibytes("VmRSS");
    auto peak = kibibytes("VmHWM");
    auto threads = status.find("Threads");
    auto cpu = scheduledSeconds(pid);
    if (!resident || !peak || threads == status.end() || !cpu) {
        return std::nullopt;
    }
    ProcessReading reading;
    reading.residentMiB = *resident;
    reading.peakMiB = *peak;
    reading.threads = std::atoi(threads->second.c_str());
    reading.cpuSeconds = *cpu;
    reading.anonymousMiB = kibibytes("RssAnon");
    reading.fileMiB = kibibytes("RssFile");
    reading.proportionalMiB = rollupMebibytes(pid, "Pss");
    return reading;
}

#endif

/// `readProcess`, or the end of the benchmark with a failure when the system tells nothing.
inline ProcessReading measure(const std::string& pid = "self")
{
    auto reading = readProcess(pid);
    check(reading.has_value(), ("reading process " + pid + " (unmeasured)").c_str());
    return *reading;
}

/// CPU time of the calling thread, in seconds.
inline double threadCpuSeconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

} // namespace bench
