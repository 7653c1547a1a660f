#ifndef QUORVIA_MULTIMEDIA_QUORVIADBMGR_H
#define QUORVIA_MULTIMEDIA_QUORVIADBMGR_H

#include <sqlite3.h>
#include <stdint.h>
#include <sys/types.h>

#include <boost/thread/mutex.hpp>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "multimedia/Metadata.h"
#include "multimedia/QuorviaContext.h"

namespace quorvia {

// The index of media metadata: one SQLite database, one row per file content
// keyed by its hash. All threads share one connection, in write-ahead-log mode
// where the file system allows it. Every public operation holds mutex_ for its
// whole body, except getMetadataByHash (reads without it where SQLite runs the
// connection in serialized mode, see isSerialized) and getFileHash (locks only around its own store
// calls, not across the file read). Operations answer with bool and log their
// failures; on a store that could not be opened they fail at prepare and take
// their failure route.
class QuorviaDBMgr {
public:
    // Schema version this build expects.
    static constexpr unsigned int sDBVersion_ = 0;
    // Streaming buffer of the file hash computed by getFileHash, in KiB.
    static constexpr unsigned int kHashBufferKiB = 128;
    // How long a statement waits for another process's lock on the store file
    // (an operator's reader, a backup) before it fails as "database is locked".
    static constexpr int kBusyTimeoutMillis = 2000;
    // What the write-ahead log keeps on the disk once a checkpoint has
    // emptied it: about what SQLite's automatic checkpoint (1,000 pages)
    // lets it grow to. A transaction larger than that (a reader's snapshot
    // held long) grows it, and the growth was never given back.
    static constexpr int kMaxKeptLogBytes = 4 * 1024 * 1024;
    // A write of the file-following side (a move, a delete) that finds the
    // store held by another process past the busy timeout is tried again
    // this many times in all, this long apart, before it is dropped.
    static constexpr int kWriteAttempts = 10;
    static constexpr int kWriteRetryPauseMillis = 1000;
    // A directory move rewrites this many rows per transaction: the log, the
    // memory and the lock that requests wait for stay small whatever the
    // folder holds (200,000 rows in one transaction grew the log by 50 MB,
    // which a nearly full disk refused, and the whole move was lost).
    static constexpr std::size_t kMoveSliceRows = 1000;

    // The daemon's store, on ConfigInfo's database folder; opened on first use.
    static QuorviaDBMgr& sGetInstance();

    // A store on a database file of the caller's choosing (tools and tests);
    // opened at construction like the daemon's. Below diskFolder (a folder on
    // dbPath, or "") lies a user's disk: a link there is not followed, the
    // store is not opened; nor is it when its file, log, log index or
    // journal is no regular file of one name.
    explicit QuorviaDBMgr(const std::string& dbPath, const std::string& diskFolder = "");
    virtual ~QuorviaDBMgr();

    // ---- Lifecycle and schema ----
    bool init();
    bool openDB();
    // Closes the connection; a closed store is never reopened.
    void closeDB();
    bool createTable();
    bool createMainTable();
    bool createKeyvaluePairsTable();
    void dropTable(const std::string& name);
    void upgradeDB();
    unsigned int getDBVersion();
    void setDBVersion(unsigned int version);
    bool insertKeyvaluePairs(const std::string& key, const std::string& value);
    std::string searchKeyvaluePairs(const std::string& key);
    bool execSql(const std::string& sql);
    // The same, with the result code of the prepare or the step in code: the
    // connection's own error code may already be another thread's (reads go
    // without mutex_).
    bool execSql(const std::string& sql, int& code);
    // true for SQLITE_OK, SQLITE_ROW and SQLITE_DONE; logs any other code.
    bool isSqlSucceed(int code);
    // true when SQLite serialises every call on the open connection itself
    // (a library built SQLITE_THREADSAFE=1, opened without a threading flag),
    // so that a read may go without mutex_. Any thread.
    bool isSerialized() const;

    // ---- Rows ----
    // Stores or replaces the row of context.hash. true when written.
    bool insertToDB(const QuorviaContext& context);
    // Fills metadata on a hit and leaves it untouched on a miss; always true.
    bool getMetadataByHash(const std::string& hash, talvern::metadata_s& metadata);
    // Removes every row at exactly that path (one trailing "/" ignored). true
    // when the statement ran, whether or not a row matched. A store held by
    // another process is waited for (kWriteAttempts); so are the writes below
    // that the file-following side makes, on its own thread.
    bool deleteMetadataByPath(const std::string& path);
    // Removes the rows of rootPath and below it, matched on whole path
    // components, ASCII case ignored, "%" and "_" literal. Refuses (false,
    // nothing touched) a root that is empty or "/" alone.
    bool deleteMetadataByRootPath(const std::string& rootPath);
    // Repoints every row at oldPath to newPath; only PATH changes.
    bool updateFilePath(const std::string& oldPath, const std::string& newPath);
    // Repoints the rows below oldDir (exact bytes, whole components; directories
    // used as passed, so a trailing "/" is part of the prefix) to newDir plus
    // the rest of their path, kMoveSliceRows rows per transaction: a slice
    // that fails moves none of its rows and ends the move, the slices before
    // it stay moved.
    void updateDirPaths(const std::string& oldDir, const std::string& newDir);

