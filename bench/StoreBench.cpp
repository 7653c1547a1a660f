// Figures of the store: a folder of 10,000 indexed files renamed in a store of
// 100,000 rows, against the row-at-a-time way without the PATH index on a
// smaller store. Printed, not asserted.
#include <glog/logging.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Seconds.h"
#include "multimedia/QuorviaDBMgr.h"
#include "system/Log.h"

namespace {

const int kStoreRows = 100000;
const int kFolderRows = 10000;
const int kBaselineStoreRows = 20000;
const int kBaselineFolderRows = 20;

using quorvia_bench::Clock;
using quorvia_bench::secondsSince;

void exec(sqlite3* db, const std::string& sql) { sqlite3_exec(db, sql.c_str(), NULL, NULL, NULL); }

// rows rows, the first folderRows of them in /userdisk/data/folder/.
void fill(const std::string& file, int rows, int folderRows) {
    sqlite3* db = NULL;
    sqlite3_open(file.c_str(), &db);
    exec(db, "BEGIN");
    sqlite3_stmt* stmt = NULL;
    sqlite3_prepare_v2(db, "INSERT INTO quorvia(HASH,PATH,TITLE,DATE) VALUES(?,?,?,0)", -1, &stmt,
                       NULL);
    for (int i = 0; i < rows; ++i) {
        const std::string hash = "hash" + std::to_string(i);
        const std::string path = i < folderRows
                                     ? "/userdisk/data/folder/f" + std::to_string(i) + ".jpg"
                                     : "/userdisk/data/other" + std::to_string(i % 97) + "/f" +
                                           std::to_string(i) + ".jpg";
        sqlite3_bind_text(stmt, 1, hash.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 2, path.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 3, "t", -1, SQLITE_STATIC);
        sqlite3_step(stmt);
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    exec(db, "COMMIT");
    sqlite3_close(db);
}

int countUnder(const std::string& file, const std::string& prefix) {
    sqlite3* db = NULL;
    sqlite3_open(file.c_str(), &db);
    sqlite3_stmt* stmt = NULL;
    sqlite3_prepare_v2(db, "SELECT count(*) FROM quorvia WHERE substr(PATH,1,?)=?", -1, &stmt,
                       NULL);
    sqlite3_bind_int(stmt, 1, static_cast<int>(prefix.size()));
    sqlite3_bind_text(stmt, 2, prefix.c_str(), -1, SQLITE_STATIC);
    sqlite3_step(stmt);
    const int count = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

void renameWithIndex(const std::string& dir, bool logInfo) {
    const std::string file = dir + (logInfo ? "/indexed-logged.db" : "/indexed.db");
    FLAGS_minloglevel = logInfo ? google::GLOG_INFO : google::GLOG_WARNING;
    { quorvia::QuorviaDBMgr create(file); }
    fill(file, kStoreRows, kFolderRows);
    quorvia::QuorviaDBMgr store(file);
    const Clock::time_point start = Clock::now();
    // Another connection watches for the moment every row has followed.
    double followed = -1;
    std::thread watcher([&file, &start, &followed]() {
        while (countUnder(file, "/userdisk/data/renamed/") < kFolderRows) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        followed = secondsSince(start);
    });
    store.updateDirPaths("/userdisk/data/folder/", "/userdisk/data/renamed/");
    const double returned = secondsSince(start);
    watcher.join();
    FLAGS_minloglevel = google::GLOG_INFO;
    std::printf(
        "folder rename, %d rows in a store of %d, 1,000 a transaction over the PATH index, "
        "%s: every row followed after %.3f s, call returned after %.3f s\n",
        kFolderRows, kStoreRows,
        logInfo ? "with its 20,002 INFO lines (glog files + syslog)" : "INFO lines off", followed,
        returned);
}

// The row-at-a-time way: a LIKE scan, then one autocommitted UPDATE per row,
// each a full scan as PATH has no index.
void renameRowByRowWithoutIndex(const std::string& dir) {
    const std::string file = dir + "/plain.db";
    { quorvia::QuorviaDBMgr create(file); }
    sqlite3* db = NULL;
    sqlite3_open(file.c_str(), &db);
    exec(db, "DROP INDEX quorvia_path");
    sqlite3_close(db);
    fill(file, kBaselineStoreRows, kBaselineFolderRows);
    sqlite3_open(file.c_str(), &db);
    const Clock::time_point start = Clock::now();
    sqlite3_stmt* select = NULL;
    sqlite3_prepare_v2(db, "SELECT Path FROM quorvia WHERE Path LIKE '/userdisk/data/folder/%'",
                       -1, &select, NULL);
    std::vector<std::string> paths;
    while (sqlite3_step(select) == SQLITE_ROW) {
        paths.push_back(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)));
    }
    sqlite3_finalize(select);
    sqlite3_stmt* update = NULL;
    sqlite3_prepare_v2(db, "UPDATE quorvia SET PATH=? WHERE PATH=?", -1, &update, NULL);
    const std::string oldDir = "/userdisk/data/folder/";
    for (size_t i = 0; i < paths.size(); ++i) {
        const std::string newPath = "/userdisk/data/renamed/" + paths[i].substr(oldDir.size());
        sqlite3_bind_text(update, 1, newPath.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(update, 2, paths[i].c_str(), -1, SQLITE_STATIC);
        sqlite3_step(update);
        sqlite3_reset(update);
    }
    sqlite3_finalize(update);
    const double seconds = secondsSince(start);
    sqlite3_close(db);
    std::printf("baseline, row by row without index: %d rows in a store of %d: %.3f s "
                "(%.2f ms a row)\n",
                kBaselineFolderRows, kBaselineStoreRows, seconds,
                seconds * 1000 / kBaselineFolderRows);
}

}  // namespace

int main() {
    char pattern[] = "/tmp/quorvia-store-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    // Log to files as the daemon does, so the per-row lines are counted in.
    FLAGS_log_dir = dir;
    google::InitGoogleLogging("store-bench");
    // As the daemon does: its lines written by a thread of their own.
    talvern::Log::sStartThread();
    renameWithIndex(dir, false);
    renameWithIndex(dir, true);
    renameRowByRowWithoutIndex(dir);
    std::system(("rm -rf '" + dir + "'").c_str());
    return 0;
}
