#ifndef QUORVIA_BACKUP_INOTIFY_FILECHANGEMONITOR_H
#define QUORVIA_BACKUP_INOTIFY_FILECHANGEMONITOR_H

#include <stdint.h>
#include <sys/inotify.h>
#include <sys/types.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/unordered_map.hpp>
#include <boost/unordered_set.hpp>
#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "backup/inotify/ChangeList.h"
#include "backup/inotify/FileChangeItem.h"
#include "backup/inotify/IFileChangeMonitorObserver.h"
#include "backup/inotify/InotifyKernel.h"
#include "system/SteadyClock.h"

// Follows directory trees with inotify: one watch per directory, kept true
// while directories appear, vanish and move, and the events folded into a
// change list (one item per path) that goes to the one observer after a
// quiet second. What waits for a quiet pass (moves out of the tree, roots
// gone or back, the check after lost events) is done at most
// kMaxUnsettledSeconds apart on a disk that never goes quiet.
//
// Threads: everything except the gate operations (enable/disable...) runs on
// the one thread inside startNotify (or the thread that drives beginNotify
// and runPass), without a lock. addInotifyDir and removeInotifyDir take
// mutex_ only against each other.
class FileChangeMonitor {
public:
    // IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE |
    // IN_DELETE_SELF: a file counts as modified when its writer closes it.
    static const uint32_t kWatchMask = 0x7C8;
    static const std::size_t kReadBufferSize = 32768;
    // A batch is delivered after this long without an event.
    static const int kQuietMilliseconds = 1000;
    // ... or once it holds this many paths, or has gathered for this long:
    // a copy that never leaves a quiet second is delivered in slices, so the
    // list's memory stays bounded and the deletes and moves in it don't wait
    // for the copy to end.
    static const std::size_t kMaxBatchItems = 10000;
    static const int kMaxBatchSeconds = 10;
    // A directory that refuses its watch is retried at this many delivered
    // batches, then forgotten.
    static const int kMaxWatchRetries = 10;
    // A root that exists but refuses its watch (the watch limit used up, no
    // permission) is tried again after 1, 2, 4 ... quiet passes, at most
    // this many apart: a refusal costs a log line per try, not per second.
    static const unsigned int kMaxRootRetryPasses = 256;
    // A queue that never stays quiet for a second is settled as on a quiet
    // pass once this long has passed without one, when a read leaves it dry,
    // did not end on the first half of a move, and nothing comes for
    // kSettleGraceMilliseconds after it.
    static const int kMaxUnsettledSeconds = 10;
    static const int kSettleGraceMilliseconds = 10;

    // The daemon's instance, built at the first call.
    static FileChangeMonitor* sGetInstance();

    // Opens the inotify descriptor through kernel; reads no directory.
    explicit FileChangeMonitor(
        boost::shared_ptr<InotifyKernel> kernel =
            boost::shared_ptr<InotifyKernel>(new InotifyKernel),
        boost::shared_ptr<SteadyClock> clock = boost::shared_ptr<SteadyClock>(new SteadyClock));
    // Closes the descriptor.
    virtual ~FileChangeMonitor();

    // ---- Watch table ----

    // Stores the root directories (replacing the list); always true.
    bool init(const std::vector<std::string>& dirs);
    // Watches dir and, recursively, every directory below it that is neither
    // a symbolic link nor filtered by name. A directory that can't be watched
    // or read goes to the retry table. true: dir itself is now watched.
    bool scanAndAddWatchDiskDirRecursive(const std::string& dir);
    // Places one watch (no scan below). false when dir is missing or the
    // kernel refused.
    bool addWatchDiskDir(const std::string& dir);
    // A directory that arrived (IN_CREATE / IN_MOVED_TO with IN_ISDIR) in a
    // watched directory: its whole tree is scanned.
    void addWatchDiskDir(inotify_event* event);
    // A directory that left (IN_DELETE / IN_MOVED_FROM with IN_ISDIR). A
    // deleted one loses its watch. A moved one keeps its watches and its
    // subtree's until the next quiet pass: events queued in the subtree
    // after the move still find their directories, and the arrival's scan
    // gives them their new paths. Only a move whose other half has not come
    // by then (out of the tree) takes the whole subtree's watches down.
    void removeWatchDiskDir(inotify_event* event);
    // A watched directory that went itself (IN_DELETE_SELF).
    void removeWatchDiskDirSelf(inotify_event* event);
    // Descriptor watching path (with trailing "/"), or one that did until the
    // kernel ended it since the last quiet pass; -1 for neither.
    int isWatchedTalvernDir(const std::string& path);
    // One retry pass over the directories that failed to get a watch.
    void delayAddWatchDiskDir();
    // Library facilities, not used by the daemon's loop; they exclude each
    // other through mutex_ but not the loop.
    void addInotifyDir(const std::string& dir);
    void removeInotifyDir(const std::string& dir);
    void setExcludeFolderPath(const std::vector<std::string>& prefixes);
    // true when the event is to be dropped: no name, unknown descriptor, or a
    // path that begins with one of the exclude prefixes.
    bool FilterExcludeFileAndPath(inotify_event* event);

