#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIADELETEDIRTASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIADELETEDIRTASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// A directory that went away: every row still below it leaves the store. Its
// files' own deletes come first as a rule, but the kernel may have dropped
// them (a queue overflow), so the directory takes what is left.
class QuorviaDeleteDirTask : public QuorviaFileTask {
public:
    // Rows removed per store call: the lock is never held for long.
    static constexpr std::size_t kRowsPerSlice = 1000;

    QuorviaDeleteDirTask(const std::string& path, MonitorType type) : QuorviaFileTask(path, type) {}
    virtual ~QuorviaDeleteDirTask() {}
    virtual void run();
};

}  // namespace quorvia

#endif
