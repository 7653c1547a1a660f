#include "multimedia/SqliteFileStatus.h"

#include <errno.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>

#include "multimedia/QuorviaDBMgrSql.h"
#include "storage/FileStatus.h"

namespace quorvia {

namespace {

using talvern::FileStatus;

const char kProcFolder[] = "/proc/";

int fill(int error, const FileStatus& status, struct stat* out) {
    if (error != 0) {
        errno = error;
        return -1;
    }
    std::memset(out, 0, sizeof(*out));
    out->st_dev = status.device;
    out->st_ino = status.inode;
    out->st_mode = status.mode;
    out->st_nlink = status.links;
    out->st_uid = status.owner;
    out->st_gid = status.group;
    out->st_size = static_cast<off_t>(status.size);
    return 0;
}

int statPath(const char* path, struct stat* out) {
    FileStatus status;
    return fill(FileStatus::sOfPath(path, status), status, out);
}

int lstatPath(const char* path, struct stat* out) {
    FileStatus status;
    const bool kernelView = std::strncmp(path, kProcFolder, sizeof(kProcFolder) - 1) == 0;
    return fill(FileStatus::sOfPath(path, status, kernelView), status, out);
}

int statDescriptor(int fd, struct stat* out) {
    FileStatus status;
    return fill(FileStatus::sOfDescriptor(fd, status), status, out);
}

void install() {
    sqlite3_vfs* vfs = sqlutil::swappableVfs();
    if (vfs == NULL) {
        return;
    }
    vfs->xSetSystemCall(vfs, "stat", reinterpret_cast<sqlite3_syscall_ptr>(&statPath));
    vfs->xSetSystemCall(vfs, "lstat", reinterpret_cast<sqlite3_syscall_ptr>(&lstatPath));
    vfs->xSetSystemCall(vfs, "fstat", reinterpret_cast<sqlite3_syscall_ptr>(&statDescriptor));
}

}  // namespace

void SqliteFileStatus::sInstall() {
    static std::once_flag once;
    std::call_once(once, install);
}

}  // namespace quorvia
