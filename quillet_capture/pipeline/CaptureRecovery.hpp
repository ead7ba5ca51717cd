#pragma once

#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// When the agent tries again, by itself, a capture that failed: a copy or stub that could
/// not be written, an upload that failed, a transcript that could not be fetched, a capture
/// that the service reported failed or did not finish in time. Each capture's attempts and
/// next attempt are kept in `recovery.json` beside the state file, so that a restart neither
/// forgets nor resets them (a capture that always fails cannot make the agent hammer the
/// service). The pause grows: about 1, 2, 5, 15, 30 and 60 minutes, then hourly. A capture
/// the service reported failed is tried again at most `maxServiceFailures` times, then
/// waits for `retry`. Any thread.
class CaptureRecovery {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    struct Entry {
        int attempts = 0;
        int serviceFailures = 0;        // of the attempts, those the service reported failed
        std::optional<TimePoint> next;  // none: in progress, or waiting for `retry`
        std::string reason;             // the job status (or "copy_failed", "fetch_failed")

        bool operator==(const Entry&) const = default;
    };

    /// What `status` shows.
    struct Summary {
        int waiting = 0;                // captures with a next attempt
        std::optional<TimePoint> next;  // the earliest of those
        int givenUp = 0;                // captures that wait for `retry`
        std::vector<std::string> unreadableNotes;  // captures whose note the person must fix
    };

    static constexpr int maxServiceFailures = 3;
    /// The reason of a capture whose note does not parse: its transcript waits beside the note
    /// until the person fixes it, and is written in at the next attempt after that.
    static constexpr const char* noteUnreadable = "note_unreadable";

    /// The pause before attempt `attempts` + 1, in units of `minute`.
    static std::chrono::seconds pauseAfter(int attempts, std::chrono::seconds minute = std::chrono::minutes(1));

    /// The agent's, on `recovery.json` in the state folder.
    static CaptureRecovery& shared();

    /// On `file` (read now; a file that cannot be read counts as empty), with the time of
    /// `clock`, which must outlive it.
    explicit CaptureRecovery(std::filesystem::path file, runtime::Clock& clock = runtime::systemClock());

    /// The length of a minute of the schedule (tests shorten it).
    void setMinute(std::chrono::seconds minute);

    /// Records a failure of `id` for `reason` and writes the file. Returns when the next
    /// attempt is due, or none when the capture now waits for `retry`.
    std::optional<TimePoint> failed(const std::string& id, const std::string& reason);
    /// Forgets `id` (its capture ended well, or `retry` takes it over) and writes the file.
    void forget(const std::string& id);
    /// The captures whose attempt is due at `now`, each marked in progress (no next attempt
    /// until it fails again), and writes the file.
    std::vector<std::string> takeDue(TimePoint now);
    /// True when `id` must not be tried before `now`: its next attempt is later, or it waits
    /// for `retry`.
    bool isWaiting(const std::string& id, TimePoint now) const;
    /// The earliest next attempt of any capture.
    std::optional<TimePoint> earliest() const;
    Summary summary() const;

    std::map<std::string, Entry> entries() const;

    /// Waits for a write under way and makes every later change stay in memory: the process
    /// is ending, and a write cut off by its end would leave a temporary file behind.
    void close();

private:
    void persistLocked();

    std::filesystem::path file_;
    runtime::Clock& clock_;
    std::chrono::seconds minute_{60};
    mutable std::mutex lock_;
    std::map<std::string, Entry> entries_;
    bool closed_ = false;
};

} // namespace quillet
