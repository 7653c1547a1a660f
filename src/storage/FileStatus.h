#ifndef QUORVIA_STORAGE_FILESTATUS_H
#define QUORVIA_STORAGE_FILESTATUS_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "system/BuildAbi.h"

namespace talvern {

// What the file system says of a file, read with statx. Where time_t has 32
// bits (the armhf routers), stat() and everything built on it, boost's
// status() included, fails with EOVERFLOW for a file dated past January
// 2038, which a camera with a wrong clock or a restored backup easily gives:
// such a file counted as missing, unreadable or undeletable. statx's times
// are 64 bits wide everywhere. A C library without statx gets fstatat.
// Like stat(), it never triggers an automount.
// Any thread; async-signal-safe (one system call).
struct FileStatus {
    mode_t mode = 0;
    uint64_t size = 0;
    dev_t device = 0;
    ino_t inode = 0;
    nlink_t links = 0;
    uid_t owner = 0;
    gid_t group = 0;
    // Seconds since the epoch.
    int64_t accessTime = 0;
    int64_t modifyTime = 0;
    int64_t changeTime = 0;

    bool isRegular() const;
    bool isDirectory() const;
    bool isLink() const;

    // 0 with status filled, or the errno of the failure (ENOENT: nothing
    // there). A link at path itself is followed unless followLinks is false.
    static int sOfPath(const std::string& path, FileStatus& status, bool followLinks = true);
    // The same for name in the folder open as the descriptor folder.
    static int sOfEntry(int folder, const std::string& name, FileStatus& status, bool followLinks);
    // The same for what the descriptor fd is open on.
    static int sOfDescriptor(int fd, FileStatus& status);
};

}  // namespace talvern

#endif
