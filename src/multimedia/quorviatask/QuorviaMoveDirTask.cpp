#include "multimedia/quorviatask/QuorviaMoveDirTask.h"

#include "multimedia/QuorviaDBMgr.h"

namespace quorvia {

void QuorviaMoveDirTask::run() { QuorviaDBMgr::sGetInstance().updateDirPaths(from_, path_); }

}  // namespace quorvia
