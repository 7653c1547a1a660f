#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIARECONCILETASK_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIARECONCILETASK_H

#include "multimedia/quorviatask/QuorviaFileTask.h"

namespace quorvia {

// The store made true to the disk after the monitor lost events: every row
// below the root whose file is gone leaves the store, as its delete would
// have taken it. The rows are walked in slices, so that requests never wait
// long for the store's lock. A root that is not there (a disk gone) is left
// alone: its rows wait for the disk.
class QuorviaReconcileTask : public QuorviaFileTask {
public:
    static constexpr std::size_t kRowsPerSlice = 1000;

    QuorviaReconcileTask(const std::string& root, MonitorType type) : QuorviaFileTask(root, type) {}
    virtual ~QuorviaReconcileTask() {}
    virtual void run();
};

}  // namespace quorvia

#endif
