#pragma once

#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// Decides whether a new file in a watched folder is ready to be captured: not empty, not a
/// recording still in progress, no longer growing, and long enough to be worth it.
namespace CaptureGuards {

using TimePoint = std::chrono::system_clock::time_point;
using Seconds = std::chrono::duration<double>;

/// A ".qta" file younger than this may still be recording.
inline constexpr double qtaMinAge = 600.0;
/// Audio shorter than this (seconds) is not worth capturing.
inline constexpr double minDuration = 0.5;
/// The size-stability test: this many samples, this far apart.
inline constexpr int stabilityTries = 5;
inline constexpr Seconds stabilityInterval{2.0};

/// The outcome of `evaluate`. Verdicts compare by kind and reason.
struct Verdict {
    enum class Kind {
        defer,   // not ready yet: leave the file unseen and look again at the next poll
        skip,    // never capture this file: mark it seen
        proceed, // capture now
    };

    Kind kind = Kind::proceed;
    std::string reason; // empty for `proceed`

    static Verdict defer(std::string reason) { return {Kind::defer, std::move(reason)}; }
    static Verdict skip(std::string reason) { return {Kind::skip, std::move(reason)}; }
    static Verdict proceed() { return {Kind::proceed, {}}; }

    bool operator==(const Verdict&) const = default;
};

/// True when `verdict` skips a file for its audio's length (too short, or no samples at all):
/// a verdict on the file as it is now, which a file that changes may no longer earn.
bool skipsForLength(const Verdict& verdict);

/// The file's size in bytes (following a symbolic link); absent when it cannot be read.
std::optional<std::int64_t> defaultSize(const std::filesystem::path& file);

/// The file's modification time (following a symbolic link); absent when it cannot be read.
std::optional<TimePoint> defaultModified(const std::filesystem::path& file);

/// The time the file's status last changed (following a symbolic link): for a folder, when
/// an entry was last created, removed or renamed in it, a time no copy tool can set back.
/// Absent when it cannot be read.
std::optional<TimePoint> statusChanged(const std::filesystem::path& file);

/// Whether something exists at `file` (a dangling symbolic link does not count).
bool defaultFileExists(const std::filesystem::path& file);

/// The audio duration in seconds: `/usr/bin/afinfo -b` on macOS, TagLib's audio properties on
/// Linux; for a WAVE file, the length of the samples it holds when that is longer than its
/// header says (`WaveLength`). Absent when the file cannot be read as audio. Blocks; any thread.
std::optional<double> defaultDuration(const std::filesystem::path& file);

/// Reads a duration out of the text that `afinfo -b` prints: the number before " sec" on the
/// first line that has one. Absent when no line yields a number. Pure; any thread.
std::optional<double> parseDuration(std::string_view afinfoOutput);

/// The file-system probes of `evaluate`. The defaults read the real file; tests script them.
struct Probes {
    std::function<bool(const std::filesystem::path&)> fileExists = defaultFileExists;
    std::function<std::optional<std::int64_t>(const std::filesystem::path&)> size = defaultSize;
    std::function<std::optional<TimePoint>(const std::filesystem::path&)> modified = defaultModified;
    std::function<std::optional<double>(const std::filesystem::path&)> duration = defaultDuration;
    /// When set, replaces the inline size sampling: false means "still changing".
    std::function<bool(const std::filesystem::path&)> stabilitySampler;
    /// When set, true for a file that the Voice Memos library lists as a finished recording:
    /// a ".qta" it lists is captured like any other file, with no twin or age rule.
    std::function<bool(const std::filesystem::path&)> listed;
};

/// Runs the checks in order (size, empty file, ".qta" recording in progress unless the library
/// lists it, size stability, duration) and returns the first verdict that decides, else `proceed`. `now` is the current
/// time for the age of a ".qta" file. Without a stability sampler the size is sampled inline:
/// up to `stabilityTries` sleeps of `stabilityInterval` on `clock`, blocking the caller for up
/// to 10 seconds. Never fails: a probe that cannot read the file defers it. Called on the
/// capture coordinator's queue; any thread may call it.
Verdict evaluate(const std::filesystem::path& file, TimePoint now, const Probes& probes = {},
                 runtime::Clock& clock = runtime::systemClock());

/// `evaluate` for several files at once, with the same verdict per file, in the order of
/// `files`: their sizes are sampled together, so that one stability wait (up to
/// `stabilityTries` sleeps of `stabilityInterval` in all, not per file) serves them all.
std::vector<Verdict> evaluateAll(const std::vector<std::filesystem::path>& files, TimePoint now,
                                 const Probes& probes = {}, runtime::Clock& clock = runtime::systemClock());

/// The size-stability test on its own: up to `tries` times, sleeps `interval` on `clock` and
/// samples `size(file)`; true as soon as a sample equals the one before it (the first is
/// compared with `initialSize`), false on an absent sample or after `tries` samples without a
/// match, and false at once when `tries` is 0. Throws std::invalid_argument for a negative
/// `tries`. Blocks the caller; any thread.
bool isStable(const std::filesystem::path& file, std::int64_t initialSize, int tries = stabilityTries,
              Seconds interval = stabilityInterval,
              const std::function<std::optional<std::int64_t>(const std::filesystem::path&)>& size = defaultSize,
              runtime::Clock& clock = runtime::systemClock());

} // namespace CaptureGuards

} // namespace quillet
