#include "multimedia/quorviatask/QuorviaReconcileTask.h"

#include <errno.h>
#include <sys/stat.h>

#include <boost/thread/thread.hpp>
#include <vector>

#include "multimedia/QuorviaDBMgr.h"
#include "storage/FileStatus.h"
#include "system/Log.h"

namespace quorvia {

namespace {

// Gone for sure: a path that can't be examined for another reason (a disk
// error) keeps its row.
bool isGone(const std::string& path) {
    talvern::FileStatus status;
    const int error = talvern::FileStatus::sOfPath(path, status, false);
    return error == ENOENT || error == ENOTDIR;
}

}  // namespace

void QuorviaReconcileTask::run() {
    talvern::FileStatus status;
    if (talvern::FileStatus::sOfPath(path_, status) != 0 || !status.isDirectory()) {
        QLOG(WARNING) << "QuorviaReconcileTask, " << path_ << " is not there; its rows stay";
        return;
    }
    QuorviaDBMgr& store = QuorviaDBMgr::sGetInstance();
    std::vector<QuorviaDBMgr::StoredPath> rows;
    sqlite3_int64 after = 0;
    std::size_t checked = 0, removed = 0;
    do {
        boost::this_thread::interruption_point();
        if (!store.getRowsBelowAfter(path_, after, kRowsPerSlice, rows)) {
            break;
        }
        std::vector<sqlite3_int64> gone;
        for (const QuorviaDBMgr::StoredPath& row : rows) {
            if (isGone(row.second)) {
                gone.push_back(row.first);
            }
            after = row.first;
        }
        if (store.deleteRowids(gone)) {
            removed += gone.size();
        }
        checked += rows.size();
    } while (rows.size() == kRowsPerSlice);
    QLOG(WARNING) << "QuorviaReconcileTask, " << checked << " rows below " << path_ << " checked, "
                  << removed << " of files gone removed";
}

}  // namespace quorvia
