#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMOVEFILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAMOVEFILETASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A file moved inside the tree: its row follows it. path() is the new path,
// from() the old one.
class QuorviaMoveFileTask : public QuorviaFileTask {
public:
    QuorviaMoveFileTask(const std::string& from, const std::string& to, MonitorType type)
        : QuorviaFileTask(to, type), from_(from) {}
    virtual ~QuorviaMoveFileTask() {}

    virtual void run();

    const std::string& from() const { return from_; }

private:
    std::string from_;
};

}  // namespace quorvia

#endif
