#include "multimedia/quorviatask/PendingMoves.h"

namespace quorvia {

const std::size_t PendingMoves::kMaxWaiting;
const int PendingMoves::kMaxAgeSeconds;

bool PendingMoves::match(uint32_t cookie, WatchMask half, bool isDir, const std::string& path,
                         time_t now, std::string& partnerPath) {
    expire(now);
    if (cookie == 0) {
        return false;
    }
    boost::unordered_map<uint32_t, Arrivals::iterator>::iterator found = byCookie_.find(cookie);
    if (found != byCookie_.end()) {
        Arrivals::iterator waiting = found->second;
        if (waiting->half != half && waiting->isDir == isDir) {
            partnerPath = waiting->path;
            erase(waiting);
            return true;
        }
        erase(waiting);
    }
    Half entry = {cookie, half, isDir, path, now};
    arrivals_.push_back(entry);
    byCookie_[cookie] = --arrivals_.end();
    while (arrivals_.size() > kMaxWaiting) {
        erase(arrivals_.begin());
    }
    return false;
}

void PendingMoves::clear() {
    arrivals_.clear();
    byCookie_.clear();
}

void PendingMoves::expire(time_t now) {
    while (!arrivals_.empty() && now - arrivals_.front().since > kMaxAgeSeconds) {
        erase(arrivals_.begin());
    }
}

void PendingMoves::erase(Arrivals::iterator it) {
    byCookie_.erase(it->cookie);
    arrivals_.erase(it);
}

}  // namespace quorvia
