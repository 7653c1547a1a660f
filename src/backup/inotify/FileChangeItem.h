#ifndef QUORVIA_BACKUP_INOTIFY_FILECHANGEITEM_H
#define QUORVIA_BACKUP_INOTIFY_FILECHANGEITEM_H

#include <stdint.h>

#include <string>
#include <vector>

// The monitor's own event vocabulary.
enum WatchMask {
    TALVERN_MODIFY = 1,  // content of the path was written
    TALVERN_CREATE = 2,  // the path came into being
    TALVERN_DELETE = 3,  // the path went away
    TALVERN_FROM = 4,    // the path is the old name of a move
    TALVERN_TO = 5       // the path is the new name of a move
};

// Which source made a batch; carried into the tasks, decides nothing.
enum MonitorType {
    MONITOR_TYPE_SCANNER = 1,
    MONITOR_TYPE_INOTIFY = 2
};

// An event a path had before its last one in the batch: half of a move, or
// the delete of what stood at the path before something else came there.
struct EarlierEvent {
    WatchMask mask;     // TALVERN_FROM, TALVERN_TO or TALVERN_DELETE
    uint32_t cookie;    // the kernel's move cookie; 0 for a delete
    uint32_t sequence;  // its place among the batch's events
};

// One entry of a change batch, copied by value.
struct FileChangeItem {
    FileChangeItem() : mask(static_cast<WatchMask>(0)), isDir(false), cookie(0), sequence(0) {}
    FileChangeItem(const std::string& p, WatchMask m, bool d, uint32_t c = 0)
        : path(p), mask(m), isDir(d), cookie(c), sequence(0) {}

    std::string path;  // full path; a directory's path ends in "/"
    WatchMask mask;    // the last event seen for the path
    bool isDir;        // the last event for the path was about a directory
    // The kernel's move cookie of the last event, which ties the two halves of
    // one move together; 0 for every event that is not half of a move.
    uint32_t cookie;
    // The last event's place among the events of the batch (in the order the
    // kernel reported them); 0 throughout a batch made by other means.
    uint32_t sequence;
    // The moves and deletes the path took part in before its last event, in
    // their order: a file renamed and then written, deleted or renamed again
    // within one batch still carries its row through each move, and a file
    // deleted before another took its name loses its row.
    std::vector<EarlierEvent> earlierEvents;
};

#endif