    // ---- Event loop ----

    // Replaces the one observer; it is called on the monitor thread.
    void registerObserver(boost::shared_ptr<IFileChangeMonitorObserver> observer);
    // beginNotify, then runPass for ever. When inotify is unavailable the
    // thread is parked for good instead (logged at ERROR). Never returns.
    void startNotify();
    // Logs the start and places the first watches. false when there is no
    // inotify descriptor: the reason is logged at ERROR and nothing is
    // followed.
    bool beginNotify();
    // One pass of the loop: waits up to a quiet second for events, reads and
    // folds them, or settles and delivers the list when the second stayed
    // quiet (or none has for kMaxUnsettledSeconds).
    void runPass();
    // Walks a buffer of kernel records, adjusting the table and folding.
    void handleEvents(const char* buffer, std::size_t length);
    // Adjusts the watch table; true when the event may become a change item.
    bool dealWithEvent(inotify_event* event);
    // Folds the event into the change list.
    void addEvent2ChangePath(inotify_event* event);
    static WatchMask inotifyMaskTransfer(unsigned int mask);
    static std::string convertWatchMaskToString(WatchMask mask);
    void printAllChanges();
    void notifyObserver();
    // Reads the descriptor dry and drops what it read.
    void discardAllEvent();
    // The gate; any thread.
    void enableWatchEvent();
    void disableWatchEvent();
    void disableWatchEventThreeSec();

    // ---- Inspection (any caller on the monitor thread) ----

    // Path watched by wd ("" when none).
    std::string watchedPath(int wd) const;
    // Every watched path, sorted.
    std::vector<std::string> watchedPaths() const;
    std::size_t pathIndexSize() const { return pathToWd_.size(); }
    std::map<std::string, int> delayedDirs() const;
    // The list gathered so far (or the batch being delivered).
    const std::vector<FileChangeItem>& changes() { return changePaths_.items(); }

private:
    FileChangeMonitor(const FileChangeMonitor&);
    FileChangeMonitor& operator=(const FileChangeMonitor&);

    static std::string eventName(const inotify_event* event);
    // addWatchDiskDir without the existence test, for the scan that just
    // opened dir as folder. inNewWatch: dir was found in a folder whose
    // watch this walk placed. isNew, when given, tells whether the watch is
    // one the kernel had not placed before.
    bool placeWatch(const std::string& dir, int folder, bool inNewWatch = false,
                    bool* isNew = NULL);
    // scanAndAddWatchDiskDirRecursive for a directory known to exist.
    bool scanFoundDir(const std::string& top);
    // A folder to walk: its path, and its device and inode as its parent's
    // listing gave them (inode 0: reached by its path alone); inNewWatch when
    // that parent's watch was placed by the same walk.
    struct FoundFolder {
        explicit FoundFolder(const std::string& path, dev_t device = 0, ino_t inode = 0,
                             bool inNewWatch = false)
            : path(path), device(device), inode(inode), inNewWatch(inNewWatch) {}
        std::string path;
        dev_t device;
        ino_t inode;
        bool inNewWatch;
    };
    // The folder found opened for listing, not through a link at its path
    // unless it is a root, and only when it is the folder listed or lies in a
    // followed tree; -1 with errno (ELOOP: a link, or not the folder meant)
    // otherwise. A root's own place is noted as a tree's.
    int openFolder(const FoundFolder& found);
    bool isFolderMeant(int folder, const FoundFolder& found) const;
    static bool sRealPathOf(int folder, std::string& real);
    void noteTreeRealPath(const std::string& top, int folder);
    bool liesInTree(int folder) const;
    // Watches the folder found and appends its subdirectories that the
    // monitor follows to pending; true when it was watched.
    bool watchAndList(const FoundFolder& found, std::vector<FoundFolder>& pending);
    void listSubdirs(int folder, const std::string& dir, bool newWatch,
                     std::vector<FoundFolder>& subdirs);
    static void logUnreadable(const std::string& path, int error);
    bool gateShut();
    // After the kernel's queue overflowed: the roots are scanned again (what
    // was made meanwhile is followed from then on) and the observer told.
    void recoverLostEvents();
    // The folders whose watch is under another path than in before.
    std::vector<FolderMove> foundMoves(const boost::unordered_map<int, std::string>& before) const;
    // The nearest folder above path (both ending in "/") among watched; ""
    // for none.
    static std::string watchedParent(const std::string& path,
                                     const boost::unordered_set<std::string>& watched);
    void drain();
    bool batchIsFull() const;
    // The work of a quiet pass: roots checked, moves out dropped, the list
    // delivered, lost events recovered.
    void settle();
    bool settleIsOverdue() const;
    // quiet: delivered on a quiet pass, not as a slice of a full batch.
    void deliverChanges(bool quiet);
    void forgetPath(const std::string& path, int wd);
    // A watched folder that turned up at to inside a folder made or moved in
    // so shortly before that its arrival there came before the watch: the
    // kernel reports only its departure from `from`. The batch gets the
    // arrival beside the departure, with its cookie.
    void noteUnseenArrival(const std::string& from, const std::string& to);
    void addUnseenArrival(const std::string& from, uint32_t cookie);
    // true when the folder watched as watched (a path with its "/") is still
    // there as itself, and so is what the kernel found at path: a second way
    // to it (a link swapped in above path, into the tree; a bind mount).
    bool isStillWatchedAs(const std::string& watched, const std::string& path) const;
    void forgetWatch(int wd);
    // Adds to wds the watches of the paths that start with prefix, from
    // `from` on: the paths below a folder are one range of the ordered index.
    void addWatchesFrom(std::map<std::string, int>::const_iterator from, const std::string& prefix,
                        std::vector<int>& wds) const;
    void removeWatchesBelow(const std::string& dir);
    // Takes the watches down and out of both tables.
    void removeWatches(const std::vector<int>& wds);
    // Takes down the watches of directories that moved out of the tree: those
    // still in movedDirs_. Before a quiet delivery.
    void dropDirectoriesMovedOut();
    void removeDisplacedWatches();
    void watchMissingRoots();
    void noteRootIdentity(const std::string& root);
    void checkRootsInPlace();
    void noteRefusedWatch(int error);
    void noteUnopenedFolder(int error);
    bool isRoot(const std::string& pathWithSlash) const;

