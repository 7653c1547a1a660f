#include "backup/inotify/ChangeList.h"

void ChangeList::add(const std::string& path, WatchMask mask, bool isDir, uint32_t cookie) {
    const uint32_t sequence = nextSequence_++;
    std::pair<boost::unordered_map<std::string, std::size_t>::iterator, bool> slot =
        indexByPath_.insert(std::make_pair(path, items_.size()));
    if (!slot.second) {
        FileChangeItem& item = items_[slot.first->second];
        if (cookie != 0 && item.cookie == cookie && item.mask == mask) {
            return;
        }
        if (item.cookie != 0 || item.mask == TALVERN_DELETE) {
            const EarlierEvent earlier = {item.mask, item.cookie, item.sequence};
            item.earlierEvents.push_back(earlier);
        }
        // Between a kept delete and this one only creates and writes came,
        // which bring no row: the earlier delete has nothing left to do (a
        // lock file made and removed a thousand times is one delete).
        if (mask == TALVERN_DELETE && !item.earlierEvents.empty() &&
            item.earlierEvents.back().mask == TALVERN_DELETE) {
            item.earlierEvents.pop_back();
        }
        item.mask = mask;
        item.isDir = isDir;
        item.cookie = cookie;
        item.sequence = sequence;
        return;
    }
    items_.push_back(FileChangeItem(path, mask, isDir, cookie));
    items_.back().sequence = sequence;
}

const FileChangeItem* ChangeList::find(const std::string& path) const {
    const boost::unordered_map<std::string, std::size_t>::const_iterator found =
        indexByPath_.find(path);
    return found == indexByPath_.end() ? NULL : &items_[found->second];
}

void ChangeList::clear() {
    items_.clear();
    indexByPath_.clear();
    nextSequence_ = 0;
}
