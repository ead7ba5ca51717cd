// A Voice Memos library for the benchmarks that run the agent beside one: made with SQLite's
// API in WAL mode, its writer connection kept open (as while Voice Memos runs).
#pragma once

#include "bench/BenchCommon.hpp"

#include <sqlite3.h>

#include <chrono>
#include <string>

namespace bench {

inline constexpr int kLibraryRows = 5000;

inline void exec(sqlite3* db, const char* sql)
{
    check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sqlite3_errmsg(db));
}

/// Adds the recording "BENCH-<index>" with its file `path`, recorded `index` seconds ago.
inline void addLibraryRow(sqlite3* db, int index, const std::string& path)
{
    constexpr double kLibraryEpoch = 978307200.0;
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO ZCLOUDRECORDING (ZUNIQUEID, ZPATH, ZDATE, ZDURATION, ZENCRYPTEDTITLE, ZFOLDER) "
                       "VALUES (?, ?, ?, ?, ?, 1)",
                       -1, &insert, nullptr);
    auto id = "BENCH-" + std::to_string(index);
    auto title = "Recording number " + std::to_string(index);
    double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    sqlite3_bind_text(insert, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, path.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_double(insert, 3, now - kLibraryEpoch - index);
    sqlite3_bind_double(insert, 4, 30.0 + index % 600);
    sqlite3_bind_text(insert, 5, title.c_str(), -1, SQLITE_TRANSIENT);
    check(sqlite3_step(insert) == SQLITE_DONE, sqlite3_errmsg(db));
    sqlite3_finalize(insert);
}

/// A library of `kLibraryRows` recordings in `folder` whose files are not on this computer;
/// the connection stays open with automatic checkpoints off, so the rows stay in the -wal.
inline sqlite3* makeLibrary(const fs::path& folder)
{
    sqlite3* db = nullptr;
    check(sqlite3_open((folder / "CloudRecordings.db").c_str(), &db) == SQLITE_OK, "open the library");
    exec(db, "PRAGMA journal_mode=WAL");
    exec(db, "PRAGMA wal_autocheckpoint=0");
    exec(db, "CREATE TABLE ZFOLDER (Z_PK INTEGER PRIMARY KEY, ZENCRYPTEDNAME VARCHAR)");
    exec(db, "INSERT INTO ZFOLDER (ZENCRYPTEDNAME) VALUES ('Work')");
    exec(db, "CREATE TABLE ZCLOUDRECORDING (Z_PK INTEGER PRIMARY KEY, ZFOLDER INTEGER, ZDATE TIMESTAMP, "
             "ZDURATION FLOAT, ZEVICTIONDATE TIMESTAMP, ZCUSTOMLABEL VARCHAR, ZENCRYPTEDTITLE VARCHAR, "
             "ZPATH VARCHAR, ZUNIQUEID VARCHAR, ZAUDIODIGEST BLOB)");
    exec(db, "BEGIN");
    for (int i = 0; i < kLibraryRows; ++i) {
        addLibraryRow(db, i, "20200101 " + std::to_string(100000 + i) + ".qta");
    }
    exec(db, "COMMIT");
    return db;
}

} // namespace bench
