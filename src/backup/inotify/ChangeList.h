#ifndef QUORVIA_BACKUP_INOTIFY_CHANGELIST_H
#define QUORVIA_BACKUP_INOTIFY_CHANGELIST_H

#include <stdint.h>

#include <boost/unordered_map.hpp>
#include <string>
#include <vector>

#include "backup/inotify/FileChangeItem.h"

// The monitor's change list: one item per path, in the order of each path's
// first event, each item showing only the last event for its path. A path's
// item is found through a hash index, so a batch of n paths costs O(n).
// Not thread-safe: the monitor thread owns it.
class ChangeList {
public:
    ChangeList() : nextSequence_(0) {}
    virtual ~ChangeList() {}

    // Folds one event into the list: overwrites the mask, kind, cookie and
    // sequence of the path's item where there is one (it keeps its place; a
    // move half or a delete it showed goes to its earlier events), else
    // appends. Each event gets the next sequence number of the batch. The
    // move half that the item shows already, cookie and all, changes nothing.
    void add(const std::string& path, WatchMask mask, bool isDir, uint32_t cookie);
    // The path's item; NULL when the batch has none. Valid until the next add.
    const FileChangeItem* find(const std::string& path) const;
    void clear();
    bool empty() const { return items_.empty(); }
    std::size_t size() const { return items_.size(); }
    // The items in order; the vector stays the list's.
    std::vector<FileChangeItem>& items() { return items_; }

private:
    std::vector<FileChangeItem> items_;
    boost::unordered_map<std::string, std::size_t> indexByPath_;
    uint32_t nextSequence_;
};

#endif
