#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMOVEDIRTASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMOVEDIRTASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A directory moved inside the tree: the rows below it follow. Both paths
// end in "/"; path() is the new path, from() the old one.
class QuorviaMoveDirTask : public QuorviaFileTask {
public:
    QuorviaMoveDirTask(const std::string& from, const std::string& to, MonitorType type)
        : QuorviaFileTask(to, type), from_(from) {}
    virtual ~QuorviaMoveDirTask() {}

    virtual void run();

    const std::string& from() const { return from_; }

private:
    std::string from_;
};

}  // namespace quorvia

#endif
