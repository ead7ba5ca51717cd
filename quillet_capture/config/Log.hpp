#pragma once

#include <chrono>
#include <concepts>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace quillet {

/// One argument of a log format: text for "%@" (and "%s"), an integer for "%d", a number for
/// "%g", "%f" and friends. A mismatch is converted rather than misread.
struct LogArg {
    std::variant<std::string, long long, double> value;

    LogArg(std::string_view text) : value(std::string(text)) {}
    LogArg(const std::string& text) : value(text) {}
    LogArg(const char* text) : value(std::string(text ? text : "(null)")) {}
    LogArg(const std::filesystem::path& path) : value(path.string()) {}
    template <std::integral T>
        requires(!std::same_as<T, bool> && !std::same_as<T, char>)
    LogArg(T number) : value(static_cast<long long>(number))
    {
    }
    template <std::floating_point T>
    LogArg(T number) : value(static_cast<double>(number))
    {
    }
    LogArg(bool flag) : value(std::string(flag ? "YES" : "NO")) {}
};

/// Formats `format` printf-style with `args`: "%@", "%s", "%d", "%i", "%u", "%ld", "%lld",
/// "%zu", "%x", "%f", "%g", "%e" with flags, width and precision, and "%%". Arguments are
/// inserted once and never re-read as formats.
std::string formatLog(std::string_view format, std::initializer_list<LogArg> args);

/// Where a log line goes besides the system log and the log file.
enum class Echo {
    asSet,  ///< to standard error when `QuilletLog::echoToStandardError` is on
    always, ///< to standard error whatever the command: news of the person's own files
};

/// Sends a finished message to the system log, the log file and (see `Echo`) standard error.
void rlogMessage(const std::string& message, Echo echo = Echo::asSet);

/// The one logging call: formats the message, writes it to the system log and standard error,
/// and queues its append to the log file. Returns at once; never fails. Any thread.
template <typename... Args>
void rlog(std::string_view format, const Args&... args)
{
    rlogMessage(formatLog(format, {LogArg(args)...}));
}

/// `rlog` for what the person must hear of even from a one-shot command that keeps its log
/// lines off the terminal: a settings file that cannot be used, a token file made private.
template <typename... Args>
void rlogNotice(std::string_view format, const Args&... args)
{
    rlogMessage(formatLog(format, {LogArg(args)...}), Echo::always);
}

/// The log file shared with the menu-bar app.
namespace QuilletLog {

/// Where the log file is (read by `status`).
std::filesystem::path fileURL();

/// Stamps `message` now, on the caller's thread, and queues the append on the serial queue
/// "quillet.log". Returns at once.
void write(const std::string& message);

/// Whether log lines are also written to standard error (they always go to the system log and
/// the log file). On by default; the one-shot commands turn it off unless asked for their log
/// lines, so that the terminal shows their answers. Any thread.
void echoToStandardError(bool on);
bool echoesToStandardError();

/// Waits until every line queued so far is in the file. Every way the process ends calls it.
void drain();

/// The time stamp of a log line: ISO 8601 in the local time zone with a colon in the offset,
/// "Z" at offset zero, no fractional seconds.
std::string stamp(std::chrono::system_clock::time_point time);

/// Appends `line` to the log file at `file`, rotating first when the file holds more than
/// 5,000,000 bytes. Errors are swallowed. Runs on the log queue; exposed for tests.
void append(const std::filesystem::path& file, const std::string& line);

} // namespace QuilletLog

/// One "attention" line per problem per process, and the one way a problem reaches whoever
/// listens for it (the running agent's desktop notifications).
namespace EnvironmentCheck {

/// Whom a notice reaches besides the log.
enum class Reach { logOnly, listener };

/// A notice as the listener hears it: raised by `notifyOnce`, or `resolved` by `resolve`.
struct Notice {
    std::string id;
    std::string title;
    std::string body;
    bool resolved = false;
};

/// Sets the one listener (none: an empty function), called on the caller's thread of
/// `notifyOnce` and `resolve`, under no lock of theirs. It must return quickly. Any thread.
void setListener(std::function<void(const Notice&)> listener);

/// Logs "[quillet] attention: <title> -- <body>" the first time `id` is seen, and then tells
/// the listener when `reach` says so; later calls with the same id do nothing until
/// `clearNotifyOnce(id)` or `resolve(id, ...)`. Any thread.
void notifyOnce(const std::string& id, const std::string& title, const std::string& body,
                Reach reach = Reach::listener);

/// Forgets `id`, so that the next `notifyOnce` with it logs again. True when it was raised.
/// Any thread.
bool clearNotifyOnce(const std::string& id);

/// Forgets `id` as `clearNotifyOnce` does; when it was raised, logs "[quillet] resolved:
/// <title> -- <body>" and, when the notice reached the listener, tells it. Nothing when `id`
/// was not raised. Any thread.
void resolve(const std::string& id, const std::string& title, const std::string& body);

} // namespace EnvironmentCheck

} // namespace quillet
