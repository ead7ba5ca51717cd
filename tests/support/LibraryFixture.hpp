#pragma once

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace quillet::test {

/// A Voice Memos library made by the test: a database "CloudRecordings.db" in WAL mode in a
/// folder, with the tables and columns Voice Memos uses. The fixture keeps its connection
/// open with automatic checkpoints off, so that what it writes stays in the "-wal" file, as
/// it does while Voice Memos runs. Closing it (the destructor) checkpoints and removes the
/// "-wal", as Voice Memos' own last connection does.
class LibraryFixture {
public:
    enum class Schema {
        current,             // titles in ZENCRYPTEDTITLE, folders in ZFOLDER, digests
        old,                 // titles only in ZCUSTOMLABEL; no folders, digests or ZENCRYPTEDTITLE
        withoutRecordings,   // a database without the recordings table
    };

    struct Row {
        std::string uniqueId;
        std::string path;  // ZPATH
        std::optional<std::chrono::system_clock::time_point> date;
        std::optional<double> duration;
        std::string title;
        std::optional<int> folder;  // a Z_PK of ZFOLDER
        bool deleted = false;
        std::string digest;  // bytes of ZAUDIODIGEST; none when empty
    };

    explicit LibraryFixture(const std::filesystem::path& folder, Schema schema = Schema::current);
    ~LibraryFixture();
    LibraryFixture(const LibraryFixture&) = delete;
    LibraryFixture& operator=(const LibraryFixture&) = delete;

    /// Adds a Voice Memos folder; returns its Z_PK.
    int addFolder(const std::string& name);
    void add(const Row& row);
    void setTitle(const std::string& uniqueId, const std::string& title);
    void setDeleted(const std::string& uniqueId, bool deleted);
    void setDigest(const std::string& uniqueId, const std::string& digest);
    void setFolder(const std::string& uniqueId, std::optional<int> folder);
    /// Runs SQL of the test's own; fails the test on an error.
    void exec(const std::string& sql);
    /// Takes the database's exclusive lock and keeps it until `close` (readers are refused).
    void lockExclusively();
    /// Checkpoints and closes the connection now.
    void close();

    const std::filesystem::path& file() const { return file_; }

private:
    std::filesystem::path file_;
    Schema schema_;
    sqlite3* db_ = nullptr;
};

} // namespace quillet::test
