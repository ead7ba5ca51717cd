#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The Voice Memos recordings the agent has met, by the library's id: which capture each one
/// became, so that one recording makes one note whatever its files do (an ".m4a" joining its
/// ".qta", a rename, a move to another folder), and whether its audio or title changed since.
/// Kept in "identities.json" beside the state file, rewritten atomically and durably on every
/// change before the changing call returns. Any thread.
class CaptureIdentities {
public:
    struct Entry {
        /// The capture's id; "" for a recording that was there before capture was set up
        /// and is not captured unless the person imports it.
        std::string canonicalId;
        std::string fileName;  // the file it was captured from
        std::string digest;    // the library's digest of the audio captured; "" when none
        std::string title;     // the library's title when the note was written or last retitled
        bool operator==(const Entry&) const = default;
    };

    /// The agent's identities, beside the state file.
    static CaptureIdentities& shared();

    /// Identities kept in `file`, read once now (a missing or unreadable file is empty).
    explicit CaptureIdentities(std::filesystem::path file);

    /// The entry of the library id `uniqueId`; nothing when the recording was never met.
    std::optional<Entry> find(std::string_view uniqueId) const;

    /// Records (adds or replaces) the entries, in one write.
    void record(const std::vector<std::pair<std::string, Entry>>& entries);

    /// Forgets the entries of `uniqueIds` (a deliberate import of old recordings), in one
    /// write; returns how many there were.
    std::size_t forget(const std::vector<std::string>& uniqueIds);

    /// Every entry, by library id.
    std::map<std::string, Entry, std::less<>> all() const;

    /// Waits for a write under way and keeps later changes in memory only: the process ends.
    void close();

private:
    void persistLocked();

    mutable std::mutex lock_;
    bool closed_ = false;
    std::filesystem::path file_;
    std::map<std::string, Entry, std::less<>> entries_;
};

} // namespace quillet
