#include "multimedia/SqliteOwnFiles.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "multimedia/QuorviaDBMgrSql.h"
#include "storage/FileStatus.h"
#include "system/Log.h"

namespace quorvia {

namespace {

using talvern::FileStatus;

typedef int (*OpenCall)(const char*, int, int);

OpenCall gOpen = NULL;

// SQLite opens two devices of the system by these names (its random
// numbers, and a stand-in for a closed standard descriptor); no store lies
// there.
const char kDevices[] = "/dev/";

// How the kernel names this process's descriptor fd: the store's folder is
// held open and SQLite opens it by that name to flush it.
const char kDescriptorView[] = "/proc/self/fd/";

bool isDescriptorView(const char* path) {
    const std::size_t length = sizeof(kDescriptorView) - 1;
    if (std::strncmp(path, kDescriptorView, length) != 0 || path[length] == '\0') {
        return false;
    }
    return std::strspn(path + length, "0123456789") == std::strlen(path + length);
}

// What stands at path may be opened: nothing yet, a regular file or a
// folder, not through a link (but for a descriptor's view, which is one).
// A FIFO would hold the open for ever, and a link with nothing at its end
// would have the open make a file there.
bool mayOpen(const char* path) {
    FileStatus named;
    const int error = FileStatus::sOfPath(path, named, isDescriptorView(path));
    return error == ENOENT || (error == 0 && (named.isRegular() || named.isDirectory()));
}

// The file open on fd is a folder, or the one regular file of one name that
// path names, not through a link.
bool isOwnFile(int fd, const char* path) {
    FileStatus opened, named;
    if (FileStatus::sOfDescriptor(fd, opened) != 0) {
        return false;
    }
    if (opened.isDirectory()) {
        return true;
    }
    return opened.isRegular() && opened.links == 1 &&
           FileStatus::sOfPath(path, named, false) == 0 && named.device == opened.device &&
           named.inode == opened.inode;
}

int refuse(const char* path) {
    QLOG(ERROR) << "the store's file " << path
                << " is a link, a second name of another file or no file; not opened";
    errno = EACCES;
    return -1;
}

int openOwnFile(const char* path, int flags, int mode) {
    if (std::strncmp(path, kDevices, sizeof(kDevices) - 1) == 0) {
        return gOpen(path, flags, mode);
    }
    if (!mayOpen(path)) {
        return refuse(path);
    }
    const int fd = gOpen(path, flags, mode);
    if (fd >= 0 && !isOwnFile(fd, path)) {
        close(fd);
        return refuse(path);
    }
    return fd;
}

void install() {
    sqlite3_vfs* vfs = sqlutil::swappableVfs();
    if (vfs == NULL) {
        return;
    }
    gOpen = reinterpret_cast<OpenCall>(vfs->xGetSystemCall(vfs, "open"));
    if (gOpen != NULL) {
        vfs->xSetSystemCall(vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(&openOwnFile));
    }
}

}  // namespace

void SqliteOwnFiles::sInstall() {
    static std::once_flag once;
    std::call_once(once, install);
}

}  // namespace quorvia