    // ---- Rows against the disk ----
    // A row's rowid and path.
    typedef std::pair<sqlite3_int64, std::string> StoredPath;
    // Removes up to limit rows at dir or below it (exact bytes, whole
    // components) and returns how many went: a caller that loops while the
    // answer is limit never holds the lock for long.
    std::size_t deleteRowsBelow(const std::string& dir, std::size_t limit);
    // Up to limit rows at root or below it with a rowid above afterRowid, in
    // rowid order. false when the statement failed.
    bool getRowsBelowAfter(const std::string& root, sqlite3_int64 afterRowid, std::size_t limit,
                           std::vector<StoredPath>& rows);
    // Removes the rows of these rowids, in one transaction; a store held by
    // another process is waited for (kWriteAttempts).
    bool deleteRowids(const std::vector<sqlite3_int64>& rowids);

    // ---- File-hash cache ----
    // The cached hash of path, or the file's hash computed and stored with an
    // empty record. Empty when the file could not be hashed.
    std::string getFileHash(const std::string& path);
    // The hash stored for path, or empty. Reads no file.
    std::string doGetFileHash(const std::string& path);
    // true only when a row with that hash exists.
    bool isExistsFileByHash(const std::string& hash);

private:
    // A row below a moved directory: its rowid, its path and where it goes.
    struct PathRow {
        sqlite3_int64 rowid;
        std::string path;
        std::string newPath;
    };

    QuorviaDBMgr();
    QuorviaDBMgr(const QuorviaDBMgr&);
    QuorviaDBMgr& operator=(const QuorviaDBMgr&);

    void setNames(const std::string& dbPath);
    bool holdFolder();
    // Says once, at ERROR, when the file at dbPath_ is no longer the one the
    // connection has open (deleted, or the disk's folder moved): rows then go
    // where nobody reads them until the daemon starts again. Under mutex_.
    void checkFileInPlace();
    void useWriteAheadLog();
    // On a read-only disk: db_ opened anew as immutable when it can't be read
    // as it is. Under init's lock.
    void readReadOnlyStore();
    bool createPathIndex();
    // Runs attempt (a write that takes mutex_ and gives SQLite's result code)
    // until it gives anything but SQLITE_BUSY, kWriteAttempts times at most,
    // kWriteRetryPauseMillis apart without the lock; what and detail name the
    // write in the lines said meanwhile. true when the write succeeded.
    bool waitingForStore(const std::string& what, const std::string& detail,
                         const std::function<int()>& attempt);
    int tryDeleteMetadataByPath(const std::string& path);
    int tryUpdateFilePath(const std::string& oldPath, const std::string& newPath);
    int tryDeleteRowsBelow(const std::string& dir, std::size_t limit, std::size_t& removed);
    int tryDeleteRowids(const std::vector<sqlite3_int64>& rowids);
    // Ends a write transaction that failed on code, under mutex_: SQLITE_BUSY
    // (tried again by waitingForStore) stays, any other becomes SQLITE_ABORT.
    int rollBack(int code);
    // Both run under moveSlice's lock: up to kMoveSliceRows rows below dir with
    // a rowid above afterRowid, in rowid order, and the code of the listing's
    // end (SQLITE_DONE when whole); updatePath sets each row's newPath and
    // counts the rows it stepped in rewritten, false when a step failed.
    int getFileByDir(std::vector<PathRow>& rows, const std::string& dir, sqlite3_int64 afterRowid);
    bool updatePath(std::vector<PathRow>& rows, const std::string& oldDir,
                    const std::string& newDir, size_t& rewritten);
    // One slice of updateDirPaths in a transaction of its own, under mutex_:
    // fills rows, sets rewritten to the rows that now have their new path.
    int moveSlice(std::vector<PathRow>& rows, const std::string& oldDir, const std::string& newDir,
                  sqlite3_int64 afterRowid, size_t& rewritten);

    sqlite3* db_;
    // Device and inode of the file opened; whether its loss was logged.
    std::pair<dev_t, ino_t> fileIdentity_;
    bool fileLossLogged_;
    std::string dbName_;
    std::string dbPath_;
    std::string diskFolder_;
    // The store's folder, held open from the open on (-1 before), and the
    // name SQLite opens the store by: through that folder where /proc
    // shows it, dbPath_ otherwise.
    int folder_ = -1;
    std::string openPath_;
    std::string mainTableName_;
    std::string keyvaluePairsTableName_;
    std::string dbVersionKey_;
    boost::mutex mutex_;
};

}  // namespace quorvia

#endif
