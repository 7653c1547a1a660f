#include "multimedia/quorviatask/QuorviaCreateFileTask.h"

namespace quorvia {

void QuorviaCreateFileTask::run() {}

}  // namespace quorvia
