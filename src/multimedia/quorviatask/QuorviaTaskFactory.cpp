#include "multimedia/quorviatask/QuorviaTaskFactory.h"

#include <chrono>

#include "multimedia/quorviatask/QuorviaCreateFileTask.h"
#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"
#include "multimedia/quorviatask/QuorviaDeleteFileTask.h"
#include "multimedia/quorviatask/QuorviaModifyFileTask.h"
#include "multimedia/quorviatask/QuorviaMoveDirTask.h"
#include "multimedia/quorviatask/QuorviaMoveFileTask.h"
#include "system/Log.h"

namespace quorvia {

PendingMoves QuorviaTaskFactory::pendingMoves_;

void QuorviaTaskFactory::CreateTask(boost::shared_ptr<Dispatchable>& task, const std::string& path,
                                    WatchMask mask, bool isDir, MonitorType type,
                                    uint32_t cookie) {
    QLOG(INFO) << "create task: path is" << path << " mask : " << static_cast<int>(mask)
               << " , isDir : " << (isDir ? 1 : 0) << " , type : " << static_cast<int>(type);
    switch (mask) {
    case TALVERN_MODIFY:
        if (!isDir) {
            task.reset(new QuorviaModifyFileTask(path, type));
        }
        return;
    case TALVERN_CREATE:
        if (!isDir) {
            task.reset(new QuorviaCreateFileTask(path, type));
        }
        return;
    case TALVERN_DELETE:
        if (isDir) {
            task.reset(new QuorviaDeleteDirTask(path, type));
        } else {
            task.reset(new QuorviaDeleteFileTask(path, type));
        }
        return;
    case TALVERN_FROM:
    case TALVERN_TO:
        createMoveTask(task, path, mask, isDir, type, cookie);
        return;
    }
    QLOG(INFO) << "TaskFactory::CreateTask, mask : " << static_cast<int>(mask)
               << " , path : " << path;
}

namespace {

// The age of a waiting half is counted on a clock that no one sets: the
// wall clock stepped forward by the network's time at a router's start would
// drop the halves that wait on a batch slice.
time_t steadySeconds() {
    return static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

}  // namespace

void QuorviaTaskFactory::createMoveTask(boost::shared_ptr<Dispatchable>& task,
                                        const std::string& path, WatchMask mask, bool isDir,
                                        MonitorType type, uint32_t cookie) {
    std::string partner;
    if (!pendingMoves_.match(cookie, mask, isDir, path, steadySeconds(), partner)) {
        if (mask == TALVERN_TO && !isDir) {
            task.reset(new QuorviaModifyFileTask(path, type));
        }
        return;
    }
    const std::string& from = (mask == TALVERN_FROM) ? path : partner;
    const std::string& to = (mask == TALVERN_FROM) ? partner : path;
    if (isDir) {
        task.reset(new QuorviaMoveDirTask(from, to, type));
    } else {
        task.reset(new QuorviaMoveFileTask(from, to, type));
    }
}

void QuorviaTaskFactory::sClearPendingMoves() { pendingMoves_.clear(); }

}  // namespace quorvia
