#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIACREATEFILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIACREATEFILETASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A path that came into being. Rows enter the store only through requests,
// so there is nothing to do.
class QuorviaCreateFileTask : public QuorviaFileTask {
public:
    QuorviaCreateFileTask(const std::string& path, MonitorType type)
        : QuorviaFileTask(path, type) {}
    virtual ~QuorviaCreateFileTask() {}

    virtual void run();
};

}  // namespace quorvia

#endif
