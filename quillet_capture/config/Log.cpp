#include "quillet_capture/config/Log.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <map>

namespace quillet {

namespace {

constexpr std::uintmax_t kRotateAbove = 5'000'000;
// The most of one text (a file name, a service's answer) that a log line carries.
constexpr std::size_t kLongestText = 2048;

std::string formatNumber(const std::string& spec, char conversion, const LogArg& arg)
{
    char buffer[128];
    if (conversion == 'd' || conversion == 'i' || conversion == 'u' || conversion == 'x' || conversion == 'X') {
        long long number = 0;
        if (auto* integer = std::get_if<long long>(&arg.value)) {
            number = *integer;
        } else if (auto* real = std::get_if<double>(&arg.value)) {
            number = static_cast<long long>(*real);
        } else {
            return std::get<std::string>(arg.value);
        }
        std::string format = spec + "ll" + conversion;
        std::snprintf(buffer, sizeof buffer, format.c_str(), number);
        return buffer;
    }
    double number = 0;
    if (auto* real = std::get_if<double>(&arg.value)) {
        number = *real;
    } else if (auto* integer = std::get_if<long long>(&arg.value)) {
        number = static_cast<double>(*integer);
    } else {
        return std::get<std::string>(arg.value);
    }
    std::string format = spec + conversion;
    std::snprintf(buffer, sizeof buffer, format.c_str(), number);
    return buffer;
}

std::string formatText(const LogArg& arg)
{
    if (auto* text = std::get_if<std::string>(&arg.value)) {
        // An error page of megabytes, logged at every poll, would push every other line out
        // of both log generations.
        return Utf8::cut(*text, kLongestText);
    }
    if (auto* integer = std::get_if<long long>(&arg.value)) {
        return std::to_string(*integer);
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%g", std::get<double>(arg.value));
    return buffer;
}

runtime::SerialQueue& logQueue()
{
    // Never destroyed: lines may still be queued while the process ends.
    static auto* queue = [] {
        auto* created = new runtime::SerialQueue("quillet.log");
        runtime::addExitHook([] { QuilletLog::drain(); });
        return created;
    }();
    return *queue;
}

struct Notices {
    std::mutex lock;
    std::map<std::string, EnvironmentCheck::Reach> notified;
    std::function<void(const EnvironmentCheck::Notice&)> listener;
};

Notices& notices()
{
    static Notices instance;
    return instance;
}

} // namespace

std::string formatLog(std::string_view format, std::initializer_list<LogArg> args)
{
    std::string result;
    result.reserve(format.size() + 32);
    auto next = args.begin();
    for (size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c != '%') {
            result += c;
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            result += '%';
            ++i;
            continue;
        }
        // %[flags][width][.precision][length]conversion
        size_t j = i + 1;
        std::string spec = "%";
        while (j < format.size() && std::string_view("-+ #0'").find(format[j]) != std::string_view::npos) {
            spec += format[j++];
        }
        while (j < format.size() && std::isdigit(static_cast<unsigned char>(format[j]))) {
            spec += format[j++];
        }
        if (j < format.size() && format[j] == '.') {
            spec += format[j++];
            while (j < format.size() && std::isdigit(static_cast<unsigned char>(format[j]))) {
                spec += format[j++];
            }
        }
        while (j < format.size() && std::string_view("hlqjzt").find(format[j]) != std::string_view::npos) {
            ++j; // length modifiers: every integer is formatted as long long
        }
        if (j >= format.size()) {
            result.append(format.substr(i));
            break;
        }
        char conversion = format[j];
        if (std::string_view("@sdiuxXfFgGeE").find(conversion) == std::string_view::npos) {
            result.append(format.substr(i, j - i + 1));
            i = j;
            continue;
        }
        if (next == args.end()) {
            result += "(null)";
        } else if (conversion == '@' || conversion == 's') {
            result += formatText(*next++);
        } else {
            result += formatNumber(spec, conversion, *next++);
        }
        i = j;
    }
    return result;
}

void rlogMessage(const std::string& message, Echo echo)
{
    // One line of UTF-8 whatever the message holds: a file name with a line break cannot
    // forge a line, and one that is not UTF-8 cannot keep status from showing the log.
    const std::string safe = Utf8::escapedLine(message);
    System::systemLog(safe);
    if (echo == Echo::always || QuilletLog::echoesToStandardError()) {
        std::string line = safe + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    QuilletLog::write(safe);
}

namespace QuilletLog {

namespace {
std::atomic<bool> echo{true};
} // namespace

void echoToStandardError(bool on)
{
    echo = on;
}

bool echoesToStandardError()
{
    return echo;
}

std::filesystem::path fileURL()
{
    return Paths::logFile();
}

std::string stamp(std::chrono::system_clock::time_point time)
{
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    long offset = local.tm_gmtoff;
    std::string result = text;
    if (offset == 0) {
        return result + "Z";
    }
    char zone[40];
    long minutes = (offset < 0 ? -offset : offset) / 60;
    std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return result + zone;
}

void append(const std::filesystem::path& file, const std::string& line)
{
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && static_cast<std::uintmax_t>(info.st_size) > kRotateAbove) {
        auto rotated = file.parent_path() / "quillet.1.log";
        std::filesystem::remove(rotated, ignored);
        std::filesystem::rename(file, rotated, ignored);
    }
    // O_APPEND keeps whole lines whole when the menu-bar app appends at the same time.
    int fd = openRegularFile(file, O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (fd < 0) {
        // Only the log's queue runs this.
        static bool told = false;
        if (errno == EINVAL && !told) {
            told = true;
            std::string text = "[quillet] log: " + Utf8::escapedLine(file.string()) +
                               " is not a regular file; log lines go to standard error only\n";
            std::fwrite(text.data(), 1, text.size(), stderr);
        }
        return;
    }
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written <= 0) {
            if (written < 0 && errno == EINTR) {
                continue;
            }
            break;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
    ::close(fd);
}

void write(const std::string& message)
{
    std::string line = stamp(std::chrono::system_clock::now()) + " " + message + "\n";
    logQueue().async([line = std::move(line)] { append(fileURL(), line); });
}

void drain()
{
    logQueue().drain();
}

} // namespace QuilletLog

namespace EnvironmentCheck {

void setListener(std::function<void(const Notice&)> listener)
{
    auto& state = notices();
    std::lock_guard guard(state.lock);
    state.listener = std::move(listener);
}

void notifyOnce(const std::string& id, const std::string& title, const std::string& body, Reach reach)
{
    auto& state = notices();
    std::function<void(const Notice&)> listener;
    {
        std::lock_guard guard(state.lock);
        if (!state.notified.emplace(id, reach).second) {
            return;
        }
        if (reach == Reach::listener) {
            listener = state.listener;
        }
    }
    rlog("[quillet] attention: %@ -- %@", title, body);
    if (listener) {
        listener(Notice{id, title, body, false});
    }
}

bool clearNotifyOnce(const std::string& id)
{
    auto& state = notices();
    std::lock_guard guard(state.lock);
    return state.notified.erase(id) > 0;
}

void resolve(const std::string& id, const std::string& title, const std::string& body)
{
    auto& state = notices();
    std::function<void(const Notice&)> listener;
    {
        std::lock_guard guard(state.lock);
        auto found = state.notified.find(id);
        if (found == state.notified.end()) {
            return;
        }
        if (found->second == Reach::listener) {
            listener = state.listener;
        }
        state.notified.erase(found);
    }
    rlog("[quillet] resolved: %@ -- %@", title, body);
    if (listener) {
        listener(Notice{id, title, body, true});
    }
}

} // namespace EnvironmentCheck

} // namespace quillet
