#include "storage/FileStatus.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace talvern {

namespace {

// As stat() does, never ask for an automount point's mount: the caller
// would wait on the automounter, maybe for a share that never comes.
#ifdef QUORVIA_HAVE_STATX
int readStatus(int dirFd, const char* path, int flags, FileStatus& status) {
    struct statx info;
    const unsigned int wanted = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_INO | STATX_NLINK |
                                STATX_UID | STATX_GID | STATX_ATIME | STATX_MTIME | STATX_CTIME;
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
#else
// A C library older than statx (glibc 2.28, musl 1.2.5): where time_t has
// 32 bits, a file dated past 2038 then fails with EOVERFLOW, as with stat().
int readStatus(int dirFd, const char* path, int flags, FileStatus& status) {
    struct stat info;
    if (fstatat(dirFd, path, &info, flags | AT_NO_AUTOMOUNT) != 0) {
        return errno;
    }
    status.mode = info.st_mode;
    status.size = static_cast<uint64_t>(info.st_size);
    status.device = info.st_dev;
    status.inode = info.st_ino;
    status.links = info.st_nlink;
    status.owner = info.st_uid;
    status.group = info.st_gid;
    status.accessTime = info.st_atim.tv_sec;
    status.modifyTime = info.st_mtim.tv_sec;
    status.changeTime = info.st_ctim.tv_sec;
    return 0;
}
#endif

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
