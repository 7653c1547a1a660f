#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"

#include <boost/thread/thread.hpp>

#include "multimedia/QuorviaDBMgr.h"
#include "system/Log.h"

namespace quorvia {

void QuorviaDeleteDirTask::run() {
    std::size_t removed = 0;
    std::size_t slice;
    do {
        boost::this_thread::interruption_point();
        slice = QuorviaDBMgr::sGetInstance().deleteRowsBelow(path_, kRowsPerSlice);
        removed += slice;
    } while (slice == kRowsPerSlice);
    if (removed > 0) {
        QLOG(INFO) << "QuorviaDeleteDirTask, " << removed << " rows left below " << path_
                   << " removed";
    }
}

}  // namespace quorvia
