#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/QuorviaDBMgrSql.h"
#include "system/CommonUtils.h"
#include "system/Log.h"

namespace quorvia {

using sqlutil::bindText;
using sqlutil::columnText;

namespace {

// A disk's root as peers write it, without its trailing slashes: "/mnt/usb1//"
// is the disk /mnt/usb1.
std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path[path.size() - 1] == '/') {
        path.erase(path.size() - 1);
    }
    return path;
}

}  // namespace

bool QuorviaDBMgr::insertToDB(const QuorviaContext& context) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (db_ == NULL) {
        return false;
    }
    checkFileInPlace();
    const std::string sql = "INSERT OR REPLACE INTO " + mainTableName_ +
                            "(HASH,PATH,TITLE,DATE,MIME,DURATION,ARTIST,ALBUM)VALUES "
                            "(?,?,?,?,?,?,?,?);";
    sqlite3_stmt* stmt = NULL;
    if (!isSqlSucceed(sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL))) {
        return false;
    }
    const talvern::metadata_s& metadata = context.metadata;
    bindText(stmt, 1, context.hash);
    bindText(stmt, 2, context.path);
    bindText(stmt, 3, metadata.title);
    sqlite3_bind_int64(stmt, 4, static_cast<int32_t>(metadata.date));
    bindText(stmt, 5, metadata.mime);
    bindText(stmt, 6, metadata.duration);
    bindText(stmt, 7, metadata.artist);
    bindText(stmt, 8, metadata.album);
    const bool result = isSqlSucceed(sqlite3_step(stmt));
    sqlite3_finalize(stmt);
    return result;
}

// No lock where the connection runs in SQLite's serialized mode: SQLite
// serialises every call on it, and this read may interleave with a writer
// holding mutex_ (the hit path does not wait for a directory move). A
// writer's open transaction is visible here, as it is the same connection.
// A SQLite built otherwise gets the store's lock.
bool QuorviaDBMgr::getMetadataByHash(const std::string& hash, talvern::metadata_s& metadata) {
    boost::unique_lock<boost::mutex> lock(mutex_, boost::defer_lock);
    if (!isSerialized()) {
        lock.lock();
    }
    const std::string sql = "SELECT TITLE, DATE, MIME, DURATION, ARTIST, ALBUM FROM " +
                            mainTableName_ + " WHERE HASH=?;";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "prepare getMetadataByHash error : " << sqlite3_errmsg(db_);
        return true;
    }
    bindText(stmt, 1, hash);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
        metadata.title = columnText(stmt, 0);
        metadata.date = static_cast<int32_t>(sqlite3_column_int64(stmt, 1));
        metadata.mime = columnText(stmt, 2);
        metadata.duration = columnText(stmt, 3);
        metadata.artist = columnText(stmt, 4);
        metadata.album = columnText(stmt, 5);
    }
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        QLOG(ERROR) << "getMetadataByHash error : " << sqlite3_errmsg(db_);
    }
    sqlite3_finalize(stmt);
    return true;
}

bool QuorviaDBMgr::deleteMetadataByPath(const std::string& path) {
    return waitingForStore("QuorviaDBMgr::deleteMetadataByPath", ", path is " + path,
                           [&] { return tryDeleteMetadataByPath(path); });
}

int QuorviaDBMgr::tryDeleteMetadataByPath(const std::string& path) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string unified = CommonUtils::sUnifyPathStyle(path);
    const std::string sql = "DELETE FROM " + mainTableName_ + " WHERE Path=?;";
    sqlite3_stmt* stmt = NULL;
    const int prepared = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (prepared != SQLITE_OK) {
        QLOG(ERROR) << "prepare deleteMetadataByPath error: " << sqlite3_errmsg(db_);
        return prepared;
    }
    QLOG(INFO) << "QuorviaDBMgr::deleteMetadataByPath sql_str is " << sql << ", path is "
               << unified;
    bindText(stmt, 1, unified);
    const int code = sqlite3_step(stmt);
    isSqlSucceed(code);
    sqlite3_finalize(stmt);
    return code;
}

// The root and everything below it, on whole components: /mnt/usb1 takes
// /mnt/usb1/... but not /mnt/usb10. ASCII case is ignored, as a disk's file
// system may not keep it; every other byte counts. (LIKE read each byte that
// is not UTF-8 as the same character, so a root of Latin-1 bytes took the rows
// of its neighbours too.) lower() folds ASCII letters only; instr()'s 1 means
// a prefix, byte for byte.
bool QuorviaDBMgr::deleteMetadataByRootPath(const std::string& rootPath) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string unified = withoutTrailingSlashes(rootPath);
    if (unified.empty() || unified == "/") {
        QLOG(WARNING) << "QuorviaDBMgr::deleteMetadataByRootPath refuses root : " << rootPath;
        return false;
    }
    const std::string sql = "DELETE FROM " + mainTableName_ +
                            " WHERE lower(Path) = lower(?) OR instr(lower(Path), lower(?)) = 1;";
    sqlite3_stmt* stmt = NULL;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL) != SQLITE_OK) {
        QLOG(ERROR) << "prepare deleteMetadataByRootPath error: " << sqlite3_errmsg(db_);
        return false;
    }
    QLOG(INFO) << "QuorviaDBMgr::deleteMetadataByRootPath sql_str is " << sql << ", path is "
               << unified;
    const std::string below = unified + "/";
    bindText(stmt, 1, unified);
    bindText(stmt, 2, below);
    const bool result = isSqlSucceed(sqlite3_step(stmt));
    sqlite3_finalize(stmt);
    return result;
}

bool QuorviaDBMgr::updateFilePath(const std::string& oldPath, const std::string& newPath) {
    return waitingForStore("QuorviaDBMgr::updateFilePath", ", from " + oldPath + ", to " + newPath,
                           [&] { return tryUpdateFilePath(oldPath, newPath); });
}

int QuorviaDBMgr::tryUpdateFilePath(const std::string& oldPath, const std::string& newPath) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    const std::string from = CommonUtils::sUnifyPathStyle(oldPath);
    const std::string to = CommonUtils::sUnifyPathStyle(newPath);
    const std::string sql = "UPDATE " + mainTableName_ + " SET PATH =? WHERE PATH=?;";
    sqlite3_stmt* stmt = NULL;
    const int prepared = sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL);
    if (prepared != SQLITE_OK) {
        QLOG(ERROR) << "prepare updateFilePath error: " << sqlite3_errmsg(db_);
        return prepared;
    }
    bindText(stmt, 1, to);
    bindText(stmt, 2, from);
    QLOG(INFO) << "QuorviaDBMgr::updateFilePath, sql_str is " << sql << ", from " << from
               << ", to " << to;
    const int code = sqlite3_step(stmt);
    isSqlSucceed(code);
    sqlite3_finalize(stmt);
    return code;
}

}  // namespace quorvia
