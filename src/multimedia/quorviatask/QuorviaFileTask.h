#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAFILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIAFILETASK_H

#include <string>

#include "backup/inotify/FileChangeItem.h"
#include "dispatcher/Dispatchable.h"

namespace quorvia {

// A task about one path of the disk, run once on the dispatcher's worker. A
// task with an empty path is skipped.
class QuorviaFileTask : public Dispatchable {
public:
    QuorviaFileTask(const std::string& path, MonitorType type) : path_(path), type_(type) {}
    virtual ~QuorviaFileTask() {}

    virtual bool isRecurring() { return false; }
    virtual bool shouldExecute() { return !path_.empty(); }

    const std::string& path() const { return path_; }
    MonitorType type() const { return type_; }

protected:
    std::string path_;
    MonitorType type_;
};

}  // namespace quorvia

#endif