    std::atomic<int> disableUntil_;
    boost::shared_ptr<InotifyKernel> kernel_;
    boost::shared_ptr<SteadyClock> clock_;
    int inotifyFd_;
    int initErrno_;
    std::vector<std::string> watchDirs_;
    boost::unordered_map<int, std::string> wdToPath_;
    // The mirror of wdToPath_, ordered: the watches below a folder are one
    // range of it.
    std::map<std::string, int> pathToWd_;
    boost::unordered_map<std::string, int> delayAddDirs_;
    // The descriptors of directories moved away since the last quiet pass.
    // A directory's watch placed again (its arrival anywhere in the tree)
    // takes it out; an arrival that finds nothing to watch (the folder moved
    // on, out of the tree) leaves it in, so its watches still go.
    boost::unordered_set<int> movedDirs_;
    // Directories whose watch the kernel ended since the last quiet pass
    // (path with "/" -> the ended descriptor): their parent's delete event
    // comes after and still counts them as watched.
    boost::unordered_map<std::string, int> endedDirs_;
    // Descriptors whose path another one took since the last quiet pass.
    std::vector<int> displacedWatches_;
    // Unseen arrivals whose departure is still to be read, since the last
    // quiet pass: old path -> new path, both with "/".
    std::map<std::string, std::string> unseenArrivals_;
    // When a root is tried again: quiet passes to wait before the next try,
    // and the wait that follows a failed one.
    struct RootRetry {
        RootRetry() : passesLeft(0), nextWait(1) {}
        unsigned int passesLeft;
        unsigned int nextWait;
    };
    // Roots whose own watch is gone (missing at start, or deleted): watched
    // again on a quiet pass once they exist.
    boost::unordered_map<std::string, RootRetry> unwatchedRoots_;
    // Where each followed tree (a root, or a folder given to addInotifyDir,
    // with its "/") really lay when it was last opened, with its "/".
    boost::unordered_map<std::string, std::string> treeRealPaths_;
    // The device and inode of each watched root (with its "/"), as placed.
    boost::unordered_map<std::string, std::pair<dev_t, ino_t> > rootIdentities_;
    bool watchLimitWarned_;
    // The kernel dropped events (IN_Q_OVERFLOW) since the last quiet pass.
    bool eventsLost_;
    bool changesNotified_;
    ChangeList changePaths_;
    // When the first item of the batch being gathered came.
    SteadyClock::TimePoint batchStarted_;
    SteadyClock::TimePoint lastSettled_;
    // The last record read was the first half of a move (its other half may
    // still be queued).
    bool readEndsInMoveFrom_;
    std::vector<std::string> excludeFolderPaths_;
    boost::shared_ptr<IFileChangeMonitorObserver> observer_;
    boost::mutex mutex_;
};

#endif
