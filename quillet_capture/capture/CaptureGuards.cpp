#include "quillet_capture/capture/CaptureGuards.hpp"

#include "quillet_capture/capture/WaveLength.hpp"
#include "quillet_capture/platform/AudioDuration.hpp"

#include <sys/stat.h>
#if __has_include(<xlocale.h>)
#include <xlocale.h> // strtod_l and newlocale on macOS
#endif

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace quillet::CaptureGuards {

namespace {

std::string lowerAscii(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

std::string_view trimBlanks(std::string_view text)
{
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

locale_t cLocale()
{
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

// The whole text as a double in the C locale: an optional sign, decimal or exponent notation,
// "inf", "infinity" or "nan". Anything left over, any leading white space, hexadecimal notation
// or a value beyond the range of a double, and it is not a number.
std::optional<double> readDouble(std::string_view text)
{
    std::string_view digits = text;
    if (!digits.empty() && (digits[0] == '+' || digits[0] == '-')) {
        digits.remove_prefix(1);
    }
    if (digits.empty() || !(std::isdigit(static_cast<unsigned char>(digits[0])) || digits[0] == '.' ||
                            std::isalpha(static_cast<unsigned char>(digits[0])))) {
        return std::nullopt;
    }
    if (digits.size() > 1 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        return std::nullopt;
    }
    // strtod_l needs a terminated string; an embedded NUL then ends the number early, which
    // the check of the end below refuses.
    std::string copy(text);
    char* end = nullptr;
    errno = 0;
    double value = strtod_l(copy.c_str(), &end, cLocale());
    if (end != copy.c_str() + copy.size() || (errno == ERANGE && std::isinf(value))) {
        return std::nullopt;
    }
    return value;
}

constexpr std::string_view kTooShort = "audio too short";

std::string formatted(const char* format, double first, double second)
{
    char text[128];
    std::snprintf(text, sizeof text, format, first, second);
    return text;
}

} // namespace

bool skipsForLength(const Verdict& verdict)
{
    return verdict.kind == Verdict::Kind::skip && verdict.reason.starts_with(kTooShort);
}

std::optional<std::int64_t> defaultSize(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(info.st_size);
}

namespace {

// The modification time, or the status change time, of `file`.
enum class Stamp { modified, statusChanged };

std::optional<TimePoint> fileTime(const std::filesystem::path& file, Stamp which)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
#ifdef __APPLE__
    const timespec& stamp = which == Stamp::modified ? info.st_mtimespec : info.st_ctimespec;
#else
    const timespec& stamp = which == Stamp::modified ? info.st_mtim : info.st_ctim;
#endif
    // A time point holds a limited span (the years 1678 to 2261 where it counts nanoseconds);
    // a date outside it, which only a hand-set time stamp has, is treated as unreadable.
    constexpr auto limit =
        std::chrono::duration_cast<std::chrono::seconds>(TimePoint::duration::max()).count() - 1;
    if (stamp.tv_sec > limit || stamp.tv_sec < -limit) {
        return std::nullopt;
    }
    using std::chrono::duration_cast;
    return TimePoint(duration_cast<TimePoint::duration>(std::chrono::seconds(stamp.tv_sec)) +
                     duration_cast<TimePoint::duration>(std::chrono::nanoseconds(stamp.tv_nsec)));
}

} // namespace

std::optional<TimePoint> defaultModified(const std::filesystem::path& file)
{
    return fileTime(file, Stamp::modified);
}

std::optional<TimePoint> statusChanged(const std::filesystem::path& file)
{
    return fileTime(file, Stamp::statusChanged);
}

bool defaultFileExists(const std::filesystem::path& file)
{
    struct stat info {};
    return ::stat(file.c_str(), &info) == 0;
}

std::optional<double> defaultDuration(const std::filesystem::path& file)
{
    auto measured = AudioDuration::read(file);
    // Recorders that write a WAV file's sizes only when they stop leave 0 (or a placeholder)
    // in its header while the samples are there: the readers believe the header.
    if (auto wave = WaveLength::read(file); wave && (!measured || *wave > *measured)) {
        return wave;
    }
    return measured;
}

std::optional<double> parseDuration(std::string_view afinfoOutput)
{
    size_t start = 0;
    while (start <= afinfoOutput.size()) {
        size_t end = afinfoOutput.find_first_of("\r\n", start);
        if (end == std::string_view::npos) {
            end = afinfoOutput.size();
        }
        std::string_view line = trimBlanks(afinfoOutput.substr(start, end - start));
        if (size_t unit = line.find(" sec"); unit != std::string_view::npos) {
            if (auto value = readDouble(trimBlanks(line.substr(0, unit)))) {
                return value;
            }
        }
        start = end + 1;
    }
    return std::nullopt;
}

bool isStable(const std::filesystem::path& file, std::int64_t initialSize, int tries, Seconds interval,
              const std::function<std::optional<std::int64_t>(const std::filesystem::path&)>& size,
              runtime::Clock& clock)
{
    if (tries < 0) {
        throw std::invalid_argument("CaptureGuards::isStable: tries must not be negative");
    }
    std::int64_t previous = initialSize;
    for (int sample = 0; sample < tries; ++sample) {
        clock.sleep(interval);
        auto current = size(file);
        if (!current) {
            return false;
        }
        if (*current == previous) {
            return true;
        }
        previous = *current;
    }
    return false;
}

namespace {

/// The checks before the stability test (size, empty file, ".qta" recording in progress): the
/// verdict when one decides, else nothing. `size` receives the file's size.
std::optional<Verdict> firstChecks(const std::filesystem::path& file, TimePoint now, const Probes& probes,
                                   std::int64_t& size)
{
    auto sized = probes.size(file);
    if (!sized) {
        return Verdict::defer("cannot stat file");
    }
    size = *sized;
    // An iCloud placeholder that is still being filled; this comes before the .qta checks so
    // that an empty recording is never skipped for its twin.
    if (size == 0) {
        return Verdict::defer("0-byte file, sync in flight");
    }

    std::string extension = file.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);
    }
    if (lowerAscii(extension) == "qta" && !(probes.listed && probes.listed(file))) {
        // A .qta that the library does not list may be a recording in progress, next to which
        // Voice Memos writes the finished .m4a; that .m4a is captured in its own right. A
        // .qta the library lists is a finished recording (a current iPhone keeps most of its
        // recordings in that form).
        auto twin = file;
        twin.replace_extension("m4a");
        if (probes.fileExists(twin)) {
            return Verdict::skip(twin.filename().string() + " is the canonical twin");
        }
        if (auto modified = probes.modified(file)) {
            double age = std::chrono::duration<double>(now - *modified).count();
            if (age < qtaMinAge) {
                return Verdict::defer(formatted("young .qta (%.0fs < %.0fs), may still be recording", age, qtaMinAge));
            }
        }
    }
    return std::nullopt;
}

} // namespace

Verdict evaluate(const std::filesystem::path& file, TimePoint now, const Probes& probes, runtime::Clock& clock)
{
    return evaluateAll({file}, now, probes, clock).front();
}

std::vector<Verdict> evaluateAll(const std::vector<std::filesystem::path>& files, TimePoint now, const Probes& probes,
                                 runtime::Clock& clock)
{
    std::vector<std::optional<Verdict>> decided(files.size());
    // The size of each file still under the stability test, at its last sample.
    std::vector<std::optional<std::int64_t>> sampling(files.size());
    for (std::size_t index = 0; index < files.size(); ++index) {
        std::int64_t size = 0;
        decided[index] = firstChecks(files[index], now, probes, size);
        if (!decided[index]) {
            sampling[index] = size;
        }
    }

    // The size-stability test, for all of them at once: each round sleeps once and samples
    // every file still under test; a file whose sample equals its last one is stable, one
    // whose size cannot be read is not.
    const auto stable = [&](std::size_t index) { decided[index] = Verdict::proceed(); sampling[index].reset(); };
    const auto unstable = [&](std::size_t index) {
        decided[index] = Verdict::defer("size still changing");
        sampling[index].reset();
    };
    if (probes.stabilitySampler) {
        for (std::size_t index = 0; index < files.size(); ++index) {
            if (sampling[index]) {
                probes.stabilitySampler(files[index]) ? stable(index) : unstable(index);
            }
        }
    }
    for (int round = 0; round < stabilityTries; ++round) {
        if (std::none_of(sampling.begin(), sampling.end(), [](const auto& size) { return size.has_value(); })) {
            break;
        }
        clock.sleep(stabilityInterval);
        for (std::size_t index = 0; index < files.size(); ++index) {
            if (!sampling[index]) {
                continue;
            }
            auto current = probes.size(files[index]);
            if (!current) {
                unstable(index);
            } else if (*current == *sampling[index]) {
                stable(index);
            } else {
                sampling[index] = current;
            }
        }
    }

    std::vector<Verdict> verdicts;
    verdicts.reserve(files.size());
    for (std::size_t index = 0; index < files.size(); ++index) {
        if (sampling[index]) {
            unstable(index);  // still changing after the last sample
        }
        auto verdict = std::move(*decided[index]);
        // An absent duration (the reader failed) lets the file through: better an upload the
        // service rejects than a recording that is never captured.
        if (verdict.kind == Verdict::Kind::proceed) {
            if (auto duration = probes.duration(files[index]); duration && *duration < minDuration) {
                verdict = Verdict::skip(std::string(kTooShort) +
                                        formatted(" (%.2fs < %.2fs)", *duration, minDuration));
            }
        }
        verdicts.push_back(std::move(verdict));
    }
    return verdicts;
}

} // namespace quillet::CaptureGuards
