#ifndef QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H
#define QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H

#include <vector>

#include "backup/inotify/IFileChangeMonitorObserver.h"

namespace monitor_test {

// Keeps a copy of every batch it is given.
class RecordingObserver : public IFileChangeMonitorObserver {
public:
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType type) {
        batches.push_back(*changes);
        types.push_back(type);
    }
    std::vector<std::vector<FileChangeItem> > batches;
    std::vector<MonitorType> types;
};

}  // namespace monitor_test

#endif
