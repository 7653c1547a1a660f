#include "backup/inotify/ChangeList.h"

void ChangeList::add(const std::string& path, WatchMask mask, bool isDir, uint32_t cookie) {
    std::pair<boost::unordered_map<std::string, std::size_t>::iterator, bool> slot =
        indexByPath_.insert(std::make_pair(path, items_.size()));
    if (!slot.second) {
        FileChangeItem& item = items_[slot.first->second];
        if (item.cookie != 0) {
            const MoveHalf half = {item.mask, item.cookie};
            item.earlierMoves.push_back(half);
        }
        item.mask = mask;
        item.isDir = isDir;
        item.cookie = cookie;
        return;
    }
    items_.push_back(FileChangeItem(path, mask, isDir, cookie));
}

void ChangeList::clear() {
    items_.clear();
    indexByPath_.clear();
}
