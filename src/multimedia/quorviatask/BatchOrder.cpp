#include "multimedia/quorviatask/BatchOrder.h"

#include <algorithm>

namespace quorvia {

std::vector<BatchEvent> BatchOrder::sInOrder(const std::vector<FileChangeItem>& items) {
    std::vector<BatchEvent> events;
    for (std::size_t i = 0; i < items.size(); ++i) {
        for (const EarlierEvent& earlier : items[i].earlierEvents) {
            events.push_back(BatchEvent{i, earlier.mask, earlier.cookie, earlier.sequence, false});
        }
        events.push_back(BatchEvent{i, items[i].mask, items[i].cookie, items[i].sequence, true});
    }
    std::stable_sort(events.begin(), events.end(), [](const BatchEvent& a, const BatchEvent& b) {
        return a.sequence < b.sequence;
    });
    return events;
}

}  // namespace quorvia
