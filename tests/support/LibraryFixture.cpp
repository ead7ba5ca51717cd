#include "tests/support/LibraryFixture.hpp"

#include <gtest/gtest.h>

namespace quillet::test {

namespace {

// Seconds between 1970-01-01 and 2001-01-01.
constexpr double kLibraryEpoch = 978307200.0;

double libraryDate(std::chrono::system_clock::time_point time)
{
    return std::chrono::duration<double>(time.time_since_epoch()).count() - kLibraryEpoch;
}

} // namespace

LibraryFixture::LibraryFixture(const std::filesystem::path& folder, Schema schema)
    : file_(folder / "CloudRecordings.db")
    , schema_(schema)
{
    std::filesystem::create_directories(folder);
    if (sqlite3_open(file_.c_str(), &db_) != SQLITE_OK) {
        ADD_FAILURE() << "cannot make " << file_ << ": " << sqlite3_errmsg(db_);
        return;
    }
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA wal_autocheckpoint=0");
    switch (schema) {
    case Schema::current:
        exec("CREATE TABLE ZFOLDER (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, ZENCRYPTEDNAME VARCHAR)");
        exec("CREATE TABLE ZCLOUDRECORDING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
             "ZFOLDER INTEGER, ZDATE TIMESTAMP, ZDURATION FLOAT, ZEVICTIONDATE TIMESTAMP, "
             "ZCUSTOMLABEL VARCHAR, ZCUSTOMLABELFORSORTING VARCHAR, ZENCRYPTEDTITLE VARCHAR, "
             "ZPATH VARCHAR, ZUNIQUEID VARCHAR, ZAUDIODIGEST BLOB)");
        break;
    case Schema::old:
        exec("CREATE TABLE ZCLOUDRECORDING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
             "ZDATE TIMESTAMP, ZDURATION FLOAT, ZEVICTIONDATE TIMESTAMP, ZCUSTOMLABEL VARCHAR, "
             "ZPATH VARCHAR, ZUNIQUEID VARCHAR)");
        break;
    case Schema::withoutRecordings:
        exec("CREATE TABLE ZRECORDING (Z_PK INTEGER PRIMARY KEY, ZPATH VARCHAR)");
        exec("INSERT INTO ZRECORDING (ZPATH) VALUES ('20240131 142530.m4a')");
        break;
    }
}

LibraryFixture::~LibraryFixture()
{
    close();
}

void LibraryFixture::close()
{
    if (db_ != nullptr) {
        sqlite3_close(db_);
        db_ = nullptr;
    }
}

void LibraryFixture::exec(const std::string& sql)
{
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        ADD_FAILURE() << sql << ": " << (error ? error : "?");
    }
    sqlite3_free(error);
}

int LibraryFixture::addFolder(const std::string& name)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db_, "INSERT INTO ZFOLDER (Z_ENT, ZENCRYPTEDNAME) VALUES (2, ?)", -1, &statement, nullptr);
    sqlite3_bind_text(statement, 1, name.c_str(), -1, SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
    return static_cast<int>(sqlite3_last_insert_rowid(db_));
}

void LibraryFixture::add(const Row& row)
{
    const bool current = schema_ == Schema::current;
    std::string sql = current ? "INSERT INTO ZCLOUDRECORDING (Z_ENT, ZUNIQUEID, ZPATH, ZDATE, ZDURATION, "
                                "ZEVICTIONDATE, ZENCRYPTEDTITLE, ZCUSTOMLABEL, ZFOLDER, ZAUDIODIGEST) "
                                "VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6, ?6, ?7, ?8)"
                              : "INSERT INTO ZCLOUDRECORDING (Z_ENT, ZUNIQUEID, ZPATH, ZDATE, ZDURATION, "
                                "ZEVICTIONDATE, ZCUSTOMLABEL) VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)";
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
    sqlite3_bind_text(statement, 1, row.uniqueId.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(statement, 2, row.path.c_str(), -1, SQLITE_TRANSIENT);
    if (row.date) {
        sqlite3_bind_double(statement, 3, libraryDate(*row.date));
    }
    if (row.duration) {
        sqlite3_bind_double(statement, 4, *row.duration);
    }
    if (row.deleted) {
        sqlite3_bind_double(statement, 5, libraryDate(std::chrono::system_clock::now()));
    }
    if (!row.title.empty()) {
        sqlite3_bind_text(statement, 6, row.title.c_str(), -1, SQLITE_TRANSIENT);
    }
    if (current && row.folder) {
        sqlite3_bind_int(statement, 7, *row.folder);
    }
    if (current && !row.digest.empty()) {
        sqlite3_bind_blob(statement, 8, row.digest.data(), static_cast<int>(row.digest.size()), SQLITE_TRANSIENT);
    }
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
}

namespace {

void update(sqlite3* db, const std::string& sql, const std::string& uniqueId, auto bind)
{
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    bind(statement);
    sqlite3_bind_text(statement, 2, uniqueId.c_str(), -1, SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db);
    EXPECT_EQ(sqlite3_changes(db), 1) << "no row " << uniqueId;
    sqlite3_finalize(statement);
}

} // namespace

void LibraryFixture::setTitle(const std::string& uniqueId, const std::string& title)
{
    update(db_,
           schema_ == Schema::current ? "UPDATE ZCLOUDRECORDING SET ZENCRYPTEDTITLE = ?1 WHERE ZUNIQUEID = ?2"
                                      : "UPDATE ZCLOUDRECORDING SET ZCUSTOMLABEL = ?1 WHERE ZUNIQUEID = ?2",
           uniqueId, [&](sqlite3_stmt* s) { sqlite3_bind_text(s, 1, title.c_str(), -1, SQLITE_TRANSIENT); });
}

void LibraryFixture::setDeleted(const std::string& uniqueId, bool deleted)
{
    update(db_, "UPDATE ZCLOUDRECORDING SET ZEVICTIONDATE = ?1 WHERE ZUNIQUEID = ?2", uniqueId,
           [&](sqlite3_stmt* s) {
               if (deleted) {
                   sqlite3_bind_double(s, 1, libraryDate(std::chrono::system_clock::now()));
               } else {
                   sqlite3_bind_null(s, 1);
               }
           });
}

void LibraryFixture::setDigest(const std::string& uniqueId, const std::string& digest)
{
    update(db_, "UPDATE ZCLOUDRECORDING SET ZAUDIODIGEST = ?1 WHERE ZUNIQUEID = ?2", uniqueId,
           [&](sqlite3_stmt* s) {
               sqlite3_bind_blob(s, 1, digest.data(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
           });
}

void LibraryFixture::setFolder(const std::string& uniqueId, std::optional<int> folder)
{
    update(db_, "UPDATE ZCLOUDRECORDING SET ZFOLDER = ?1 WHERE ZUNIQUEID = ?2", uniqueId, [&](sqlite3_stmt* s) {
        if (folder) {
            sqlite3_bind_int(s, 1, *folder);
        } else {
            sqlite3_bind_null(s, 1);
        }
    });
}

void LibraryFixture::lockExclusively()
{
    exec("PRAGMA locking_mode=EXCLUSIVE");
    exec("BEGIN EXCLUSIVE");
    exec("UPDATE ZCLOUDRECORDING SET Z_OPT = 1");
    exec("COMMIT");
}

} // namespace quillet::test
