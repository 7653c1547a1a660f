#include "backup/inotify/InotifyKernel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "storage/File.h"

int InotifyKernel::init() {
    int fd = inotify_init();
    if (fd >= 0) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    return fd;
}

int InotifyKernel::addWatch(int fd, int folder, const std::string& path, uint32_t mask) {
    const int wd = inotify_add_watch(fd, talvern::File::sDescriptorPath(folder).c_str(), mask);
    if (wd >= 0 || errno != ENOENT) {
        return wd;
    }
    return inotify_add_watch(fd, path.c_str(), mask);
}

int InotifyKernel::removeWatch(int fd, int wd) { return inotify_rm_watch(fd, wd); }

// poll rather than select: the descriptor may lie above FD_SETSIZE in a
// process with many open files.
int InotifyKernel::waitReadable(int fd, int timeoutMs) {
    struct pollfd entry;
    entry.fd = fd;
    entry.events = POLLIN;
    entry.revents = 0;
    int r = poll(&entry, 1, timeoutMs);
    if (r > 0 && !(entry.revents & POLLIN)) {
        // A broken descriptor reads as a failure, never as a quiet second.
        errno = EBADF;
        return -1;
    }
    return r;
}

ssize_t InotifyKernel::read(int fd, char* buffer, std::size_t size) {
    return ::read(fd, buffer, size);
}

void InotifyKernel::close(int fd) {
    if (fd >= 0) {
        ::close(fd);
    }
}
