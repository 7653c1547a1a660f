#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_PENDINGMOVES_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_PENDINGMOVES_H

#include <stdint.h>
#include <time.h>

#include <boost/unordered_map.hpp>
#include <list>
#include <string>

#include "backup/inotify/FileChangeItem.h"

namespace quorvia {

// Halves of moves that wait for their partners, told apart by the kernel's
// move cookie: a half pairs only with the other half of the same cookie and
// the same kind (file or directory), whatever came between them and in
// whichever order they arrive. The set is bounded so that files moved out of
// the tree (whose partners never come) can't grow it without end. Time is
// passed in by the caller, in seconds of a steady clock. Not thread-safe.
class PendingMoves {
public:
    // At most this many halves wait; beyond it the oldest is dropped.
    static const std::size_t kMaxWaiting = 4096;
    // A half older than this is dropped: both halves of a move are queued by
    // the kernel at once, so a partner that late will not come.
    static const int kMaxAgeSeconds = 60;

    virtual ~PendingMoves() {}

    // Offers one half (TALVERN_FROM or TALVERN_TO). When its partner waits,
    // the partner is taken out, its path goes to partnerPath and the result is
    // true. Otherwise this half waits (a cookie of 0 ties nothing and never
    // waits) and the result is false.
    bool match(uint32_t cookie, WatchMask half, bool isDir, const std::string& path, time_t now,
               std::string& partnerPath);
    std::size_t size() const { return byCookie_.size(); }
    void clear();

private:
    struct Half {
        uint32_t cookie;
        WatchMask half;
        bool isDir;
        std::string path;
        time_t since;
    };
    typedef std::list<Half> Arrivals;

    void expire(time_t now);
    void erase(Arrivals::iterator it);

    Arrivals arrivals_;  // oldest first
    boost::unordered_map<uint32_t, Arrivals::iterator> byCookie_;
};

}  // namespace quorvia

#endif
