#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// One recording as the Voice Memos library lists it: plain values, no database in sight.
struct LibraryRecording {
    using TimePoint = std::chrono::system_clock::time_point;

    std::string uniqueId;               // the library's stable id of the recording
    std::string fileName;               // its audio file in the Recordings folder; "" when none
    std::optional<TimePoint> date;      // when it was recorded
    std::optional<double> duration;     // seconds
    bool deleted = false;               // in Recently Deleted
    std::string title;                  // the name the person gave it; "" when none
    std::string folder;                 // the Voice Memos folder it is in; "" when none
    std::string digest;                 // the library's digest of its audio (hex); "" when none

    bool operator==(const LibraryRecording&) const = default;
};

/// The Voice Memos library ("CloudRecordings.db", an SQLite database that Voice Memos keeps in
/// its Recordings folder): what it knows of each recording, read without ever writing to it.
/// The database is opened read-only where it lies when its write-ahead log is there (so rows
/// not yet checkpointed are seen); otherwise, or when that open is refused, byte copies of its
/// files in a private folder are read. Its columns are probed at every read, as they shift
/// between releases. A library that cannot be read is never an error: `health` says why, and
/// the rows of the last good read stay. Not synchronised: one owner, one thread at a time.
class VoiceMemosLibrary {
public:
    using TimePoint = LibraryRecording::TimePoint;

    /// The library's file name in the Recordings folder.
    static constexpr std::string_view fileName = "CloudRecordings.db";

    /// What the last look at the library found.
    enum class Health {
        absent,         // no library in the folder
        unreadable,     // there, but this program may not read it (no Full Disk Access)
        locked,         // busy in Voice Memos at the last look; looked at again at the next
        corrupt,        // not a database, or a damaged one
        unknownSchema,  // a database without the recordings table this program knows
        readable,
    };

    /// The agent's private folder for copies of the library, beside its state file.
    static std::filesystem::path defaultCopies();

    /// The library of the Recordings folder `folder`. `privateFolder` is where copies are
    /// read when the database cannot be opened in place (created when needed).
    VoiceMemosLibrary(std::filesystem::path folder, std::filesystem::path privateFolder);

    /// Looks at the library's files and reads its rows again only when they changed since
    /// the last read, or when that read found it locked: an unchanged library costs two
    /// `stat` calls. Returns true when the rows or the health changed. Blocks for at most a
    /// short busy wait; never throws.
    bool refresh();

    Health health() const { return health_; }
    /// SQLite's or the system's words for the last failure; "" when readable.
    const std::string& detail() const { return detail_; }
    /// One line for people: "readable, 12 recordings" or why it is not.
    std::string summary() const;

    /// The rows of the last good read, in the library's order.
    const std::vector<LibraryRecording>& recordings() const { return recordings_; }
    /// The recording whose file is `name`; nothing when none lists it.
    const LibraryRecording* byFile(std::string_view name) const;
    /// The recording whose file has the base name of `name` with another extension (the
    /// ".m4a" and ".qta" forms of one recording); nothing when none, or when `byFile` has it.
    const LibraryRecording* byTwin(std::string_view name) const;
    /// The recording `uniqueId`; nothing when none.
    const LibraryRecording* byId(std::string_view uniqueId) const;

    /// The recordings waiting for iCloud to bring their audio, oldest first: listed, not in
    /// Recently Deleted, recorded at or after `since` (when given), unknown to `known` (by
    /// library id), and with no file among `present` (file names in the Recordings folder,
    /// where either form of the recording counts).
    std::vector<const LibraryRecording*> waitingForDownload(const std::set<std::string, std::less<>>& present,
                                                            const std::function<bool(const std::string&)>& known,
                                                            std::optional<TimePoint> since) const;

    /// How many times the rows were read (for tests and benchmarks of an unchanged library).
    int reads() const { return reads_; }

    /// The database file.
    std::filesystem::path databaseFile() const { return folder_ / fileName; }

    /// The seconds of a Core Data date (since 2001-01-01 UTC) as a time point.
    static TimePoint fromLibraryDate(double seconds);
    /// The hex text of `bytes`, lower-case.
    static std::string hex(std::string_view bytes);

private:
    struct Stamp {
        std::int64_t size = -1;
        std::int64_t modified = 0;
        std::uint64_t inode = 0;
        bool operator==(const Stamp&) const = default;
    };
    static std::optional<Stamp> stampOf(const std::filesystem::path& file);
    std::pair<std::optional<Stamp>, std::optional<Stamp>> stamps() const;

    enum class Outcome { read, failed, refused };
    /// Reads every row through the database at `database` (the library, opened read-only, or
    /// a private copy); sets `health_` and `detail_`. `refused` when SQLite cannot open the
    /// library in place, and leaves the health alone then.
    Outcome readFrom(const std::filesystem::path& database, std::vector<LibraryRecording>& rows);
    /// Reads private byte copies of the library's files.
    Outcome readCopy(std::vector<LibraryRecording>& rows);
    void index();
    const LibraryRecording* find(const std::vector<std::uint32_t>& positions,
                                 std::string_view (*key)(const LibraryRecording&), std::string_view wanted) const;

    std::filesystem::path folder_;
    std::filesystem::path privateFolder_;
    Health health_ = Health::absent;
    std::string detail_;
    std::optional<std::pair<std::optional<Stamp>, std::optional<Stamp>>> readStamps_;
    bool looked_ = false;
    int reads_ = 0;
    std::vector<LibraryRecording> recordings_;
    /// Positions in `recordings_`, sorted by file name, by file name without its extension,
    /// and by id.
    std::vector<std::uint32_t> byFile_;
    std::vector<std::uint32_t> byStem_;
    std::vector<std::uint32_t> byId_;
};

} // namespace quillet
