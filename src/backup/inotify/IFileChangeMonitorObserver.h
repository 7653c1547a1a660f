#ifndef QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H
#define QUORVIA_BACKUP_INOTIFY_IFILECHANGEMONITOROBSERVER_H

#include <string>
#include <vector>

#include "backup/inotify/FileChangeItem.h"

// A folder that the monitor found at another path than the one it watched it
// by, once it placed its watches anew: both paths end in "/".
struct FolderMove {
    std::string from;
    std::string to;
};

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
    // anew. The folders in moves went from where they were to where they are
    // meanwhile, all at once (two folders that swapped names are two moves;
    // one that only went along with the folder above it is left out), and
    // what the store holds under the roots must then be checked against the
    // disk. Same thread as update. Ignored unless
    // overridden.
    virtual void eventsLost(const std::vector<std::string>& roots,
                            const std::vector<FolderMove>& moves) {
        (void)roots;
        (void)moves;
    }
};

#endif
