#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_BATCHORDER_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_BATCHORDER_H

#include <stdint.h>

#include <cstddef>
#include <vector>

#include "backup/inotify/FileChangeItem.h"

namespace quorvia {

// One event of a change batch: an item's earlier move half or its last event.
struct BatchEvent {
    std::size_t item;  // index of its item in the batch
    WatchMask mask;
    uint32_t cookie;
    bool last;  // the item's last event, not one of its earlierMoves
};

// The order in which a batch's events become tasks. A batch keeps each
// path's events in order, but its items stand in the order their paths were
// first seen, while a move happens at once at two paths: taken item by item,
// a move pairs only at its second half, after events that followed it (a
// rename through a temporary name then put two files' rows on one path, and
// a file renamed before another of its old name was removed lost its row).
// So the two halves of a move that both lie in the batch come out together,
// once every earlier event of both their items has come out; within that,
// items go in their order. Any thread; no state.
class BatchOrder {
public:
    virtual ~BatchOrder() {}

    // Every event of items exactly once. Halves whose cookies tie a knot no
    // real order could make come out one by one, in item order.
    static std::vector<BatchEvent> sInOrder(const std::vector<FileChangeItem>& items);
};

}  // namespace quorvia

#endif
