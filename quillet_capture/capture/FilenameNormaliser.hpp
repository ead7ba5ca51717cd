#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quillet {

/// Reads the start time out of a Voice Memos file name ("20240131 142530-3F2A9C1B.m4a") and
/// writes start times as canonical ids ("240131-142530"). Pure and re-entrant: any thread.
namespace FilenameNormaliser {

using TimePoint = std::chrono::system_clock::time_point;

/// What a Voice Memos file name says about its recording.
struct Parsed {
    /// The recording's start, read as local wall-clock time of the current time zone.
    TimePoint timestamp;
    /// The hexadecimal suffix as it stands in the name (case kept); empty when there is none.
    std::string hexId;

    bool operator==(const Parsed&) const = default;
};

/// Parses a bare file name (the last path component, not a path) of the form
/// "yyyyMMdd<white space>HHmmss[-<hex>].m4a", or ".qta" (the form a current iPhone keeps most
/// recordings in). Absent when the name does not have that form (the extension must be
/// lower-case "m4a" or "qta") or when its date and time do not exist in the
/// current time zone (month 13, hour 25, a wall-clock time skipped by a daylight-saving
/// change, a year beyond what a time point holds). Never fails otherwise.
std::optional<Parsed> parse(std::string_view name);

/// The canonical id of `time`: its local wall-clock time in the current time zone (`TZ` is
/// re-read on every call) written "yyMMdd-HHmmss" with ASCII digits, always 13 characters.
std::string canonicalId(TimePoint time);

} // namespace FilenameNormaliser

/// The canonical id of a recording's start time, for callers that have no file name (the
/// backfill sync); the same text as `FilenameNormaliser::canonicalId(time)`. Any thread.
std::string recordingCanonicalID(FilenameNormaliser::TimePoint time);

} // namespace quillet
