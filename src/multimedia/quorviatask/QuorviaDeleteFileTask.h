#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIADELETEFILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIADELETEFILETASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A file that went away: its row leaves the store.
class QuorviaDeleteFileTask : public QuorviaFileTask {
public:
    QuorviaDeleteFileTask(const std::string& path, MonitorType type)
        : QuorviaFileTask(path, type) {}
    virtual ~QuorviaDeleteFileTask() {}

    virtual void run();
};

}  // namespace quorvia

#endif
