#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace quillet {

/// The vault's own record of the notes and audio copies the program made in its inbox, kept in
/// "_inbox/.audio/.ledger.jsonl" beside the copies: one JSON object per line, appended and
/// flushed to disk, never rewritten. It travels with the vault, so it outlives the agent's
/// state files, and it is what tells a note the person removed (made here, gone now) from a
/// note that was never made.
///
/// Lines: {"event":"made"} when a note was written (with its recording's folder, file name
/// and Voice Memos id, and the note's date), {"event":"copy"} when an audio copy was written
/// or replaced (its SHA-256 and size), {"event":"key"} when the note got the service's key of
/// its transcript, {"event":"restored"} when the person asked for a removed note back. A line
/// that does not parse (one cut off by a crash) is skipped. Stateless: every call reads or
/// appends the file. Any thread; appends are single writes of whole lines.
class NoteLedger {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// Where a note's recording came from.
    struct Source {
        std::string folderId;  // the watched folder's id; "" when not from a folder
        std::string name;      // the file's name in it
        std::string voiceMemosId = {};
    };

    /// What the ledger says of one note, folded from its lines.
    struct Record {
        std::optional<TimePoint> made;      // the last time its note was written anew
        std::optional<TimePoint> created;   // the note's date
        Source source;
        std::string sha256;                  // the copy as last written; "" when none
        std::uintmax_t size = 0;
        std::optional<TimePoint> copied;
        std::set<std::string> externalIds;  // every key of the service the note carried
        std::optional<TimePoint> restored;  // the last time the person asked for it back
        bool restorePending = false;        // asked back, and not written since
    };

    /// The ledger of the vault at `vaultRoot`.
    explicit NoteLedger(std::filesystem::path vaultRoot);

    /// vaultRoot + "_inbox/.audio/.ledger.jsonl".
    const std::filesystem::path& file() const { return file_; }

    /// Records that the note of `id` was written anew (created: the note's date), with the
    /// service's key of its transcript when it has one already. With `flush` false the line is
    /// not flushed to the disk: the caller flushes the file system once for many notes.
    void noteMade(std::string_view id, const Source& source, TimePoint created, TimePoint at,
                  std::string_view externalId = {}, bool flush = true) const;
    /// Records that the copy of `id` now holds `size` bytes of digest `sha256`.
    void copyWritten(std::string_view id, std::string_view sha256, std::uintmax_t size, TimePoint at) const;
    /// Records that the note of `id` carries the service's key `externalId`.
    void keyRecorded(std::string_view id, std::string_view externalId) const;
    /// Records that the person asked for the removed note of `id` back.
    void restored(std::string_view id, TimePoint at) const;

    /// Every note the ledger knows, by id. A missing or unreadable file gives none.
    std::map<std::string, Record> read() const;

    /// True when the note of `id` was made here and is no longer in the inbox (the person
    /// deleted or moved it), and was not asked back since. Reads the file.
    bool removedByPerson(std::string_view id) const;

    /// `removedByPerson` for a record already read.
    static bool removedByPerson(const std::filesystem::path& note, const Record& record);

private:
    /// Appends one line; a failure is logged, never thrown: the note it records is written.
    void append(const std::string& line, bool flush = true) const;

    std::filesystem::path vaultRoot_;
    std::filesystem::path file_;
};

} // namespace quillet
