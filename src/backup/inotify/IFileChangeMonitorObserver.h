#ifndef QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H
#define QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H

#include <string>
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
    // The source lost events (the kernel's queue overflowed) under these
    // roots, after the changes it had were delivered and its watches placed
    // anew: what the store holds there must be checked against the disk.
    // Same thread as update. Ignored unless overridden.
    virtual void eventsLost(const std::vector<std::string>& roots) { (void)roots; }
};

#endif
