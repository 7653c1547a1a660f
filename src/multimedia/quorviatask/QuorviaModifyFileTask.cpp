#include "multimedia/quorviatask/QuorviaModifyFileTask.h"

namespace quorvia {

void QuorviaModifyFileTask::run() {}

}  // namespace quorvia
