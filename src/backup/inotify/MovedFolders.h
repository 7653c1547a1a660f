#ifndef QUORVIA_BACKUP_INOTIFY_MOVEDFOLDERS_H
#define QUORVIA_BACKUP_INOTIFY_MOVEDFOLDERS_H

#include <stdint.h>

#include <boost/unordered_map.hpp>
#include <vector>

// The folders of the tree that moved away since the last quiet pass and have
// not arrived in it again: each by the cookie of its move and by its watch
// descriptor. Every operation but awayWatches takes constant time, so a batch
// that moves tens of thousands of folders out while as many watches are
// placed stays linear. Not thread-safe: the monitor thread owns it.
class MovedFolders {
public:
    virtual ~MovedFolders() {}

    // The folder watched as wd moved away under cookie.
    void left(uint32_t cookie, int wd);
    // The move of cookie arrived in the tree: its folder is no longer away.
    void arrived(uint32_t cookie);
    // The folder watched as wd is in the tree again, under whatever move.
    void returned(int wd);
    bool isAway(int wd) const;
    // The descriptors of the folders still away, one per move (a folder that
    // left twice is named twice).
    std::vector<int> awayWatches() const;
    void clear();

private:
    boost::unordered_map<uint32_t, int> watchOf_;
    boost::unordered_multimap<int, uint32_t> cookiesOf_;
};

#endif
