#include <boost/thread/lock_guard.hpp>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/QuorviaDBMgrSql.h"
#include "system/CommonUtils.h"
#include "system/Log.h"
#include "tools/HashCalculator.h"

namespace quorvia {

using sqlutil::bindText;
using sqlutil::columnText;

// Holds no lock of its own: the file is read outside the store's mutex, so a
// slow disk does not stall the store. Two threads may both hash a new path;
// the row of the later insert stays.
std::string QuorviaDBMgr::getFileHash(const std::string& path) {
    const std::string cached = doGetFileHash(path);
    if (!cached.empty()) {
        return cached;
    }
    QuorviaContext context;
    context.path = path;
    context.hash = talvern::HashCalculator::calcFile(path, kHashBufferKiB);
    insertToDB(context);
    return context.hash;
}

std::string QuorviaDBMgr::doGetFileHash(const std::string& path) {
    const std::string unified = CommonUtils::sUnifyPathStyle(path);
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "SELECT HASH FROM " + mainTableName_ + " WHERE PATH=?;";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::doGetFileHash, prepare error: " << sqlite3_errmsg(db_);
        return std::string();
    }
    bindText(stmt, 1, unified);
    std::string hash;
    if (sqlite3_step(stmt) == SQLITE_ROW) {
        hash = columnText(stmt, 0);
        QLOG(INFO) << "QuorviaDBMgr::doGetFileHash,  hash : " << hash;
    }
    sqlite3_finalize(stmt);
    return hash;
}

// A row found, nothing else: an empty result or a failed step is false.
bool QuorviaDBMgr::isExistsFileByHash(const std::string& hash) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string sql = "SELECT HASH FROM " + mainTableName_ + " WHERE HASH=?;";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "QuorviaDBMgr::isExistsFileByHash, prepare error: " << sqlite3_errmsg(db_);
        return false;
    }
    bindText(stmt, 1, hash);
    const int rc = sqlite3_step(stmt);
    isSqlSucceed(rc);
    sqlite3_finalize(stmt);
    return rc == SQLITE_ROW;
}

}  // namespace quorvia
