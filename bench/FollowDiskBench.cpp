// Figures of the real daemon following its data folder: how long the rows of
// a deleted folder of 10,000 indexed files take to go, the hit path's
// latency while a moved folder of 10,000 indexed files is rewritten, and how
// long the rows of a deleted folder of 100,000 files take to go in a store
// of 1,000,000 rows, where the kernel's event queue overflows and the store
// is checked against the disk. Printed, not asserted.
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "BenchDaemon.h"
#include "LoadGenerator.h"
#include "Seconds.h"
#include "backup/inotify/FileChangeMonitor.h"
#include "multimedia/QuorviaDBMgr.h"

namespace {

using quorvia_bench::DAEMON_PORT;
using quorvia_bench::LoadFigures;
using quorvia_bench::LoadGenerator;

const int kFolderFiles = 10000;
const int kOverflowFolderFiles = 100000;
const int kOverflowStoreRows = 1000000;
const double kMaxWaitSeconds = 60;

using quorvia_bench::Clock;
using quorvia_bench::secondsSince;

bool run(const std::string& command) { return system(command.c_str()) == 0; }

std::string databaseOf(const std::string& root) {
    return root + "/userdisk/data/.systemconfig/DataBase/quorvia.db";
}

// Rows for paths at prefix1.mp3 ... prefixN.mp3, hashes NAME1 ... NAMEn.
void addRows(const std::string& root, const std::string& name, const std::string& prefix,
             int count) {
    sqlite3* db = NULL;
    sqlite3_open(databaseOf(root).c_str(), &db);
    sqlite3_exec(db, "BEGIN", NULL, NULL, NULL);
    sqlite3_stmt* insert = NULL;
    sqlite3_prepare_v2(db, "INSERT INTO quorvia(HASH,PATH,TITLE,DATE) VALUES(?,?,'t',0)", -1,
                       &insert, NULL);
    for (int i = 1; i <= count; ++i) {
        const std::string hash = name + std::to_string(i);
        const std::string path = prefix + std::to_string(i) + ".mp3";
        sqlite3_bind_text(insert, 1, hash.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, path.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", NULL, NULL, NULL);
    sqlite3_close(db);
}

// count empty files in data/NAME, and a row for each.
void indexFolder(const std::string& root, const std::string& name, int count = kFolderFiles) {
    const std::string folder = root + "/userdisk/data/" + name;
    run("mkdir -p " + folder + " && cd " + folder + " && seq 1 " + std::to_string(count) +
        " | sed 's/$/.mp3/' | xargs touch");
    addRows(root, name, folder + "/", count);
}

// Rows whose path lies under folder/, read on a connection of the bench's own.
int rowsUnder(const std::string& root, const std::string& folder) {
    sqlite3* db = NULL;
    sqlite3_open(databaseOf(root).c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* stmt = NULL;
    const std::string prefix = root + "/userdisk/data/" + folder + "/";
    sqlite3_prepare_v2(db, "SELECT count(*) FROM quorvia WHERE substr(PATH,1,?)=?", -1, &stmt,
                       NULL);
    sqlite3_bind_int(stmt, 1, static_cast<int>(prefix.size()));
    sqlite3_bind_text(stmt, 2, prefix.c_str(), -1, SQLITE_STATIC);
    const int count = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : -1;
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// Seconds until rowsUnder(folder) reads want; negative when it never does.
double waitForRows(const std::string& root, const std::string& folder, int want,
                   Clock::time_point start) {
    while (rowsUnder(root, folder) != want) {
        if (secondsSince(start) > kMaxWaitSeconds) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return secondsSince(start);
}

std::string hitRequest(const std::string& root) {
    return "{\"api\":1,\"path\":\"" + root + "/userdisk/data/keep.mp3\",\"name\":\"keep.mp3\","
           "\"hash\":\"keep\"}";
}

// The daemon places its watches on a thread of its own after it starts;
// figures are taken once the kernel shows at least `folders` of them.
bool waitWatching(pid_t pid, int folders) {
    const std::string count = "test $(cat /proc/" + std::to_string(pid) +
                              "/fdinfo/* 2>/dev/null | grep -c '^inotify wd:') -ge " +
                              std::to_string(folders);
    const Clock::time_point start = Clock::now();
    while (!run(count)) {
        if (secondsSince(start) > kMaxWaitSeconds) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

void benchDelete(const std::string& root) {
    const Clock::time_point start = Clock::now();
    run("rm -rf " + root + "/userdisk/data/gone");
    const double seconds = waitForRows(root, "gone", 0, start);
    printf("folder of %d indexed files deleted: last row gone after %.3f s%s\n", kFolderFiles,
           seconds, seconds < 0 ? " (never within the wait)" : "");
    fflush(stdout);
}

void benchHitDuringMove(const std::string& root) {
    const LoadGenerator::RequestOf hit = [root](int, long) { return hitRequest(root); };
    const LoadFigures idle = LoadGenerator::sRun(DAEMON_PORT, 1, 1.0, hit);
    LoadFigures moving = {0, 0, 0, 0, 0};
    std::thread load([&] { moving = LoadGenerator::sRun(DAEMON_PORT, 1, 3.0, hit); });
    const Clock::time_point start = Clock::now();
    run("mv " + root + "/userdisk/data/big " + root + "/userdisk/data/moved");
    const double seconds = waitForRows(root, "moved", kFolderFiles, start);
    load.join();
    printf("folder of %d indexed files moved: every row followed after %.3f s (%.3f s of it the "
           "monitor's quiet wait before it delivers)\n",
           kFolderFiles, seconds, FileChangeMonitor::kQuietMilliseconds / 1000.0);
    printf("hit path, idle:               p50 %7.1f us  p99 %7.1f us  (%ld requests)\n",
           idle.p50Micros, idle.p99Micros, idle.requests);
    printf("hit path, during the rewrite: p50 %7.1f us  p99 %7.1f us  (%ld requests, %ld failed)\n",
           moving.p50Micros, moving.p99Micros, moving.requests, moving.failures);
    fflush(stdout);
}

// The kernel keeps 16,384 events: deleting 100,000 files at once overflows
// its queue, and the rows come out through the check against the disk.
void benchOverflowDelete(const std::string& root) {
    const LoadGenerator::RequestOf hit = [root](int, long) { return hitRequest(root); };
    LoadFigures during = {0, 0, 0, 0, 0};
    std::thread load([&] { during = LoadGenerator::sRun(DAEMON_PORT, 1, 10.0, hit); });
    const Clock::time_point start = Clock::now();
    run("rm -rf " + root + "/userdisk/data/huge");
    const double seconds = waitForRows(root, "huge", 0, start);
    load.join();
    const bool overflowed =
        run("grep -q 'inotify dropped events' " + root + "/glog/quorvia.WARNING 2>/dev/null");
    printf("folder of %d indexed files deleted in a store of %d rows%s: last row gone after "
           "%.3f s%s\n",
           kOverflowFolderFiles, kOverflowStoreRows,
           overflowed ? " (the event queue overflowed)" : "", seconds,
           seconds < 0 ? " (never within the wait)" : "");
    printf("hit path, meanwhile:          p50 %7.1f us  p99 %7.1f us  (%ld requests, %ld failed)\n",
           during.p50Micros, during.p99Micros, during.requests, during.failures);
    fflush(stdout);
}

}  // namespace

int main() {
    quorvia_bench::quietBenchProcess("follow-bench");
    if (quorvia_bench::accepting(DAEMON_PORT)) {
        printf("port %d is taken: no figures\n", DAEMON_PORT);
        return 1;
    }
    char pattern[] = "/tmp/quorvia-follow-bench-XXXXXX";
    const std::string root = mkdtemp(pattern);
    setenv("QUORVIA_ROOT", root.c_str(), 1);
    // The directory filter reads the localised folder names.
    run("mkdir -p " + root + "/glog " + root + "/userdisk/data/.systemconfig/DataBase " + root +
        "/etc/talvernconfig && cp -r " + QUORVIA_SOURCE_DIR + "/data/localization " + root +
        "/etc/talvernconfig/ && touch " + root + "/userdisk/data/keep.mp3");
    { quorvia::QuorviaDBMgr schema(databaseOf(root)); }
    indexFolder(root, "gone");
    indexFolder(root, "big");
    // INFO lines off: their cost is the machine's syslog, not the follower's.
    const pid_t pid = quorvia_bench::startDaemon(root, true);
    LoadGenerator::sSend(DAEMON_PORT, 1, [root](int, long) { return hitRequest(root); });
    // The data folder, gone/ and big/.
    const bool following = waitWatching(pid, 3);
    if (following) {
        benchDelete(root);
        benchHitDuringMove(root);
    } else {
        printf("the daemon did not follow its data folder: no figures\n");
    }
    quorvia_bench::stopDaemon(pid);
    bool followingAgain = false;
    if (following) {
        indexFolder(root, "huge", kOverflowFolderFiles);
        addRows(root, "filler", "/extdisks/sdb1/filler/",
                kOverflowStoreRows - kOverflowFolderFiles);
        // INFO lines on, as shipped: the monitor writes one per event, and
        // the kernel's queue overflows while it does.
        const pid_t again = quorvia_bench::startDaemon(root, false);
        followingAgain = waitWatching(again, 2);
        if (followingAgain) {
            benchOverflowDelete(root);
        }
        quorvia_bench::stopDaemon(again);
    }
    return run("rm -rf '" + root + "'") && following && followingAgain ? 0 : 1;
}
