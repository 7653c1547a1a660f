#include "backup/inotify/MovedFolders.h"

#include <utility>

void MovedFolders::left(uint32_t cookie, int wd) {
    arrived(cookie);
    watchOf_[cookie] = wd;
    cookiesOf_.insert(std::make_pair(wd, cookie));
}

void MovedFolders::arrived(uint32_t cookie) {
    boost::unordered_map<uint32_t, int>::iterator move = watchOf_.find(cookie);
    if (move == watchOf_.end()) {
        return;
    }
    typedef boost::unordered_multimap<int, uint32_t>::iterator Entry;
    const std::pair<Entry, Entry> moves = cookiesOf_.equal_range(move->second);
    for (Entry it = moves.first; it != moves.second; ++it) {
        if (it->second == cookie) {
            cookiesOf_.erase(it);
            break;
        }
    }
    watchOf_.erase(move);
}

void MovedFolders::returned(int wd) {
    typedef boost::unordered_multimap<int, uint32_t>::iterator Entry;
    const std::pair<Entry, Entry> moves = cookiesOf_.equal_range(wd);
    for (Entry it = moves.first; it != moves.second; ++it) {
        watchOf_.erase(it->second);
    }
    cookiesOf_.erase(wd);
}

bool MovedFolders::isAway(int wd) const { return cookiesOf_.count(wd) != 0; }

std::vector<int> MovedFolders::awayWatches() const {
    std::vector<int> wds;
    wds.reserve(watchOf_.size());
    for (boost::unordered_map<uint32_t, int>::const_iterator it = watchOf_.begin();
         it != watchOf_.end(); ++it) {
        wds.push_back(it->second);
    }
    return wds;
}

void MovedFolders::clear() {
    watchOf_.clear();
    cookiesOf_.clear();
}
