#include "quillet_capture/cli/Console.hpp"

#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace quillet {

std::string toolVersion;
std::string agentLabel;
std::vector<std::string> args;

void out(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void fail(std::string_view text)
{
    std::fflush(stdout);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fputc('\n', stderr);
    runtime::exitProcess(1);
}

std::optional<std::string> option(std::string_view name, const std::vector<std::string>& arguments)
{
    auto found = std::find(arguments.begin(), arguments.end(), name);
    if (found == arguments.end() || std::next(found) == arguments.end()) {
        return std::nullopt;
    }
    return *std::next(found);
}

std::string usageText(System::Platform platform)
{
    if (platform == System::Platform::macOS) {
        return "quillet-capture " + toolVersion + R"( -- Voice Memos to Veldane, without the menu bar app

Usage:
  quillet-capture setup [--vault <folder>] [--no-upload] [--no-keep-voice-memos]
                          [--after-transcript '<command>']
  quillet-capture pair            Connect this Mac to your Veldane account
  quillet-capture install         Start automatically at login (LaunchAgent)
  quillet-capture import-existing [--since YYYY-MM-DD]
                                   Send recordings already in Voice Memos too
  quillet-capture retry           Upload captures that were skipped or failed
  quillet-capture sync            Bring transcripts from your Veldane account into the folder
  quillet-capture uninstall       Remove the LaunchAgent
  quillet-capture status          Show configuration, access and recent log lines
  quillet-capture audit           Account for every recording: captured, waiting or needing you
  quillet-capture config          Show or change one setting: list, get, set, unset, watch, unwatch
  quillet-capture run             Run capture in the foreground (what the LaunchAgent runs)
  quillet-capture version
  quillet-capture help COMMAND    What a command does, its options and an example

--after-transcript runs <command> with /bin/zsh -lc in the folder each time a
transcript is written (env QUILLET_ID, QUILLET_FILE, QUILLET_FOLDER), for example
--after-transcript 'claude -p "/inbox"'. An empty command turns it off.

Typical first run:
  quillet-capture setup        (transcripts go to iCloud Drive/quillet)
  quillet-capture pair
  (grant Full Disk Access to this program, see README)
  quillet-capture install)";
    }
    // The same, in the words of a Linux system: no Mac, no LaunchAgent, no iCloud Drive or Full
    // Disk Access, the shell that the after-transcript command really runs in, and the folder
    // to watch, which Linux does not have by itself.
    return "quillet-capture " + toolVersion + R"( -- Voice Memos to Veldane, without the menu bar app

Usage:
  quillet-capture setup [--vault <folder>] [--watch <folder>] [--no-upload]
                          [--after-transcript '<command>']
  quillet-capture pair            Connect this computer to your Veldane account
  quillet-capture install         Start automatically at login (systemd user unit)
  quillet-capture import-existing [--since YYYY-MM-DD]
                                   Send recordings already in the watched folders too
  quillet-capture retry           Upload captures that were skipped or failed
  quillet-capture sync            Bring transcripts from your Veldane account into the folder
  quillet-capture uninstall       Remove the systemd user unit
  quillet-capture status          Show configuration, access and recent log lines
  quillet-capture audit           Account for every recording: captured, waiting or needing you
  quillet-capture config          Show or change one setting: list, get, set, unset, watch, unwatch
  quillet-capture run             Run capture in the foreground (what the systemd unit runs)
  quillet-capture version
  quillet-capture help COMMAND    What a command does, its options and an example

--after-transcript runs <command> with )" +
           Process::loginShell("").executable + R"( -lc in the folder each time a
transcript is written (env QUILLET_ID, QUILLET_FILE, QUILLET_FOLDER), for example
--after-transcript 'claude -p "/inbox"'. An empty command turns it off.

Typical first run:
  quillet-capture setup --watch <folder>   (transcripts go to ~/Documents/quillet)
  quillet-capture pair
  quillet-capture install)";
}

void usage()
{
    out(usageText());
    runtime::exitProcess(0);
}

std::string localMinute(std::chrono::system_clock::time_point time)
{
    // The zone may have changed since the process started (a test's TZ, a laptop that travelled).
    tzset();
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string plural(int count, const std::string& word)
{
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

} // namespace quillet
