#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_BATCHORDER_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_BATCHORDER_H

#include <stdint.h>

#include <cstddef>
#include <vector>

#include "backup/inotify/FileChangeItem.h"

namespace quorvia {

// One event of a change batch: one of an item's earlier events or its last.
struct BatchEvent {
    std::size_t item;  // index of its item in the batch
    WatchMask mask;
    uint32_t cookie;
    uint32_t sequence;
    bool last;  // the item's last event, not one of its earlierEvents
};

// The order in which a batch's events become tasks: the order they happened
// in. A batch's items stand in the order their paths were first seen, and a
// path's later events may come long after; taken item by item, a move ran
// before the events of other paths that preceded it (a rename through a
// temporary name put two files' rows on one path; a file moved into a folder
// just before the folder was renamed kept its row at the old name). Events
// that carry no sequence (batches not made by the monitor) keep item order.
// Any thread; no state.
class BatchOrder {
public:
    virtual ~BatchOrder() {}

    // Every event of items exactly once, by sequence.
    static std::vector<BatchEvent> sInOrder(const std::vector<FileChangeItem>& items);
};

}  // namespace quorvia

#endif
