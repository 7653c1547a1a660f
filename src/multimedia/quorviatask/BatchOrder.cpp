#include "multimedia/quorviatask/BatchOrder.h"

#include <boost/unordered_map.hpp>
#include <set>
#include <utility>

namespace quorvia {

namespace {

// Where an event stands: its item and its place among the item's events.
typedef std::pair<std::size_t, std::size_t> Place;

class Sorter {
public:
    explicit Sorter(const std::vector<FileChangeItem>& items);
    std::vector<BatchEvent> run();

private:
    void pairHalves();
    bool isReady(std::size_t item) const;
    // Whether the front event of item waits for, or comes with, a partner.
    const Place* partnerOfFront(std::size_t item) const;
    void refresh(std::size_t item);
    void takeFront(std::size_t item);
    std::size_t firstUnfinished() const;

    std::vector<std::vector<BatchEvent> > events_;
    std::vector<std::size_t> next_;
    boost::unordered_map<uint64_t, Place> partners_;
    std::set<std::size_t> ready_;
    std::vector<BatchEvent> order_;
};

uint64_t key(const Place& place) {
    return (static_cast<uint64_t>(place.first) << 32) | place.second;
}

Sorter::Sorter(const std::vector<FileChangeItem>& items)
    : events_(items.size()), next_(items.size(), 0) {
    for (std::size_t i = 0; i < items.size(); ++i) {
        for (const MoveHalf& half : items[i].earlierMoves) {
            events_[i].push_back(BatchEvent{i, half.mask, half.cookie, false});
        }
        events_[i].push_back(BatchEvent{i, items[i].mask, items[i].cookie, true});
    }
    pairHalves();
}

// A cookie seen on exactly one FROM and one TO ties those two together.
void Sorter::pairHalves() {
    boost::unordered_map<uint32_t, std::vector<Place> > byCookie;
    for (std::size_t i = 0; i < events_.size(); ++i) {
        for (std::size_t p = 0; p < events_[i].size(); ++p) {
            const BatchEvent& event = events_[i][p];
            if (event.cookie != 0 && (event.mask == TALVERN_FROM || event.mask == TALVERN_TO)) {
                byCookie[event.cookie].push_back(Place(i, p));
            }
        }
    }
    for (const auto& entry : byCookie) {
        const std::vector<Place>& halves = entry.second;
        if (halves.size() == 2 && halves[0].first != halves[1].first &&
            events_[halves[0].first][halves[0].second].mask !=
                events_[halves[1].first][halves[1].second].mask) {
            partners_[key(halves[0])] = halves[1];
            partners_[key(halves[1])] = halves[0];
        }
    }
}

const Place* Sorter::partnerOfFront(std::size_t item) const {
    const auto found = partners_.find(key(Place(item, next_[item])));
    if (found == partners_.end() || next_[found->second.first] > found->second.second) {
        return NULL;
    }
    return &found->second;
}

bool Sorter::isReady(std::size_t item) const {
    if (next_[item] >= events_[item].size()) {
        return false;
    }
    const Place* partner = partnerOfFront(item);
    return partner == NULL || next_[partner->first] == partner->second;
}

void Sorter::refresh(std::size_t item) {
    if (isReady(item)) {
        ready_.insert(item);
    } else {
        ready_.erase(item);
    }
}

// Puts out the front event of item, with its partner when that waits too.
void Sorter::takeFront(std::size_t item) {
    const Place* partner = partnerOfFront(item);
    const std::size_t other = partner != NULL ? partner->first : item;
    order_.push_back(events_[item][next_[item]++]);
    if (other != item) {
        order_.push_back(events_[other][next_[other]++]);
    }
    for (std::size_t touched : {item, other}) {
        refresh(touched);
        const Place* waiting = isReady(touched) ? partnerOfFront(touched) : NULL;
        if (waiting != NULL) {
            ready_.insert(waiting->first);
        }
    }
}

std::size_t Sorter::firstUnfinished() const {
    std::size_t item = 0;
    while (next_[item] >= events_[item].size()) {
        ++item;
    }
    return item;
}

std::vector<BatchEvent> Sorter::run() {
    std::size_t total = 0;
    for (std::size_t i = 0; i < events_.size(); ++i) {
        total += events_[i].size();
        refresh(i);
    }
    while (order_.size() < total) {
        if (ready_.empty()) {
            // A knot: the first unfinished item's front goes alone, and its
            // partner no longer waits for it.
            const std::size_t item = firstUnfinished();
            partners_.erase(key(Place(item, next_[item])));
            refresh(item);
        }
        takeFront(*ready_.begin());
    }
    return order_;
}

}  // namespace

std::vector<BatchEvent> BatchOrder::sInOrder(const std::vector<FileChangeItem>& items) {
    return Sorter(items).run();
}

}  // namespace quorvia
