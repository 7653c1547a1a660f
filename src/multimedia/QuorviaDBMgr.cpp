#include "multimedia/QuorviaDBMgr.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include "multimedia/QuorviaDBMgrSql.h"
#include "multimedia/SqliteFileStatus.h"
#include "multimedia/SqliteOwnFiles.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/DeviceMountInfo.h"
#include "system/Log.h"

namespace quorvia {

QuorviaDBMgr::QuorviaDBMgr(const std::string& dbPath, const std::string& diskFolder)
    : db_(NULL), fileIdentity_(0, 0), fileLossLogged_(false), diskFolder_(diskFolder) {
    setNames(dbPath);
    init();
}

QuorviaDBMgr::~QuorviaDBMgr() {
    sqlite3_close(db_);
    db_ = NULL;
    if (folder_ >= 0) {
        close(folder_);
    }
}

void QuorviaDBMgr::setNames(const std::string& dbPath) {
    dbName_ = "quorvia.db";
    dbPath_ = dbPath;
    mainTableName_ = "quorvia";
    keyvaluePairsTableName_ = "keyvalue_pairs";
    dbVersionKey_ = "db_version";
}

bool QuorviaDBMgr::init() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!openDB()) {
        return false;
    }
    sqlite3_enable_shared_cache(1);
    if (!createTable()) {
        return false;
    }
    upgradeDB();
    return true;
}

bool QuorviaDBMgr::isSerialized() const { return db_ != NULL && sqlite3_db_mutex(db_) != NULL; }

void QuorviaDBMgr::checkFileInPlace() {
    talvern::FileStatus status;
    if (fileLossLogged_ || db_ == NULL ||
        (talvern::FileStatus::sOfPath(dbPath_, status) == 0 &&
         std::make_pair(status.device, status.inode) == fileIdentity_)) {
        return;
    }
    fileLossLogged_ = true;
    QLOG(ERROR) << "database file " << dbPath_
                << " is not the one open any more (deleted or moved): new rows go where nobody "
                   "reads them until the daemon starts again";
}

namespace {

// path as a "file:" URI: SQLite decodes %HH there, and "?" and "#" would end
// it. An absolute path gets an empty authority, so that one that begins
// with "//" is not read as a host.
std::string fileUri(const std::string& path) {
    std::string uri = path.compare(0, 1, "/") == 0 ? "file://" : "file:";
    for (const char c : path) {
        uri += c == '%' ? "%25" : c == '?' ? "%3f" : c == '#' ? "%23" : std::string(1, c);
    }
    return uri;
}

// Nothing can change the store while its disk stays read-only, and no
// interrupted write left a rollback journal or a write-ahead log whose pages
// a read without them would pass over, reading torn or stale rows.
bool isFrozen(const std::string& dbPath) {
    talvern::FileStatus status;
    const int log = talvern::FileStatus::sOfPath(dbPath + "-wal", status);
    return talvern::DeviceMountInfo::sIsFileSystemReadOnly(dbPath) &&
           talvern::FileStatus::sOfPath(dbPath + "-journal", status) == ENOENT &&
           (log == ENOENT || (log == 0 && status.size == 0));
}

// The store's file and the files SQLite keeps beside it: the log, the
// log's index, a journal.
const char* const kStoreFileSuffixes[] = {"", "-wal", "-shm", "-journal"};

// Planted on the disk, a link, a device or a second name of a file elsewhere
// at one of the store's files would make SQLite create or write a database
// where it leads. (A link on the way to them is refused by holdFolder.)
bool isPlanted(const std::string& dbPath) {
    for (const char* suffix : kStoreFileSuffixes) {
        talvern::FileStatus status;
        if (talvern::FileStatus::sOfPath(dbPath + suffix, status, false) == 0 &&
            (!status.isRegular() || status.links != 1)) {
            return true;
        }
    }
    return false;
}

bool isReadable(sqlite3* db) {
    sqlite3_stmt* stmt = NULL;
    const bool readable = sqlite3_prepare_v2(db, "SELECT count(*) FROM sqlite_master;", -1, &stmt,
                                             NULL) == SQLITE_OK &&
                          sqlite3_step(stmt) == SQLITE_ROW;
    sqlite3_finalize(stmt);
    return readable;
}

}  // namespace

