#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/QuorviaDBMgrSql.h"
#include "system/Log.h"

namespace quorvia {

using sqlutil::bindText;
using sqlutil::columnText;

namespace {

// The prefix every path below dir starts with: dir itself when it already
// ends in "/", else dir + "/", so that /a/b never takes /a/bc.
std::string componentPrefix(const std::string& dir) {
    if (!dir.empty() && dir[dir.size() - 1] == '/') {
        return dir;
    }
    return dir + "/";
}

// First text above every text that starts with prefix (which ends in "/"),
// so that the pair bounds a range the PATH index can walk.
std::string prefixUpperBound(const std::string& prefix) {
    std::string bound(prefix);
    bound[bound.size() - 1] = '/' + 1;
    return bound;
}

}  // namespace

// Lists the rows first and rewrites each listed row once by rowid, so a new
// directory below the old one is not rewritten twice; the whole rewrite is one
// transaction, so a failure or a crash never leaves a half-moved directory.
// The per-row lines are written once the lock is released: logging can cost
// more than the rewrite, and requests wait for the lock meanwhile. A store
// held by another process is waited for between attempts without the lock.
void QuorviaDBMgr::updateDirPaths(const std::string& oldDir, const std::string& newDir) {
    QLOG(INFO) << "QuorviaDBMgr::updateDirPaths from " << oldDir << ", to " << newDir;
    if (oldDir.empty()) {
        return;
    }
    std::vector<PathRow> rows;
    size_t rewritten = 0;
    for (int attempt = 1; !tryDirMove(rows, oldDir, newDir, rewritten); ++attempt) {
        if (attempt >= kMoveAttempts) {
            QLOG(ERROR) << "QuorviaDBMgr::updateDirPaths dropped, the store stayed locked, from "
                        << oldDir << ", to " << newDir;
            return;
        }
        QLOG(WARNING) << "QuorviaDBMgr::updateDirPaths waits for the store, from " << oldDir
                      << ", to " << newDir;
        boost::this_thread::sleep_for(boost::chrono::milliseconds(kMoveRetryPauseMillis));
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        QLOG(INFO) << "QuorviaDBMgr::getFileByDir,  path : " << rows[i].path;
    }
    for (size_t i = 0; i < rewritten; ++i) {
        QLOG(INFO) << "QuorviaDBMgr::updatePath,  path : " << rows[i].path
                   << " , newPath : " << rows[i].newPath;
    }
}

bool QuorviaDBMgr::tryDirMove(std::vector<PathRow>& rows, const std::string& oldDir,
                              const std::string& newDir, size_t& rewritten) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    rewritten = 0;
    getFileByDir(rows, oldDir);
    if (rows.empty()) {
        return true;
    }
    int begun = SQLITE_OK;
    if (!execSql("BEGIN IMMEDIATE;", begun)) {
        const bool busy = begun == SQLITE_BUSY;
        rows.clear();
        return !busy;
    }
    if (!updatePath(rows, oldDir, newDir, rewritten) || !execSql("COMMIT;")) {
        // Nothing was moved: no row gets an update line.
        QLOG(ERROR) << "QuorviaDBMgr::updateDirPaths rolled back, from " << oldDir << ", to "
                    << newDir;
        execSql("ROLLBACK;");
        rewritten = 0;
    }
    return true;
}

// Exact bytes, case kept: a row that differs from dir in case only stays.
void QuorviaDBMgr::getFileByDir(std::vector<PathRow>& rows, const std::string& dir) {
    rows.clear();
    const std::string sql = "SELECT rowid, Path FROM " + mainTableName_ +
                            " WHERE Path = ? OR (Path >= ? AND Path < ?) ";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::getFileByDir error : " << sqlite3_errmsg(db_);
        return;
    }
    const std::string prefix = componentPrefix(dir);
    const std::string bound = prefixUpperBound(prefix);
    bindText(stmt, 1, dir);
    bindText(stmt, 2, prefix);
    bindText(stmt, 3, bound);
    QLOG(INFO) << "QuorviaDBMgr::getFileByDir,  sql : " << sql << " , pattern : " << prefix;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        PathRow row;
        row.rowid = sqlite3_column_int64(stmt, 0);
        row.path = columnText(stmt, 1);
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
}

