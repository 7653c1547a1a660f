#ifndef QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H
#define QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H

#include <vector>

#include "backup/inotify/FileChangeItem.h"

// Receives batches of changes from the monitor or the scanner.
class IFileChangeMonitorObserver {
public:
    virtual ~IFileChangeMonitorObserver() {}

    // Called synchronously on the source's thread, which waits for the return.
    // The caller keeps the vector: the pointer is good only during the call,
    // and the observer reads the items in order, neither freeing nor keeping
    // it.
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType type) = 0;
};

#endif