bool QuorviaDBMgr::openDB() {
    // SQLite counts every allocation for its memory statistics under one
    // process-wide mutex, which each lookup took dozens of times; nothing here
    // reads the statistics. Settable only before the library's first use,
    // which in the daemon is this open; later calls are refused, harmlessly.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    SqliteFileStatus::sInstall();
    SqliteOwnFiles::sInstall();
    // No threading flag: the library's default mode applies, which on this
    // platform's SQLite (built SQLITE_THREADSAFE=1) is serialized, so the one
    // connection may be used from several threads (see getMetadataByHash).
    const bool planted = isPlanted(dbPath_);
    const bool held = !planted && holdFolder();
    if (planted || (!held && errno == ELOOP)) {
        QLOG(ERROR) << "the store " << dbPath_
                    << " leads through a link or to no file of its own; not opened";
    }
    const int rc = held ? sqlite3_open_v2(openPath_.c_str(), &db_,
                                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, NULL)
                        : SQLITE_CANTOPEN;
    if (rc == SQLITE_OK) {
        // Other processes may read the file; without a wait each of their
        // reads makes a concurrent delete or move fail and its row stay.
        sqlite3_busy_timeout(db_, kBusyTimeoutMillis);
        // Only on a frozen disk is the store tried by a read (which waits out
        // another process's lock): the file is opened by the first read, and
        // only then is the connection known to be read-only.
        if (isFrozen(dbPath_) && !isReadable(db_) && sqlite3_db_readonly(db_, "main") == 1) {
            readReadOnlyStore();
        } else {
            useWriteAheadLog();
        }
        talvern::FileStatus status;
        if (talvern::FileStatus::sOfPath(dbPath_, status) == 0) {
            fileIdentity_ = std::make_pair(status.device, status.inode);
        }
        return true;
    }
    sqlite3_close(db_);
    QLOG(ERROR) << "Can't open database: " << dbPath_;
    db_ = NULL;
    return false;
}

// SQLite opens the store, and the files beside it, by name for the
// connection's life. Through the folder held open, a folder on the disk
// swapped for a link after the check leads none of them elsewhere. false,
// with errno, when the folder can't be held: missing, or a link planted below
// the disk folder leads there (ELOOP). Without /proc, SQLite names the store
// by its path.
bool QuorviaDBMgr::holdFolder() {
    const std::string::size_type slash = dbPath_.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : dbPath_.substr(0, slash + 1);
    if (folder_ >= 0) {
        close(folder_);
    }
    folder_ = talvern::Directory::sIsAncestorPath(diskFolder_, folder)
                  ? talvern::Directory::sOpenBelow(diskFolder_, folder)
                  : open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder_ < 0) {
        return false;
    }
    const std::string view = talvern::File::sDescriptorPath(folder_);
    openPath_ = access(view.c_str(), F_OK) == 0
                    ? view + "/" + dbPath_.substr(slash == std::string::npos ? 0 : slash + 1)
                    : dbPath_;
    return true;
}

// With a rollback journal every commit costs two or three flushes to the
// disk (1.5 to 15 ms each here), so a folder of 10,000 deleted files took 20 s
// of one-row commits, and every lookup paid file locks, two probes and a
// header read (25 us a lookup against 17). In write-ahead mode a commit
// appends to the log and flushes only at a checkpoint; a power cut can lose
// the last commits, never the file's consistency, and a lost row only means a
// file read again. A file system that can't hold the log's shared index keeps
// the old mode: the store works as before, only slower.
void QuorviaDBMgr::useWriteAheadLog() {
    sqlite3_stmt* stmt = NULL;
    std::string mode;
    if (sqlite3_prepare_v2(db_, "PRAGMA journal_mode=WAL;", -1, &stmt, NULL) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        mode = sqlutil::columnText(stmt, 0);
    }
    sqlite3_finalize(stmt);
    if (mode != "wal") {
        QLOG(WARNING) << "QuorviaDBMgr keeps journal mode : " << mode << " , "
                      << sqlite3_errmsg(db_);
        return;
    }
    execSql("PRAGMA synchronous=NORMAL;");
    execSql("PRAGMA journal_size_limit=" + std::to_string(kMaxKeptLogBytes) + ";");
}

// A disk remounted read-only (the router's answer to a file system error)
// gives a connection that only reads. In write-ahead mode that needs the
// log's shared index beside the file, which can't be made there once another
// client's last close removed it, and every lookup failed. Opened as
// immutable, the file is read as it stands, without an index (see isFrozen).
// A disk made writable again leaves the store read-only until the daemon
// starts again: db_ can't be swapped under the lookups, which take no lock.
void QuorviaDBMgr::readReadOnlyStore() {
    sqlite3* immutable = NULL;
    const std::string uri = fileUri(openPath_) + "?immutable=1";
    // A cache of its own: a shared one would be the first connection's.
    const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_PRIVATECACHE;
    if (sqlite3_open_v2(uri.c_str(), &immutable, flags, NULL) != SQLITE_OK ||
        !isReadable(immutable)) {
        sqlite3_close(immutable);
        return;
    }
    sqlite3_close(db_);
    db_ = immutable;
    QLOG(WARNING) << "database file " << dbPath_
                  << " is on a read-only disk: its rows are read as they stand, none is stored";
}

void QuorviaDBMgr::closeDB() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (db_ == NULL) {
        return;
    }
    const int rc = sqlite3_close(db_);
    db_ = NULL;
    QLOG(INFO) << "sqlite3_close return " << rc;
}

bool QuorviaDBMgr::createTable() {
    if (!createMainTable()) {
        return false;
    }
    return createKeyvaluePairsTable();
}

