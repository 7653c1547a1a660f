#ifndef QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H
#define QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H

#include <string>
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
    virtual void eventsLost(const std::vector<std::string>& roots) { lost.push_back(roots); }
    std::vector<std::vector<FileChangeItem> > batches;
    std::vector<MonitorType> types;
    std::vector<std::vector<std::string> > lost;
};

}  // namespace monitor_test

#endif
