#pragma once

#include "quillet_capture/platform/System.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The program's version, set at the start of main.
extern std::string toolVersion;
/// The background agent's label: LaunchAgent label and the base name of its definition.
extern std::string agentLabel;
/// The command line without the program path; `args[0]` is the command word.
extern std::vector<std::string> args;

/// Writes `text` and a line feed to standard output.
void out(std::string_view text = "");

/// Writes `text` and a line feed to standard error and ends the process with status 1 (after
/// the log has drained). Only commands call it.
[[noreturn]] void fail(std::string_view text);

/// "1 capture", "2 captures": `count` and `word`, with an "s" unless the count is one.
std::string plural(int count, const std::string& word);

/// The element right after the first one equal to `name`; absent when `name` is missing or
/// last. A value that starts with "--" is returned as it is.
std::optional<std::string> option(std::string_view name, const std::vector<std::string>& arguments);

/// `time` as the person's clock shows it, to the minute: "2026-11-26 09:05" in the current
/// time zone.
std::string localMinute(std::chrono::system_clock::time_point time);

/// The usage text of `platform`, without the final line feed. The Linux text names Linux's
/// own things (the systemd user unit, the shell that runs the after-transcript command).
std::string usageText(System::Platform platform = System::currentPlatform);

/// Prints the usage text and ends the process with status 0.
[[noreturn]] void usage();

} // namespace quillet
