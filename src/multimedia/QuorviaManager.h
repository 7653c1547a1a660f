#ifndef QUORVIA_MULTIMEDIA_QUORVIAMANAGER_H
#define QUORVIA_MULTIMEDIA_QUORVIAMANAGER_H

#include <stdint.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <string>
#include <vector>

#include "backup/inotify/IFileChangeMonitorObserver.h"
#include "dispatcher/Dispatcher.h"

namespace quorvia {

// Follows the data folder of the user disk: owns the dispatcher and the
// monitor thread, observes the monitor, and turns each change that matters
// into a file task that keeps the store's paths true.
class QuorviaManager : public IFileChangeMonitorObserver,
                       public boost::enable_shared_from_this<QuorviaManager> {
public:
    // The folder where rows wait between the two steps of a folder's move
    // after lost events: no path that a row has starts so.
    static constexpr const char* kMovingFolder = ":moving:";

    // The one manager, made at the first call. Any thread.
    static boost::shared_ptr<QuorviaManager> sGetInstance();

    // Sets the fields empty and calls init. Reads no directory.
    QuorviaManager();
    virtual ~QuorviaManager();

    // Starts the dispatcher's worker and the monitor thread, then returns.
    // Called once; raises boost::thread_resource_error when a thread can't be
    // made.
    void run();
    // The first half of run: makes and starts the queue, without the monitor
    // thread (for callers that feed update themselves).
    void startDispatcher();
    // The roots to follow: the data folder of the user disk.
    void init();
    // Body of the monitor thread; never returns.
    void notify();
    // The observer operation, on the monitor thread: each item's earlier move
    // halves go to the factory first, then its last change, of which content
    // changes count for JPEG files only; the batch's events in BatchOrder.
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType type);
    // Lost events under roots: the folders found moved take their rows along
    // (each folder's rows first to a numbered folder of kMovingFolder,
    // deepest folder first, then to where it is: the moves happened at once,
    // and may swap names), then each root's rows are checked against the
    // disk; all by tasks queued behind the changes delivered before. Rows
    // that an earlier such move left waiting (the store stayed locked) are
    // dropped first: where their files are is no longer known.
    virtual void eventsLost(const std::vector<std::string>& roots,
                            const std::vector<FolderMove>& moves);
    // One change to the queue (dropped when the queue isn't made yet).
    void dispatcherTask(const std::string& path, WatchMask mask, bool isDir, MonitorType type,
                        uint32_t cookie = 0);

    const std::vector<std::string>& watchDirs() const { return watchDirs_; }

private:
    static boost::shared_ptr<QuorviaManager> sInstance_;
    static boost::mutex instanceMutex_;

    boost::shared_ptr<boost::thread> thread_;
    boost::shared_ptr<Dispatcher> dispatcher_;
    std::vector<std::string> watchDirs_;
};

}  // namespace quorvia

#endif
