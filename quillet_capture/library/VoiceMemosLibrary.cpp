#include "quillet_capture/library/VoiceMemosLibrary.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <sqlite3.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <set>

namespace quillet {

namespace fs = std::filesystem;

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of Core Data's dates.
constexpr double kLibraryEpoch = 978307200.0;
// A busy library is looked at again at the next poll: capture never waits on it for longer.
constexpr int kBusyMilliseconds = 100;

// Columns that name the recording's title, the first non-empty one wins. Older libraries
// have only some of them.
constexpr const char* kTitleColumns[] = {"ZENCRYPTEDTITLE", "ZCUSTOMLABELFORSORTING", "ZCUSTOMLABEL"};

struct Database {
    sqlite3* handle = nullptr;
    ~Database() { sqlite3_close_v2(handle); }
};

struct Statement {
    sqlite3_stmt* handle = nullptr;
    ~Statement() { sqlite3_finalize(handle); }
};

std::set<std::string> columnsOf(sqlite3* db, const char* table, int& status)
{
    std::set<std::string> columns;
    Statement statement;
    // The table's name is one of this file's constants, never text from the database.
    status = sqlite3_prepare_v2(db, (std::string("PRAGMA table_info(") + table + ")").c_str(), -1,
                                &statement.handle, nullptr);
    if (status != SQLITE_OK) {
        return columns;
    }
    while ((status = sqlite3_step(statement.handle)) == SQLITE_ROW) {
        if (const auto* name = sqlite3_column_text(statement.handle, 1)) {
            columns.insert(reinterpret_cast<const char*>(name));
        }
    }
    if (status == SQLITE_DONE) {
        status = SQLITE_OK;
    }
    return columns;
}

std::string textOf(sqlite3_stmt* statement, int column)
{
    int type = sqlite3_column_type(statement, column);
    if (type == SQLITE_NULL) {
        return {};
    }
    if (type == SQLITE_BLOB) {
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
        return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                     : std::string();
    }
    const auto* text = sqlite3_column_text(statement, column);
    return text ? std::string(reinterpret_cast<const char*>(text),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}

// Text that goes into a note or names a file: only a text value (bytes of a BLOB are no text).
std::string textOnly(sqlite3_stmt* statement, int column)
{
    return sqlite3_column_type(statement, column) == SQLITE_TEXT ? textOf(statement, column) : std::string();
}

std::optional<double> numberOf(sqlite3_stmt* statement, int column)
{
    int type = sqlite3_column_type(statement, column);
    if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) {
        return std::nullopt;
    }
    double value = sqlite3_column_double(statement, column);
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::string lastComponent(std::string path)
{
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string_view stemView(std::string_view name)
{
    auto dot = name.find_last_of('.');
    return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

// Copies `source` to `target` byte by byte: a plain read and write, never a clone or a copy
// that the file system might report as a change of the source.
bool copyBytes(const fs::path& source, const fs::path& target)
{
    int in = openRegularFile(source, O_RDONLY);
    if (in < 0) {
        return false;
    }
    int out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out < 0) {
        ::close(in);
        return false;
    }
    char buffer[1 << 16];
    bool ok = true;
    for (;;) {
        ssize_t got = ::read(in, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            ok = got == 0;
            break;
        }
        for (ssize_t done = 0; done < got;) {
            ssize_t put = ::write(out, buffer + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                ok = false;
                break;
            }
            done += put;
        }
        if (!ok) {
            break;
        }
    }
    ::close(in);
    ok = ::close(out) == 0 && ok;
    return ok;
}

} // namespace

VoiceMemosLibrary::VoiceMemosLibrary(fs::path folder, fs::path privateFolder)
    : folder_(std::move(folder))
    , privateFolder_(std::move(privateFolder))
{
}

fs::path VoiceMemosLibrary::defaultCopies()
{
    return Paths::stateFile().parent_path() / "voice-memos-library";
}

VoiceMemosLibrary::TimePoint VoiceMemosLibrary::fromLibraryDate(double seconds)
{
    auto since1970 = std::chrono::duration<double>(seconds + kLibraryEpoch);
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(since1970));
}

std::string VoiceMemosLibrary::hex(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::optional<VoiceMemosLibrary::Stamp> VoiceMemosLibrary::stampOf(const fs::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
#ifdef __APPLE__
    const timespec& modified = info.st_mtimespec;
#else
    const timespec& modified = info.st_mtim;
#endif
    return Stamp{static_cast<std::int64_t>(info.st_size),
                 static_cast<std::int64_t>(modified.tv_sec) * 1'000'000'000 + modified.tv_nsec,
                 static_cast<std::uint64_t>(info.st_ino)};
}

std::pair<std::optional<VoiceMemosLibrary::Stamp>, std::optional<VoiceMemosLibrary::Stamp>>
VoiceMemosLibrary::stamps() const
{
    auto database = databaseFile();
    return {stampOf(database), stampOf(fs::path(database.string() + "-wal"))};
}

bool VoiceMemosLibrary::refresh()
{
    auto before = stamps();
    if (looked_ && readStamps_ && *readStamps_ == before && health_ != Health::locked) {
        return false;
    }
    const auto oldHealth = health_;
    const auto oldDetail = detail_;
    looked_ = true;
    std::vector<LibraryRecording> rows;
    bool read = false;
    if (!before.first) {
        std::error_code error;
        bool there = fs::exists(databaseFile(), error) || error.value() == EACCES;
        health_ = there ? Health::unreadable : Health::absent;
        detail_ = there ? std::strerror(EACCES) : "";
    } else {
        const auto database = databaseFile();
        std::error_code error;
        // In place only where Voice Memos' own write-ahead log and its index are there: a
        // read-only open without them would create them beside its database.
        bool inPlace = fs::exists(database.string() + "-wal", error) && fs::exists(database.string() + "-shm", error);
        auto outcome = inPlace ? readFrom(database, rows) : Outcome::refused;
        if (outcome == Outcome::refused) {
            rows.clear();
            outcome = readCopy(rows);
        }
        read = outcome == Outcome::read;
    }
    if (health_ == Health::locked) {
        // Not remembered as read: the next refresh reads again.
        readStamps_.reset();
    } else {
        readStamps_ = before;
    }
    bool changed = health_ != oldHealth || detail_ != oldDetail;
    if (read) {
        if (rows != recordings_) {
            recordings_ = std::move(rows);
            index();
            changed = true;
        }
    }
    return changed;
}

VoiceMemosLibrary::Outcome VoiceMemosLibrary::readCopy(std::vector<LibraryRecording>& rows)
{
    // A folder of this process's own: the agent and a command such as `status` may read at
    // the same moment.
    std::error_code error;
    const auto folder = privateFolder_ / ("read-" + std::to_string(::getpid()));
    fs::remove_all(folder, error);
    fs::create_directories(folder, error);
    const auto database = databaseFile();
    const auto copy = folder / fileName;
    struct Removed {
        fs::path folder;
        ~Removed()
        {
            std::error_code ignored;
            fs::remove_all(folder, ignored);
        }
    } removed{folder};
    // The copies are consistent only when the library did not change while they were made.
    for (int attempt = 0; attempt < 3; ++attempt) {
        auto before = stamps();
        if (!before.first) {
            health_ = Health::absent;
            detail_.clear();
            return Outcome::failed;
        }
        if (!copyBytes(database, copy)) {
            int error = errno;
            health_ = error == EACCES || error == EPERM ? Health::unreadable : Health::corrupt;
            detail_ = std::strerror(error);
            return Outcome::failed;
        }
        if (before.second && !copyBytes(fs::path(database.string() + "-wal"), fs::path(copy.string() + "-wal"))) {
            continue;
        }
        if (stamps() != before) {
            continue;
        }
        auto outcome = readFrom(copy, rows);
        if (outcome == Outcome::refused) {
            health_ = Health::unreadable;
            return Outcome::failed;
        }
        return outcome;
    }
    health_ = Health::locked;
    detail_ = "changing while it was read";
    return Outcome::failed;
}

VoiceMemosLibrary::Outcome VoiceMemosLibrary::readFrom(const fs::path& databasePath,
                                                       std::vector<LibraryRecording>& rows)
{
    const bool isCopy = databasePath.parent_path().parent_path() == privateFolder_;
    Database db;
    // The library itself is opened read-only; a private copy read-write, so that SQLite can
    // take its write-ahead log in.
    int flags = isCopy ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
    int status = sqlite3_open_v2(databasePath.c_str(), &db.handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    auto fail = [&](int code) {
        int primary = code & 0xFF;
        detail_ = db.handle ? sqlite3_errmsg(db.handle) : sqlite3_errstr(code);
        if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) {
            health_ = Health::locked;
        } else if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) {
            health_ = Health::corrupt;
        } else if (primary == SQLITE_PERM || primary == SQLITE_AUTH ||
                   (primary == SQLITE_CANTOPEN && ::access(databasePath.c_str(), R_OK) != 0)) {
            health_ = Health::unreadable;
        } else {
            // A read-only open that SQLite cannot make here (its index file not writable and
            // the like): the caller reads a copy.
            return Outcome::refused;
        }
        return Outcome::failed;
    };
    if (status != SQLITE_OK) {
        return fail(status);
    }
    sqlite3_extended_result_codes(db.handle, 1);
    sqlite3_busy_timeout(db.handle, kBusyMilliseconds);
    // One pass over the rows needs no page cache: a few pages keep the agent's memory as it
    // was (the default cache, 2 MiB, would stay in the process's heap after every read).
    sqlite3_exec(db.handle, "PRAGMA cache_size = 8", nullptr, nullptr, nullptr);

    auto recordingColumns = columnsOf(db.handle, "ZCLOUDRECORDING", status);
    if (status != SQLITE_OK) {
        return fail(status);
    }
    if (!recordingColumns.contains("ZUNIQUEID") || !recordingColumns.contains("ZPATH")) {
        health_ = Health::unknownSchema;
        detail_ = recordingColumns.empty() ? "no table ZCLOUDRECORDING" : "ZCLOUDRECORDING without ZUNIQUEID or ZPATH";
        return Outcome::failed;
    }
    auto folderColumns = columnsOf(db.handle, "ZFOLDER", status);
    if (status != SQLITE_OK) {
        return fail(status);
    }
    const bool withFolder = recordingColumns.contains("ZFOLDER") && folderColumns.contains("Z_PK") &&
                            folderColumns.contains("ZENCRYPTEDNAME");

    // The query names only columns that the probe found; a missing one reads as NULL.
    auto column = [&](const char* name) {
        return recordingColumns.contains(name) ? std::string("r.") + name : std::string("NULL");
    };
    std::string sql = "SELECT r.ZUNIQUEID, r.ZPATH, " + column("ZDATE") + ", " + column("ZDURATION") + ", " +
                      column("ZEVICTIONDATE") + ", " + column("ZAUDIODIGEST") + ", " +
                      (withFolder ? "f.ZENCRYPTEDNAME" : "NULL");
    for (const char* title : kTitleColumns) {
        sql += ", " + column(title);
    }
    sql += " FROM ZCLOUDRECORDING r";
    if (withFolder) {
        sql += " LEFT JOIN ZFOLDER f ON f.Z_PK = r.ZFOLDER";
    }
    if (recordingColumns.contains("Z_PK")) {
        sql += " ORDER BY r.Z_PK";
    }

    Statement statement;
    status = sqlite3_prepare_v2(db.handle, sql.c_str(), -1, &statement.handle, nullptr);
    if (status != SQLITE_OK) {
        return fail(status);
    }
    // One statement, one short read transaction: Voice Memos can checkpoint as soon as it ends.
    ++reads_;
    std::vector<LibraryRecording> read;
    while ((status = sqlite3_step(statement.handle)) == SQLITE_ROW) {
        LibraryRecording row;
        row.uniqueId = textOf(statement.handle, 0);
        if (row.uniqueId.empty()) {
            continue;  // a row without identity cannot be followed
        }
        row.fileName = lastComponent(textOnly(statement.handle, 1));
        // Dates beyond a few centuries either way are no dates (and would overflow a time point).
        if (auto date = numberOf(statement.handle, 2); date && std::abs(*date) < 1e10) {
            row.date = fromLibraryDate(*date);
        }
        if (auto duration = numberOf(statement.handle, 3); duration && *duration >= 0) {
            row.duration = duration;
        }
        row.deleted = sqlite3_column_type(statement.handle, 4) != SQLITE_NULL;
        if (sqlite3_column_type(statement.handle, 5) == SQLITE_BLOB) {
            row.digest = hex(textOf(statement.handle, 5));
        } else {
            row.digest = textOf(statement.handle, 5);
        }
        row.folder = textOnly(statement.handle, 6);
        for (int index = 0; index < 3 && row.title.empty(); ++index) {
            row.title = textOnly(statement.handle, 7 + index);
        }
        read.push_back(std::move(row));
    }
    if (status != SQLITE_DONE) {
        return fail(status);
    }
    rows = std::move(read);
    health_ = Health::readable;
    detail_.clear();
    return Outcome::read;
}

// Each index is the rows' positions sorted by one key (8 bytes a row, where a map of copied
// keys cost some hundred): an agent beside a library of thousands keeps its memory.
namespace {

std::string_view fileKey(const LibraryRecording& row)
{
    return row.fileName;
}

std::string_view stemKey(const LibraryRecording& row)
{
    return stemView(row.fileName);
}

std::string_view idKey(const LibraryRecording& row)
{
    return row.uniqueId;
}

} // namespace

void VoiceMemosLibrary::index()
{
    recordings_.shrink_to_fit();
    auto sorted = [this](std::vector<std::uint32_t>& positions, std::string_view (*key)(const LibraryRecording&),
                         bool withFile) {
        positions.clear();
        for (std::uint32_t at = 0; at < recordings_.size(); ++at) {
            if (!withFile || !recordings_[at].fileName.empty()) {
                positions.push_back(at);
            }
        }
        // Stable: of rows with one key, the first in the library's order is found.
        std::stable_sort(positions.begin(), positions.end(), [&](std::uint32_t a, std::uint32_t b) {
            return key(recordings_[a]) < key(recordings_[b]);
        });
        positions.shrink_to_fit();
    };
    sorted(byFile_, fileKey, true);
    sorted(byStem_, stemKey, true);
    sorted(byId_, idKey, false);
}

const LibraryRecording* VoiceMemosLibrary::find(const std::vector<std::uint32_t>& positions,
                                                std::string_view (*key)(const LibraryRecording&),
                                                std::string_view wanted) const
{
    auto found = std::lower_bound(positions.begin(), positions.end(), wanted,
                                  [&](std::uint32_t at, std::string_view value) { return key(recordings_[at]) < value; });
    return found != positions.end() && key(recordings_[*found]) == wanted ? &recordings_[*found] : nullptr;
}

const LibraryRecording* VoiceMemosLibrary::byFile(std::string_view name) const
{
    return find(byFile_, fileKey, name);
}

const LibraryRecording* VoiceMemosLibrary::byTwin(std::string_view name) const
{
    if (byFile(name) != nullptr) {
        return nullptr;
    }
    return find(byStem_, stemKey, stemView(name));
}

const LibraryRecording* VoiceMemosLibrary::byId(std::string_view uniqueId) const
{
    return find(byId_, idKey, uniqueId);
}

std::vector<const LibraryRecording*> VoiceMemosLibrary::waitingForDownload(
    const std::set<std::string, std::less<>>& present, const std::function<bool(const std::string&)>& known,
    std::optional<TimePoint> since) const
{
    std::set<std::string, std::less<>> stems;
    for (const auto& name : present) {
        stems.emplace(stemView(name));
    }
    std::vector<const LibraryRecording*> waiting;
    for (const auto& row : recordings_) {
        if (row.deleted || row.fileName.empty() || (since && (!row.date || *row.date < *since)) ||
            present.contains(row.fileName) || stems.contains(stemView(row.fileName)) || known(row.uniqueId)) {
            continue;
        }
        waiting.push_back(&row);
    }
    std::stable_sort(waiting.begin(), waiting.end(), [](const auto* a, const auto* b) {
        return a->date.value_or(TimePoint::max()) < b->date.value_or(TimePoint::max());
    });
    return waiting;
}

std::string VoiceMemosLibrary::summary() const
{
    switch (health_) {
    case Health::absent:
        return "not found";
    case Health::unreadable:
        return "cannot be read (" + detail_ + ")" +
               (Paths::current() == Platform::macOS ? "; Full Disk Access is needed to read it" : "");
    case Health::locked:
        return "busy in Voice Memos; looked at again at the next poll";
    case Health::corrupt:
        return "damaged (" + detail_ + "); recordings are captured from their files alone";
    case Health::unknownSchema:
        return "of an unknown layout (" + detail_ + "); recordings are captured from their files alone";
    case Health::readable:
        break;
    }
    return "readable, " + std::to_string(recordings_.size()) +
           (recordings_.size() == 1 ? " recording" : " recordings");
}

} // namespace quillet
