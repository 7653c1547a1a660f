#ifndef QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H
#define QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/inotify.h>

#include <boost/chrono.hpp>
#include <map>
#include <string>
#include <vector>

#include "backup/inotify/FileChangeMonitor.h"
#include "backup/inotify/IFileChangeMonitorObserver.h"
#include "backup/inotify/InotifyKernel.h"

namespace monitor_test {

// A kernel that places watches in a table of its own, refuses the paths it is
// told to refuse, and never has events to read.
class FakeKernel : public InotifyKernel {
public:
    FakeKernel() : initErrno(0), nextWd(0) {}

    virtual int init() {
        if (initErrno != 0) {
            errno = initErrno;
            return -1;
        }
        return 1000;
    }
    virtual int addWatch(int, const std::string& path, uint32_t) {
        if (refuse.count(path) != 0) {
            errno = refuse[path];
            return -1;
        }
        int& wd = wds[path];
        return wd != 0 ? wd : (wd = ++nextWd);
    }
    virtual int removeWatch(int, int) { return 0; }
    virtual int waitReadable(int, int) { return 0; }
    virtual ssize_t read(int, char*, std::size_t) {
        errno = EAGAIN;
        return -1;
    }
    virtual void close(int) {}

    int initErrno;
    std::map<std::string, int> refuse;  // path with "/" -> errno
    std::map<std::string, int> wds;
    int nextWd;
};

// Keeps a copy of every batch it is given.
class RecordingObserver : public IFileChangeMonitorObserver {
public:
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType type) {
        batches.push_back(*changes);
        types.push_back(type);
    }
    std::vector<std::vector<FileChangeItem> > batches;
    std::vector<MonitorType> types;
};

// Builds kernel records the way read() hands them over.
class EventBuffer {
public:
    EventBuffer& add(int wd, uint32_t mask, const std::string& name, uint32_t cookie = 0) {
        // Names are NUL-terminated and padded, as the kernel does.
        std::size_t len = name.empty() ? 0 : ((name.size() + 1 + 15) / 16) * 16;
        std::string record(sizeof(inotify_event) + len, '\0');
        inotify_event header;
        header.wd = wd;
        header.mask = mask;
        header.cookie = cookie;
        header.len = static_cast<uint32_t>(len);
        memcpy(&record[0], &header, sizeof(header));
        memcpy(&record[sizeof(header)], name.data(), name.size());
        bytes_ += record;
        return *this;
    }
    const char* data() const { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }

private:
    std::string bytes_;
};

// Runs passes of the loop until the observer holds a batch or the bounded
// wait is over; true when a batch came.
inline bool runUntilBatch(FileChangeMonitor& monitor, RecordingObserver& observer,
                          std::size_t batches = 1, int seconds = 10) {
    const boost::chrono::steady_clock::time_point deadline =
        boost::chrono::steady_clock::now() + boost::chrono::seconds(seconds);
    while (observer.batches.size() < batches && boost::chrono::steady_clock::now() < deadline) {
        monitor.runPass();
    }
    return observer.batches.size() >= batches;
}

}  // namespace monitor_test

#endif
