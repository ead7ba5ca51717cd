#pragma once

#include "quillet_capture/cli/CommandLine.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// The command table: every command, its options and its help, in the order in which words
/// are matched.
const std::vector<Command>& commandTable();

/// Runs the command named by `args[0]` (exact, case-sensitive) and ends the process; an
/// unknown or missing word prints the usage. The rest of the line is read against the
/// command's row first: help asked anywhere prints the command's help and does nothing else,
/// and a line the command does not take is refused with one line on standard error and
/// status 2 before anything happens. Log lines reach standard error only for `run` or with
/// "--verbose". Never returns.
[[noreturn]] void dispatch();

/// The commands. Each runs on the main thread.
[[noreturn]] void cmdRun();
/// Writes the agent definition and loads it; ends through `fail` when it cannot.
void cmdInstall();
/// Unloads the agent and deletes its definition; always succeeds.
void cmdUninstall();

/// Runs `body` with the background agent stopped and restarts it afterwards (when it is
/// installed), printing why when it cannot. Main thread.
void withAgentStopped(const std::function<void()>& body);

/// `setup`: chooses the vault, creates its inbox, writes the settings and prints a summary.
/// Options are read from `arguments` (the whole command line, command word included); ends
/// the process through `fail` when the inbox cannot be created.
void cmdSetup(const std::vector<std::string>& arguments);

/// After the settings file was saved: when an agent runs on this state folder, waits up to
/// three seconds for it to take the new file and says whether it did. Prints nothing when no
/// agent runs. Main thread.
void tellRunningAgent();

/// `config list [--json] | get KEY | set KEY VALUE | unset KEY | watch PATH | unwatch PATH`:
/// shows or changes one setting of the settings file (the keys of `SettingKeys`), checked as
/// setup checks it and saved atomically, then tells a running agent. `arguments` is the whole
/// command line. Ends with status 2 and one line on standard error for an unknown key, a bad
/// value, a change before any setup or an unknown subcommand; the file is then untouched.
void cmdConfig(const std::vector<std::string>& arguments);

/// Pairs this computer with a Veldane account (device-code sign-in in the browser) and stores
/// the token; the flow runs as a task while the main thread runs the main loop. Ends the
/// process: status 0 when paired, through `fail` otherwise.
[[noreturn]] void cmdPair();

/// `status`: prints the program and configuration in use, the watched folders, upload,
/// pairing, Voice Memos and agent state, the inbox count, the folder access that the agent
/// last logged and the tail of the log; with "--json" among `arguments` (the whole command
/// line, command word included) the same facts as one JSON object. Other arguments are
/// ignored. Reads only; nothing in it fails. Main thread.
void cmdStatus(const std::vector<std::string>& arguments);

/// The inbox line of `status` for the inbox of the settings: "<n> transcribed, <n> in
/// progress, <n> other", then " -- <n> can be sent with: quillet-capture retry" when captures
/// wait for a retry; "no _inbox yet" when the inbox cannot be listed. Main thread.
std::string inboxSummary();

/// Prints a warning on standard output when uploading is switched on but no device token is
/// readable. Never stops the command. Main thread.
void requirePairedForUpload();

/// `retry`: uploads again, with the agent stopped, the captures whose upload was skipped or
/// failed, printing each; exits 0 whatever the uploads' outcome. Ends through `fail` without
/// settings or token. `retry --restore ID` instead brings back the note `ID` that the person
/// removed from the inbox (`cmdRestore`). `arguments` is the whole command line. Never returns.
[[noreturn]] void cmdRetry(const std::vector<std::string>& arguments);
/// Brings back the removed note `id`: remembers that the person asked for it, then, with the
/// agent stopped, writes its note again from its audio copy for the agent to upload (or, when
/// only the service has it, leaves it to the next `sync`). Ends through `fail` when `id` is no
/// removed note or nothing of it is left. Never returns.
[[noreturn]] void cmdRestore(const std::string& id);

/// `import-existing [--since YYYY-MM-DD]`: with the agent stopped, queues the recordings
/// already in Voice Memos (from that day on) for the agent to capture. `arguments` is the
/// whole command line. Exits 1 when the folder cannot be read. Never returns.
[[noreturn]] void cmdImportExisting(const std::vector<std::string>& arguments);

/// `audit [--all] [--since DAY] [--verify] [--json]`: accounts for every recording (see
/// CaptureAudit) and prints them grouped by state, or as JSON. Ends the process: status 0 when
/// nothing needs the person, 1 when something does, 2 for a usage or setup error. Writes
/// nothing. `arguments` is the whole command line. Never returns.
[[noreturn]] void cmdAudit(const std::vector<std::string>& arguments);
/// `sync`: brings the transcripts of the Veldane library that the vault lacks into its inbox,
/// printing progress; runs as a task while the main thread runs the main loop. Exits 1 when
/// the library cannot be listed or any item failed. Never returns.
[[noreturn]] void cmdSync();

/// The value of "--since" in `arguments` as local midnight of that day; absent without the
/// option (or without its value). Ends the process through `fail` when it is not a date.
std::optional<std::chrono::system_clock::time_point> parseSince(const std::vector<std::string>& arguments);

/// Local midnight (current time zone) of the day written "yyyy-MM-dd" (month and day may have
/// one digit); absent when the text is not such a day, or one beyond what the clock holds.
std::optional<std::chrono::system_clock::time_point> parseLocalDay(const std::string& text);

} // namespace quillet
