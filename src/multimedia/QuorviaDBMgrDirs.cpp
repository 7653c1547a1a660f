#include <boost/thread/lock_guard.hpp>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/QuorviaDBMgrSql.h"
#include "system/Log.h"

namespace quorvia {

using sqlutil::bindText;
using sqlutil::columnText;
using sqlutil::succeeded;

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

// Each slice lists its rows first and rewrites each listed row once by
// rowid. Rewritten rows leave the old directory, so the next slice lists
// from the start again; only a new directory at or below the old one keeps
// them there, and then the next slice lists from the last rowid on, so that
// no row is rewritten twice and the move ends. The per-row lines of a slice
// are written once the lock is released: logging can cost more than the
// rewrite, and requests wait for the lock meanwhile.
void QuorviaDBMgr::updateDirPaths(const std::string& oldDir, const std::string& newDir) {
    QLOG(INFO) << "QuorviaDBMgr::updateDirPaths from " << oldDir << ", to " << newDir;
    if (oldDir.empty()) {
        return;
    }
    const std::string detail = ", from " + oldDir + ", to " + newDir;
    const std::string oldPrefix = componentPrefix(oldDir);
    const bool staysBelow = componentPrefix(newDir).compare(0, oldPrefix.size(), oldPrefix) == 0;
    std::vector<PathRow> rows;
    sqlite3_int64 after = 0;
    do {
        size_t rewritten = 0;
        const bool moved = waitingForStore("QuorviaDBMgr::updateDirPaths", detail, [&] {
            return moveSlice(rows, oldDir, newDir, after, rewritten);
        });
        for (size_t i = 0; i < rows.size(); ++i) {
            QLOG(INFO) << "QuorviaDBMgr::getFileByDir,  path : " << rows[i].path;
        }
        for (size_t i = 0; i < rewritten; ++i) {
            QLOG(INFO) << "QuorviaDBMgr::updatePath,  path : " << rows[i].path
                       << " , newPath : " << rows[i].newPath;
        }
        if (!moved || rows.empty()) {
            return;
        }
        after = staysBelow ? rows.back().rowid : 0;
    } while (rows.size() == kMoveSliceRows);
}

int QuorviaDBMgr::moveSlice(std::vector<PathRow>& rows, const std::string& oldDir,
                            const std::string& newDir, sqlite3_int64 afterRowid,
                            size_t& rewritten) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    rewritten = 0;
    int code = getFileByDir(rows, oldDir, afterRowid);
    if (code != SQLITE_DONE || rows.empty()) {
        rows.clear();
        return code;
    }
    if (!execSql("BEGIN IMMEDIATE;", code)) {
        rows.clear();
        return code;
    }
    if (updatePath(rows, oldDir, newDir, rewritten) && execSql("COMMIT;", code)) {
        return code;
    }
    // Nothing of the slice was moved: no row gets an update line.
    QLOG(ERROR) << "QuorviaDBMgr::updateDirPaths rolled back, from " << oldDir << ", to " << newDir;
    rewritten = 0;
    return rollBack(code);
}

// Exact bytes, case kept: a row that differs from dir in case only stays.
int QuorviaDBMgr::getFileByDir(std::vector<PathRow>& rows, const std::string& dir,
                               sqlite3_int64 afterRowid) {
    rows.clear();
    const std::string sql = "SELECT rowid, Path FROM " + mainTableName_ +
                            " WHERE rowid > ? AND (Path = ? OR (Path >= ? AND Path < ?)) "
                            "ORDER BY rowid LIMIT ?";
    sqlite3_stmt* stmt = NULL;
    const int prepared = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (prepared != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::getFileByDir error : " << sqlite3_errmsg(db_);
        return prepared;
    }
    const std::string prefix = componentPrefix(dir);
    const std::string bound = prefixUpperBound(prefix);
    sqlite3_bind_int64(stmt, 1, afterRowid);
    bindText(stmt, 2, dir);
    bindText(stmt, 3, prefix);
    bindText(stmt, 4, bound);
    sqlite3_bind_int64(stmt, 5, static_cast<sqlite3_int64>(kMoveSliceRows));
    QLOG(INFO) << "QuorviaDBMgr::getFileByDir,  sql : " << sql << " , pattern : " << prefix;
    int code;
    while ((code = sqlite3_step(stmt)) == SQLITE_ROW) {
        PathRow row;
        row.rowid = sqlite3_column_int64(stmt, 0);
        row.path = columnText(stmt, 1);
        rows.push_back(row);
    }
    isSqlSucceed(code);
    sqlite3_finalize(stmt);
    return code;
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
    std::size_t removed = 0;
    waitingForStore("QuorviaDBMgr::deleteRowsBelow", ", below " + dir,
                    [&] { return tryDeleteRowsBelow(dir, limit, removed); });
    return removed;
}

int QuorviaDBMgr::tryDeleteRowsBelow(const std::string& dir, std::size_t limit,
                                     std::size_t& removed) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    removed = 0;
    const std::string sql = "DELETE FROM " + mainTableName_ +
                            " WHERE rowid IN (SELECT rowid FROM " + mainTableName_ +
                            " WHERE Path = ? OR (Path >= ? AND Path < ?) LIMIT ?)";
    sqlite3_stmt* stmt = NULL;
    const int prepared = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (prepared != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::deleteRowsBelow error : " << sqlite3_errmsg(db_);
        return prepared;
    }
    // Bound texts are not copied: they must outlive the statement.
    const std::string prefix = componentPrefix(dir);
    const std::string bound = prefixUpperBound(prefix);
    bindText(stmt, 1, dir);
    bindText(stmt, 2, prefix);
    bindText(stmt, 3, bound);
    sqlite3_bind_int64(stmt, 4, static_cast<sqlite3_int64>(limit));
    const int code = sqlite3_step(stmt);
    if (isSqlSucceed(code)) {
        removed = static_cast<std::size_t>(sqlite3_changes(db_));
    }
    sqlite3_finalize(stmt);
    return code;
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
    return rowids.empty() || waitingForStore("QuorviaDBMgr::deleteRowids", "",
                                             [&] { return tryDeleteRowids(rowids); });
}

int QuorviaDBMgr::tryDeleteRowids(const std::vector<sqlite3_int64>& rowids) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "DELETE FROM " + mainTableName_ + " WHERE rowid = ?";
    sqlite3_stmt* stmt = NULL;
    int code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (code != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::deleteRowids error : " << sqlite3_errmsg(db_);
        return code;
    }
    if (!execSql("BEGIN IMMEDIATE;", code)) {
        sqlite3_finalize(stmt);
        return code;
    }
    for (std::size_t i = 0; i < rowids.size() && succeeded(code); ++i) {
        sqlite3_bind_int64(stmt, 1, rowids[i]);
        code = sqlite3_step(stmt);
        isSqlSucceed(code);
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    if (succeeded(code) && execSql("COMMIT;", code)) {
        return code;
    }
    return rollBack(code);
}

// A full disk has already rolled the transaction back.
int QuorviaDBMgr::rollBack(int code) {
    if (!sqlite3_get_autocommit(db_)) {
        execSql("ROLLBACK;");
    }
    return code == SQLITE_BUSY ? SQLITE_BUSY : SQLITE_ABORT;
}

}  // namespace quorvia