bool QuorviaDBMgr::createMainTable() {
    bool result = execSql("CREATE TABLE IF NOT EXISTS " + mainTableName_ +
                          "(HASH VARCHAR(40) PRIMARY KEY, PATH VARCHAR(40), TITLE VARCHAR(40), "
                          "DATE INTEGER, MIME VARCHAR(40), DURATION VARCHAR(40), "
                          "ARTIST VARCHAR(40), ALBUM VARCHAR(40))");
    if (result) {
        result = createPathIndex();
    }
    QLOG(INFO) << "CreateTable result : " << (result ? 1 : 0)
               << " , table_name: " << mainTableName_;
    return result;
}

// Moves and deletes look rows up by path; without this index each of them
// scans the whole table under the store's lock.
bool QuorviaDBMgr::createPathIndex() {
    return execSql("CREATE INDEX IF NOT EXISTS " + mainTableName_ + "_path ON " + mainTableName_ +
                   "(PATH)");
}

bool QuorviaDBMgr::createKeyvaluePairsTable() {
    const bool result = execSql("CREATE TABLE IF NOT EXISTS " + keyvaluePairsTableName_ +
                                "(KEY VARCHAR(40) PRIMARY KEY, VALUE VARCHAR(40))");
    QLOG(INFO) << "CreateTable result : " << (result ? 1 : 0)
               << " , table_name: " << keyvaluePairsTableName_;
    return result;
}

void QuorviaDBMgr::dropTable(const std::string& name) { execSql("DROP TABLE " + name); }

// Any stored version other than this build's drops everything: there is no
// migration. Inequality, not "older than", so a downgrade also starts clean.
void QuorviaDBMgr::upgradeDB() {
    const unsigned int version = getDBVersion();
    if (version == sDBVersion_) {
        return;
    }
    QLOG(WARNING) << "QuorviaDBMgr::upgradeDB,  version : " << version
                  << " , sDBVersion_ : " << sDBVersion_;
    dropTable(mainTableName_);
    dropTable(keyvaluePairsTableName_);
    createTable();
    setDBVersion(sDBVersion_);
}

unsigned int QuorviaDBMgr::getDBVersion() {
    const std::string text = searchKeyvaluePairs(dbVersionKey_);
    if (text.empty()) {
        return 0;
    }
    try {
        return boost::lexical_cast<unsigned int>(text);
    } catch (const boost::bad_lexical_cast&) {
        return 0;
    }
}

void QuorviaDBMgr::setDBVersion(unsigned int version) {
    insertKeyvaluePairs(dbVersionKey_, boost::lexical_cast<std::string>(version));
}

bool QuorviaDBMgr::insertKeyvaluePairs(const std::string& key, const std::string& value) {
    const std::string sql =
        "INSERT OR REPLACE INTO " + keyvaluePairsTableName_ + " (KEY, VALUE) VALUES(?,?);";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "prepare insert error: " << sqlite3_errmsg(db_)
                    << " , table name : " << keyvaluePairsTableName_;
        return false;
    }
    sqlite3_bind_text(stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(stmt, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    sqlite3_step(stmt);
    const int rc = sqlite3_finalize(stmt);
    if (rc == SQLITE_OK) {
        return true;
    }
    QLOG(ERROR) << "step insert error " << rc << sqlite3_errmsg(db_)
                << " , table name : " << keyvaluePairsTableName_;
    return false;
}

std::string QuorviaDBMgr::searchKeyvaluePairs(const std::string& key) {
    const std::string sql = "SELECT * FROM " + keyvaluePairsTableName_ + " WHERE Key=?;";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "searchKeyvaluePairs error:" << sqlite3_errmsg(db_);
        return std::string();
    }
    sqlite3_bind_text(stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::string value;
    if (sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt, 1);
        if (text != NULL) {
            value.assign(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt, 1));
        }
    }
    sqlite3_finalize(stmt);
    return value;
}

bool QuorviaDBMgr::execSql(const std::string& sql) {
    int code = SQLITE_OK;
    return execSql(sql, code);
}

bool QuorviaDBMgr::execSql(const std::string& sql, int& code) {
    sqlite3_stmt* stmt = NULL;
    code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (code != SQLITE_OK) {
        QLOG(ERROR) << "prepare2 errmsg:" << sqlite3_errmsg(db_);
        return false;
    }
    code = sqlite3_step(stmt);
    const bool result = isSqlSucceed(code);
    sqlite3_finalize(stmt);
    return result;
}

bool QuorviaDBMgr::waitingForStore(const std::string& what, const std::string& detail,
                                   const std::function<int()>& attempt) {
    for (int attempts = 1;; ++attempts) {
        const int code = attempt();
        if (code != SQLITE_BUSY) {
            return sqlutil::succeeded(code);
        }
        if (attempts >= kWriteAttempts) {
            QLOG(ERROR) << what << " dropped, the store stayed locked" << detail;
            return false;
        }
        QLOG(WARNING) << what << " waits for the store" << detail;
        boost::this_thread::sleep_for(boost::chrono::milliseconds(kWriteRetryPauseMillis));
    }
}

bool QuorviaDBMgr::isSqlSucceed(int code) {
    if (sqlutil::succeeded(code)) {
        return true;
    }
    QLOG(ERROR) << "sql error:" << sqlite3_errmsg(db_);
    return false;
}

}  // namespace quorvia
