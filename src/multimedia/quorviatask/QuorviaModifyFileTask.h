#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMODIFYFILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMODIFYFILETASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A path whose content was written, or that moved in from outside the tree.
// Rows enter the store only through requests, so there is nothing to do.
class QuorviaModifyFileTask : public QuorviaFileTask {
public:
    QuorviaModifyFileTask(const std::string& path, MonitorType type)
        : QuorviaFileTask(path, type) {}
    virtual ~QuorviaModifyFileTask() {}

    virtual void run();
};

}  // namespace quorvia

#endif
