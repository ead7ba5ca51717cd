// Shared pieces of the benchmarks that run the built agent: a scratch home set up for `run`
// (a vault, the Voice Memos folder watched, uploads off), starting the program, and reading
// its log.
#pragma once

#include "bench/BenchCommon.hpp"

#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

namespace bench {

/// A scratch home (see `scratchHome`) whose settings have the agent watch the Voice Memos
/// folder (made empty) and copy into `home`/vault, with uploads off. Returns the Voice Memos
/// folder.
inline fs::path agentHome(const char* name)
{
    auto home = scratchHome(name);
    fs::path memos = quillet::Paths::voiceMemosCandidates().at(0);
    fs::create_directories(memos);
    auto settings = quillet::AppSettings::defaults();
    settings.vaultPath = (home / "vault").string();
    settings.vaultName = "vault";
    settings.captureVoiceMemosEnabled = true;
    settings.captureVeldaneEnabled = false;
    settings.keepVoiceMemosRunning = false;
    settings.watchedFoldersRaw = std::vector{quillet::WatchedFolder::voiceMemos(true)};
    fs::create_directories(quillet::Paths::settingsFile().parent_path());
    std::ofstream(quillet::Paths::settingsFile()) << settings.toJSON().dump(2);
    return memos;
}

/// Starts `binary` with one argument, its standard output and error sent to /dev/null.
inline pid_t spawnProgram(const char* binary, const char* argument)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>(binary), const_cast<char*>(argument), nullptr};
    pid_t pid = 0;
    check(posix_spawn(&pid, binary, &actions, nullptr, argv, environ) == 0, "posix_spawn");
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/// True when the agent's log holds `text`.
inline bool logHas(const std::string& text)
{
    std::ifstream in(quillet::Paths::logFile());
    std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return contents.find(text) != std::string::npos;
}

/// Waits up to `seconds` for the log to hold `text`; exits the benchmark when it does not.
inline void waitForLog(const std::string& text, double seconds, const char* what)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!logHas(text) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    check(logHas(text), what);
}

/// The number of notes in the vault's inbox.
inline int noteCount(const fs::path& home)
{
    int count = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(home / "vault" / "_inbox", error)) {
        count += entry.path().extension() == ".md" ? 1 : 0;
    }
    return count;
}

/// Waits up to a minute for the vault of `home` to hold `count` notes and returns the seconds
/// since `start`; exits the benchmark when they do not come.
inline double secondsToNotes(const fs::path& home, int count, std::chrono::steady_clock::time_point start)
{
    while (noteCount(home) < count && std::chrono::steady_clock::now() - start < std::chrono::seconds(60)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    check(noteCount(home) == count, "the recording's note within a minute");
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// A recording's name in the Voice Memos folder: "20240301 HHMMSS.m4a", one second apart.
inline std::string memoName(int index)
{
    char name[32];
    std::snprintf(name, sizeof name, "20240301 %02d%02d%02d.m4a", index / 3600, index / 60 % 60, index % 60);
    return name;
}

} // namespace bench
