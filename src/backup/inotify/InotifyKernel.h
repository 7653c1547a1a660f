#ifndef QUORVIA_BACKUP_INOTIFY_INOTIFYKERNEL_H
#define QUORVIA_BACKUP_INOTIFY_INOTIFYKERNEL_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

// The monitor's one door to the kernel. The default implementation makes the
// real system calls; tests derive from it to make the kernel refuse (the
// watch limit, a missing inotify) without touching the machine. Every call
// sets errno as the system call does.
class InotifyKernel {
public:
    virtual ~InotifyKernel() {}

    // New non-blocking inotify descriptor, or -1.
    virtual int init();
    // Watches the directory open as folder, which the monitor opened at path:
    // the kernel is handed the descriptor's own entry under /proc, so the
    // watch lands on that directory whatever stands at path by now (a link
    // swapped in). path itself only where /proc is missing.
    virtual int addWatch(int fd, int folder, const std::string& path, uint32_t mask);
    virtual int removeWatch(int fd, int wd);
    // poll() for readability: > 0 readable, 0 on time-out, -1 on failure.
    virtual int waitReadable(int fd, int timeoutMs);
    virtual ssize_t read(int fd, char* buffer, std::size_t size);
    virtual void close(int fd);
};

#endif
