#include "multimedia/quorviatask/QuorviaDeleteFileTask.h"

#include "multimedia/QuorviaDBMgr.h"

namespace quorvia {

// A failure leaves the store's own log line; the task counts as done.
void QuorviaDeleteFileTask::run() { QuorviaDBMgr::sGetInstance().deleteMetadataByPath(path_); }

}  // namespace quorvia
