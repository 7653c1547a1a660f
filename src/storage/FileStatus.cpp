#include "storage/FileStatus.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace talvern {

namespace {

int readStatus(int dirFd, const char* path, int flags, FileStatus& status) {
    struct statx info;
    const unsigned int wanted = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_INO | STATX_NLINK |
                                STATX_UID | STATX_GID | STATX_ATIME | STATX_MTIME | STATX_CTIME;
    // As stat() does, never ask for an automount point's mount: the caller
    // would wait on the automounter, maybe for a share that never comes.
    if (statx(dirFd, path, flags | AT_STATX_SYNC_AS_STAT | AT_NO_AUTOMOUNT, wanted, &info) != 0) {
        return errno;
    }
    status.mode = info.stx_mode;
    status.size = info.stx_size;
    status.device = makedev(info.stx_dev_major, info.stx_dev_minor);
    status.inode = info.stx_ino;
    status.links = info.stx_nlink;
    status.owner = info.stx_uid;
    status.group = info.stx_gid;
    status.accessTime = info.stx_atime.tv_sec;
    status.modifyTime = info.stx_mtime.tv_sec;
    status.changeTime = info.stx_ctime.tv_sec;
    return 0;
}

}  // namespace

bool FileStatus::isRegular() const { return S_ISREG(mode); }

bool FileStatus::isDirectory() const { return S_ISDIR(mode); }

bool FileStatus::isLink() const { return S_ISLNK(mode); }

int FileStatus::sOfPath(const std::string& path, FileStatus& status, bool followLinks) {
    return sOfEntry(AT_FDCWD, path, status, followLinks);
}

int FileStatus::sOfEntry(int folder, const std::string& name, FileStatus& status,
                         bool followLinks) {
    return readStatus(folder, name.c_str(), followLinks ? 0 : AT_SYMLINK_NOFOLLOW, status);
}

int FileStatus::sOfDescriptor(int fd, FileStatus& status) {
    return readStatus(fd, "", AT_EMPTY_PATH, status);
}

}  // namespace talvern
