#pragma once

#include "quillet_capture/library/VoiceMemosLibrary.hpp"

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// The journal of recordings that the watcher has handed over but whose stub note is not yet
/// written. The watcher marks a file seen before the pipeline has made its note, so without
/// this journal a crash in between would lose the recording for good: the next start finds it
/// here and hands it over again. Kept in "intake.json" beside the state file, rewritten
/// atomically and durably on every change. Any thread.
class CaptureIntake {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    struct Entry {
        std::string folderId;
        std::string name;         // the file's name in its folder
        std::filesystem::path source;
        std::string canonicalId;
        TimePoint timestamp;      // the recording's start
        bool grown = false;       // captured before under `canonicalId`, and grown since
        /// What the Voice Memos library knew of the recording when it was handed over.
        std::optional<LibraryRecording> recording = {};
        bool operator==(const Entry&) const = default;
    };

    /// The agent's journal, beside the state file.
    static CaptureIntake& shared();

    /// A journal in `file`, read once now (a missing or unreadable file is an empty journal).
    explicit CaptureIntake(std::filesystem::path file);

    /// Records `entry` (replacing one for the same folder and name) and writes the journal
    /// before returning. A failed write is logged; the entry stays in memory.
    void add(const Entry& entry);

    /// The same for several entries, in one write.
    void add(const std::vector<Entry>& entries);

    /// Forgets the entry of `name` in `folderId` under `canonicalId`, if any, and writes the
    /// journal. An entry of the same name under another id (another recording under that
    /// name, handed over meanwhile) stays.
    void remove(const std::string& folderId, const std::string& name, const std::string& canonicalId);

    /// True when an entry is under `canonicalId`.
    bool holds(const std::string& canonicalId) const;

    /// The entries, oldest first.
    std::vector<Entry> entries() const;

    /// Waits for a write under way and makes every later change stay in memory: the process
    /// is ending, and a write cut off by its end would leave a temporary file behind.
    void close();

private:
    void persistLocked();

    mutable std::mutex lock_;
    bool closed_ = false;
    std::filesystem::path file_;
    std::vector<Entry> entries_;
};

} // namespace quillet
