#include "multimedia/quorviatask/QuorviaMoveFileTask.h"

#include "multimedia/QuorviaDBMgr.h"

namespace quorvia {

// A failure leaves the store's own log line; the task counts as done.
void QuorviaMoveFileTask::run() { QuorviaDBMgr::sGetInstance().updateFilePath(from_, path_); }

}  // namespace quorvia