bool QuorviaDBMgr::updatePath(std::vector<PathRow>& rows, const std::string& oldDir,
                              const std::string& newDir, size_t& rewritten) {
    const std::string sql = "UPDATE " + mainTableName_ + " SET PATH=? WHERE rowid=?";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::updatePath error:" << sqlite3_errmsg(db_);
        return false;
    }
    bool result = true;
    for (rewritten = 0; rewritten < rows.size() && result; ++rewritten) {
        PathRow& row = rows[rewritten];
        row.newPath = newDir + row.path.substr(oldDir.size());
        bindText(stmt, 1, row.newPath);
        sqlite3_bind_int64(stmt, 2, row.rowid);
        result = isSqlSucceed(sqlite3_step(stmt));
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    return result;
}

std::size_t QuorviaDBMgr::deleteRowsBelow(const std::string& dir, std::size_t limit) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "DELETE FROM " + mainTableName_ +
                            " WHERE rowid IN (SELECT rowid FROM " + mainTableName_ +
                            " WHERE Path = ? OR (Path >= ? AND Path < ?) LIMIT ?)";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::deleteRowsBelow error : " << sqlite3_errmsg(db_);
        return 0;
    }
    // Bound texts are not copied: they must outlive the statement.
    const std::string prefix = componentPrefix(dir);
    const std::string bound = prefixUpperBound(prefix);
    bindText(stmt, 1, dir);
    bindText(stmt, 2, prefix);
    bindText(stmt, 3, bound);
    sqlite3_bind_int64(stmt, 4, static_cast<sqlite3_int64>(limit));
    const bool done = isSqlSucceed(sqlite3_step(stmt));
    sqlite3_finalize(stmt);
    return done ? static_cast<std::size_t>(sqlite3_changes(db_)) : 0;
}

bool QuorviaDBMgr::getRowsBelowAfter(const std::string& root, sqlite3_int64 afterRowid,
                                     std::size_t limit, std::vector<StoredPath>& rows) {
    rows.clear();
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "SELECT rowid, Path FROM " + mainTableName_ +
                            " WHERE rowid > ? AND (Path = ? OR (Path >= ? AND Path < ?)) "
                            "ORDER BY rowid LIMIT ?";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::getRowsBelowAfter error : " << sqlite3_errmsg(db_);
        return false;
    }
    const std::string prefix = componentPrefix(root);
    const std::string bound = prefixUpperBound(prefix);
    sqlite3_bind_int64(stmt, 1, afterRowid);
    bindText(stmt, 2, root);
    bindText(stmt, 3, prefix);
    bindText(stmt, 4, bound);
    sqlite3_bind_int64(stmt, 5, static_cast<sqlite3_int64>(limit));
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        rows.push_back(StoredPath(sqlite3_column_int64(stmt, 0), columnText(stmt, 1)));
    }
    sqlite3_finalize(stmt);
    return isSqlSucceed(rc);
}

bool QuorviaDBMgr::deleteRowids(const std::vector<sqlite3_int64>& rowids) {
    if (rowids.empty()) {
        return true;
    }
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "DELETE FROM " + mainTableName_ + " WHERE rowid = ?";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::deleteRowids error : " << sqlite3_errmsg(db_);
        return false;
    }
    if (!execSql("BEGIN IMMEDIATE;")) {
        sqlite3_finalize(stmt);
        return false;
    }
    bool done = true;
    for (std::size_t i = 0; i < rowids.size() && done; ++i) {
        sqlite3_bind_int64(stmt, 1, rowids[i]);
        done = isSqlSucceed(sqlite3_step(stmt));
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    if (done && execSql("COMMIT;")) {
        return true;
    }
    execSql("ROLLBACK;");
    return false;
}

}  // namespace quorvia
