#include "backup/inotify/FileChangeMonitor.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>
#include <boost/unordered_set.hpp>
#include <cstdio>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/Log.h"

namespace {

const std::size_t kEventHeaderSize = sizeof(struct inotify_event);
const int kGateSeconds = 3;

std::string withSlash(const std::string& dir) {
    if (!dir.empty() && dir[dir.size() - 1] != '/') {
        return dir + "/";
    }
    return dir;
}

}  // namespace

const uint32_t FileChangeMonitor::kWatchMask;
const std::size_t FileChangeMonitor::kReadBufferSize;
const int FileChangeMonitor::kQuietMilliseconds;
const int FileChangeMonitor::kMaxWatchRetries;
const unsigned int FileChangeMonitor::kMaxRootRetryPasses;
const std::size_t FileChangeMonitor::kMaxBatchItems;
const int FileChangeMonitor::kMaxBatchSeconds;
const int FileChangeMonitor::kMaxUnsettledSeconds;
const int FileChangeMonitor::kSettleGraceMilliseconds;

FileChangeMonitor* FileChangeMonitor::sGetInstance() {
    static FileChangeMonitor instance;
    return &instance;
}

FileChangeMonitor::FileChangeMonitor(boost::shared_ptr<InotifyKernel> kernel,
                                     boost::shared_ptr<SteadyClock> clock)
    : disableUntil_(0),
      kernel_(kernel),
      clock_(clock),
      inotifyFd_(-1),
      initErrno_(0),
      watchLimitWarned_(false),
      eventsLost_(false),
      changesNotified_(false),
      lastSettled_(clock_->now()),
      readEndsInMoveFrom_(false) {
    inotifyFd_ = kernel_->init();
    if (inotifyFd_ < 0) {
        initErrno_ = errno;
    }
}

FileChangeMonitor::~FileChangeMonitor() { kernel_->close(inotifyFd_); }

// ---- Watch table ----

bool FileChangeMonitor::init(const std::vector<std::string>& dirs) {
    watchDirs_ = dirs;
    return true;
}

bool FileChangeMonitor::scanAndAddWatchDiskDirRecursive(const std::string& dir) {
    if (!talvern::Directory::sExists(dir)) {
        delayAddDirs_[dir] = 1;
        return false;
    }
    return scanFoundDir(dir);
}

// The walk itself: its subdirectories were just seen by their parent's
// listing, so they skip the existence check (a stat per folder of the tree);
// one that goes in between fails at its opening and takes the same retry
// road. Depth first, each folder's subdirectories in the order they were
// listed, kept in a list of pending folders rather than on the stack: a
// chain of folders a few hundred levels deep overflowed a router thread's
// 128 KiB stack.
bool FileChangeMonitor::scanFoundDir(const std::string& top) {
    std::vector<FoundFolder> pending(1, FoundFolder(top));
    bool placed = true;
    while (!pending.empty()) {
        const FoundFolder found = pending.back();
        pending.pop_back();
        const bool watched = watchAndList(found, pending);
        placed = placed && (watched || found.path != top);
    }
    return placed;
}

// A folder below a root is opened, watched and listed only as itself: one
// that is a link (planted, or swapped in after its parent was listed) would
// lead the watch and the walk out of the tree, or back onto a folder watched
// under another path, whose rows would then stop following it. Nor is one
// taken that a folder above it, swapped for a link once its path was taken
// (its parent listed, its arrival read), leads to. A root may itself be a
// link: those are the device's.
int FileChangeMonitor::openFolder(const FoundFolder& found) {
    const std::string& dir = found.path;
    if (isRoot(withSlash(dir))) {
        const int folder = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        noteTreeRealPath(withSlash(dir), folder);
        return folder;
    }
    // A trailing "/" would have the kernel follow a link at the last name.
    const std::string name =
        dir.size() > 1 && dir.back() == '/' ? dir.substr(0, dir.size() - 1) : dir;
    const int folder = ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (folder >= 0 && !isFolderMeant(folder, found)) {
        close(folder);
        errno = ELOOP;  // reached through a link, as one at its own name is
        return -1;
    }
    return folder;
}

// The folder that its parent's listing found, told by its device and inode,
// is the one meant. A file system that numbers inodes as it loads them (FAT)
// may have given it another number since; that one, and one reached by its
// path alone, is meant when it lies in a followed tree as the kernel sees it.
bool FileChangeMonitor::isFolderMeant(int folder, const FoundFolder& found) const {
    talvern::FileStatus status;
    if (found.inode != 0 && talvern::FileStatus::sOfDescriptor(folder, status) == 0 &&
        status.device == found.device && status.inode == found.inode) {
        return true;
    }
    return liesInTree(folder);
}

// Where the kernel has the open folder now, with its "/"; false (errno set)
// when it can't tell.
bool FileChangeMonitor::sRealPathOf(int folder, std::string& real) {
    char place[PATH_MAX];
    const ssize_t size =
        readlink(talvern::File::sDescriptorPath(folder).c_str(), place, sizeof(place));
    if (size <= 0 || static_cast<std::size_t>(size) >= sizeof(place)) {
        return false;
    }
    real = withSlash(std::string(place, static_cast<std::size_t>(size)));
    return true;
}

void FileChangeMonitor::noteTreeRealPath(const std::string& top, int folder) {
    std::string real;
    if (folder >= 0 && sRealPathOf(folder, real)) {
        treeRealPaths_[top] = real;
    }
}

// Without /proc there is no telling: the path is taken at its word, as the
// walk did before it could tell.
bool FileChangeMonitor::liesInTree(int folder) const {
    std::string real;
    if (!sRealPathOf(folder, real)) {
        return errno == ENOENT;
    }
    for (const auto& tree : treeRealPaths_) {
        if (real.compare(0, tree.second.size(), tree.second) == 0) {
            return true;
        }
    }
    return false;
}

bool FileChangeMonitor::watchAndList(const FoundFolder& found, std::vector<FoundFolder>& pending) {
    const std::string& dir = found.path;
    const int folder = openFolder(found);
    if (folder < 0) {
        // A link or a file now stands there: its own events tell what came.
        if (errno != ELOOP && errno != ENOTDIR) {
            noteUnopenedFolder(errno);
            delayAddDirs_[dir] = 1;
        }
        return false;
    }
    bool isNew = false;
    if (!placeWatch(dir, folder, found.inNewWatch, &isNew)) {
        delayAddDirs_[dir] = 1;
        close(folder);
        return false;
    }
    const std::size_t firstChild = pending.size();
    listSubdirs(folder, dir, isNew, pending);
    std::reverse(pending.begin() + firstChild, pending.end());
    return true;
}

// Takes folder over and closes it before any subdirectory is walked: a deep
// tree holds one open directory at a time, not one per level (a tree some
// thousand levels deep took every descriptor of the daemon). A directory
// that can't be read on goes to the retry table; the thread that follows
// the disk must live on.
void FileChangeMonitor::listSubdirs(int folder, const std::string& dir, bool newWatch,
                                    std::vector<FoundFolder>& subdirs) {
    DIR* stream = fdopendir(folder);
    if (stream == NULL) {
        logUnreadable(dir, errno);
        close(folder);
        delayAddDirs_[dir] = 1;
        return;
    }
    const std::string parent = withSlash(dir);
    errno = 0;
    while (const struct dirent* entry = readdir(stream)) {
        const std::string name = entry->d_name;
        // An entry gone meanwhile (its folder too) is passed over without a
        // word; links are passed over as what they are. Only a folder is
        // put to the filter, which logs each name it filters.
        talvern::FileStatus status;
        const int error = name == "." || name == ".."
                              ? ENOENT
                              : talvern::FileStatus::sOfEntry(folder, name, status, false);
        if (error != 0 && error != ENOENT && error != ENOTDIR) {
            logUnreadable(parent + name, error);
        } else if (error == 0 && status.isDirectory() && !CommonUtils::isFilterDir(name)) {
            subdirs.push_back(FoundFolder(parent + name, status.device, status.inode, newWatch));
        }
        errno = 0;
    }
    if (errno != 0) {
        logUnreadable(dir, errno);
        delayAddDirs_[dir] = 1;
    }
    closedir(stream);
}

void FileChangeMonitor::logUnreadable(const std::string& path, int error) {
    QLOG(ERROR) << "In scanAndAddWatchDiskDirRecursive catch exception: " << path << ": "
                << std::strerror(error);
}

bool FileChangeMonitor::addWatchDiskDir(const std::string& dir) {
    const int folder = openFolder(FoundFolder(dir));
    if (folder < 0) {
        noteUnopenedFolder(errno);
        return false;
    }
    const bool placed = placeWatch(dir, folder);
    close(folder);
    return placed;
}

bool FileChangeMonitor::placeWatch(const std::string& dir, int folder, bool inNewWatch,
                                   bool* isNew) {
    const std::string path = withSlash(dir);
    int wd = kernel_->addWatch(inotifyFd_, folder, path, kWatchMask);
    if (wd == -1) {
        noteRefusedWatch(errno);
        return false;
    }
    watchLimitWarned_ = false;
    // The two tables stay mirror images: a descriptor that now stands for
    // another path drops its old path, and a path that another descriptor
    // held loses that one, so no event is ever named by a path that is not
    // its directory's. That other watch may be live, on a folder moved on
    // in this batch (two folders swapped through a third name) whose new
    // place is scanned later: the kernel keeps it until the delivery.
    boost::unordered_map<int, std::string>::iterator byWd = wdToPath_.find(wd);
    if (isNew != NULL) {
        *isNew = byWd == wdToPath_.end();
    }
    if (byWd != wdToPath_.end() && byWd->second != path) {
        if (isStillWatchedAs(byWd->second, path)) {
            QLOG(ERROR) << dir << " leads to the folder watched as " << byWd->second
                        << ", which stays watched as it is";
            return false;
        }
        if (inNewWatch) {
            noteUnseenArrival(byWd->second, path);
        }
        forgetPath(byWd->second, wd);
    }
    std::map<std::string, int>::iterator byPath = pathToWd_.find(path);
    if (byPath != pathToWd_.end() && byPath->second != wd) {
        const int displaced = byPath->second;
        // A folder moved away, and a newcomer at its path before this one's
        // subfolders are walked: the watches below are still the old
        // folder's, and they go with it.
        if (movedDirs_.count(displaced) != 0) {
            removeWatchesBelow(path);
        }
        displacedWatches_.push_back(displaced);
        wdToPath_.erase(displaced);
    }
    wdToPath_[wd] = path;
    pathToWd_[path] = wd;
    // A directory that left the tree and came back (under any name) before
    // the quiet pass is placed again under the same descriptor: it stays.
    movedDirs_.erase(wd);
    QLOG(INFO) << "add inotify watch " << dir;
    return true;
}

// A folder that can't be opened (no permission, no descriptor left) can't
// be watched either: it is said as a refused watch. One that is gone, or is
// no folder of its own (a link, a file), is passed over without a word.
void FileChangeMonitor::noteUnopenedFolder(int error) {
    if (error != ENOENT && error != ELOOP && error != ENOTDIR) {
        noteRefusedWatch(error);
    }
}

// The watch limit is the one refusal an operator can fix; say so once until
// a watch succeeds again, not once per directory of a large tree.
void FileChangeMonitor::noteRefusedWatch(int error) {
    QLOG(INFO) << "talvern inotify_add_watch error";
    if (error == ENOSPC && !watchLimitWarned_) {
        watchLimitWarned_ = true;
        QLOG(WARNING) << "inotify watch limit reached: raise fs.inotify.max_user_watches to "
                         "follow every folder of the disk";
    }
}

void FileChangeMonitor::addWatchDiskDir(inotify_event* event) {
    if (!(event->mask & IN_ISDIR) || event->len == 0) {
        return;
    }
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.find(event->wd);
    if (it == wdToPath_.end()) {
        return;
    }
    scanAndAddWatchDiskDirRecursive(it->second + eventName(event) + "/");
}

void FileChangeMonitor::removeWatchDiskDir(inotify_event* event) {
    if (!(event->mask & IN_ISDIR) || event->len == 0) {
        return;
    }
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.find(event->wd);
    if (it == wdToPath_.end()) {
        return;
    }
    const std::string path = it->second + eventName(event) + "/";
    int found = isWatchedTalvernDir(path);
    if (found == -1) {
        return;
    }
    QLOG(WARNING) << "Folder removed: " << path;
    if (event->mask & IN_MOVED_FROM) {
        movedDirs_.insert(found);
        return;
    }
    if (endedDirs_.erase(path) != 0) {
        return;
    }
    kernel_->removeWatch(inotifyFd_, found);
    wdToPath_.erase(found);
    pathToWd_.erase(path);
}

// Left in place, the watches of a directory moved out of the tree would name
// its files by paths that now belong to nobody (or to a newcomer). Each
// folder that left takes the range of its path in the ordered index: a pass
// after which nothing left costs nothing (an idle one cost a look at every
// watch, each second), and 30,000 sibling folders moved out at once cost
// their own watches (a pass over the table per folder took 13 s). Nested
// folders that both left share watches, which go once.
void FileChangeMonitor::dropDirectoriesMovedOut() {
    std::vector<int> gone;
    for (int wd : movedDirs_) {
        boost::unordered_map<int, std::string>::iterator moved = wdToPath_.find(wd);
        if (moved != wdToPath_.end()) {
            addWatchesFrom(pathToWd_.lower_bound(moved->second), moved->second, gone);
        }
    }
    movedDirs_.clear();
    std::sort(gone.begin(), gone.end());
    gone.erase(std::unique(gone.begin(), gone.end()), gone.end());
    removeWatches(gone);
}

void FileChangeMonitor::addWatchesFrom(std::map<std::string, int>::const_iterator from,
                                       const std::string& prefix, std::vector<int>& wds) const {
    for (; from != pathToWd_.end() && from->first.compare(0, prefix.size(), prefix) == 0; ++from) {
        wds.push_back(from->second);
    }
}

// The watch holds the folder's inode, so its number stays the same while it
// is compared, on file systems that number inodes as they load them too.
bool FileChangeMonitor::isStillWatchedAs(const std::string& watched,
                                         const std::string& path) const {
    // On a disk that ignores case (FAT, exFAT), a folder renamed to another
    // case of its name, and all below it, is still found under the old
    // name: that is its move, not a second way in.
    if (watched.size() == path.size() && strcasecmp(watched.c_str(), path.c_str()) == 0) {
        return false;
    }
    // A root may be a link; any other folder is itself or gone.
    const bool root = isRoot(watched);
    const std::string name = root ? watched : watched.substr(0, watched.size() - 1);
    talvern::FileStatus there, found;
    return talvern::FileStatus::sOfPath(name, there, root) == 0 && there.isDirectory() &&
           talvern::FileStatus::sOfPath(path, found) == 0 && there.device == found.device &&
           there.inode == found.inode;
}

// Watches that lost their path since the last quiet pass and were not
// placed again.
void FileChangeMonitor::removeDisplacedWatches() {
    for (int wd : displacedWatches_) {
        if (wdToPath_.count(wd) == 0) {
            kernel_->removeWatch(inotifyFd_, wd);
        }
    }
    displacedWatches_.clear();
}

// A folder that a newcomer displaced costs its own watches, not a pass over
// all of them.
void FileChangeMonitor::removeWatchesBelow(const std::string& dir) {
    std::vector<int> below;
    addWatchesFrom(pathToWd_.upper_bound(dir), dir, below);
    removeWatches(below);
}

void FileChangeMonitor::removeWatches(const std::vector<int>& wds) {
    for (int wd : wds) {
        kernel_->removeWatch(inotifyFd_, wd);
        forgetPath(wdToPath_[wd], wd);
        wdToPath_.erase(wd);
    }
}

void FileChangeMonitor::removeWatchDiskDirSelf(inotify_event* event) {
    if (!(event->mask & IN_ISDIR) || event->len != 0) {
        return;
    }
    if (wdToPath_.count(event->wd) != 0) {
        kernel_->removeWatch(inotifyFd_, event->wd);
        forgetWatch(event->wd);
    }
}

// The kernel ends a watch with IN_IGNORED (after IN_DELETE_SELF, whose
// IN_ISDIR bit older kernels leave out, or an unmount): the descriptor
// leaves both tables, and a root that lost its watch is looked for again.
void FileChangeMonitor::forgetWatch(int wd) {
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.find(wd);
    if (it == wdToPath_.end()) {
        return;
    }
    if (isRoot(it->second)) {
        unwatchedRoots_[it->second];
    }
    endedDirs_[it->second] = wd;
    forgetPath(it->second, wd);
    wdToPath_.erase(it);
}

// Made and filled at once (mkdir, then a folder moved in), a folder gets
// its watch after what came into it: the rows of what came would stay at
// their old paths, as after a move out of the tree. A file's arrival so
// missed has no such witness, and stays missed.
void FileChangeMonitor::noteUnseenArrival(const std::string& from, const std::string& to) {
    const FileChangeItem* departure = changePaths_.find(from);
    if (departure != NULL && departure->mask == TALVERN_FROM) {
        changePaths_.add(to, TALVERN_TO, true, departure->cookie);
    } else {
        unseenArrivals_[from] = to;
    }
}

void FileChangeMonitor::addUnseenArrival(const std::string& from, uint32_t cookie) {
    std::map<std::string, std::string>::iterator arrival = unseenArrivals_.find(from);
    if (arrival != unseenArrivals_.end()) {
        changePaths_.add(arrival->second, TALVERN_TO, true, cookie);
        unseenArrivals_.erase(arrival);
    }
}

void FileChangeMonitor::forgetPath(const std::string& path, int wd) {
    std::map<std::string, int>::iterator it = pathToWd_.find(path);
    if (it != pathToWd_.end() && it->second == wd) {
        pathToWd_.erase(it);
    }
}

bool FileChangeMonitor::isRoot(const std::string& pathWithSlash) const {
    for (std::size_t i = 0; i < watchDirs_.size(); ++i) {
        if (withSlash(watchDirs_[i]) == pathWithSlash) {
            return true;
        }
    }
    return false;
}

int FileChangeMonitor::isWatchedTalvernDir(const std::string& path) {
    const std::map<std::string, int>::const_iterator watched = pathToWd_.find(path);
    const boost::unordered_map<std::string, int>::const_iterator ended = endedDirs_.find(path);
    if (watched == pathToWd_.end() && ended == endedDirs_.end()) {
        QLOG(INFO) << "not find path " << path;
        return -1;
    }
    const int wd = watched != pathToWd_.end() ? watched->second : ended->second;
    QLOG(INFO) << "it is watched talvern dir, path is " << path << " ,wd is " << wd;
    return wd;
}

void FileChangeMonitor::delayAddWatchDiskDir() {
    boost::unordered_map<std::string, int>::iterator it = delayAddDirs_.begin();
    while (it != delayAddDirs_.end()) {
        if (it->second > kMaxWatchRetries || addWatchDiskDir(it->first)) {
            it = delayAddDirs_.erase(it);
        } else {
            ++it->second;
            ++it;
        }
    }
}

// Roots are watched again once they exist: a data folder that was missing at
// start-up or deleted and made anew is followed without a restart. The
// parent of a root is not watched, so its return is found by looking.
void FileChangeMonitor::watchMissingRoots() {
    boost::unordered_map<std::string, RootRetry>::iterator it = unwatchedRoots_.begin();
    while (it != unwatchedRoots_.end()) {
        RootRetry& retry = it->second;
        if (retry.passesLeft > 0) {
            --retry.passesLeft;
            ++it;
        } else if (!talvern::Directory::sExists(it->first)) {
            ++it;
        } else if (scanAndAddWatchDiskDirRecursive(it->first)) {
            delayAddDirs_.erase(it->first);
            noteRootIdentity(it->first);
            it = unwatchedRoots_.erase(it);
        } else {
            delayAddDirs_.erase(it->first);
            retry.passesLeft = retry.nextWait;
            retry.nextWait = std::min(2 * retry.nextWait, kMaxRootRetryPasses);
            ++it;
        }
    }
}

void FileChangeMonitor::addInotifyDir(const std::string& dir) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    QLOG(INFO) << "add inotify dir " << dir;
    // The caller's folder is followed as a tree of its own, wherever it lies.
    const int folder = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    noteTreeRealPath(withSlash(dir), folder);
    if (folder >= 0) {
        close(folder);
    }
    scanAndAddWatchDiskDirRecursive(dir);
}

void FileChangeMonitor::removeInotifyDir(const std::string& dir) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    QLOG(INFO) << "remove inotify dir" << dir;
    treeRealPaths_.erase(withSlash(dir));
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.begin();
    while (it != wdToPath_.end()) {
        if (talvern::Directory::sIsAncestorPath(dir, it->second)) {
            kernel_->removeWatch(inotifyFd_, it->first);
            pathToWd_.erase(it->second);
            it = wdToPath_.erase(it);
        } else {
            ++it;
        }
    }
}

void FileChangeMonitor::setExcludeFolderPath(const std::vector<std::string>& prefixes) {
    excludeFolderPaths_ = prefixes;
}

bool FileChangeMonitor::FilterExcludeFileAndPath(inotify_event* event) {
    if (event->len == 0) {
        return true;
    }
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.find(event->wd);
    if (it == wdToPath_.end()) {
        return true;
    }
    std::string path = it->second + eventName(event);
    if (event->mask & IN_ISDIR) {
        path += "/";
    }
    for (std::size_t i = 0; i < excludeFolderPaths_.size(); ++i) {
        if (path.compare(0, excludeFolderPaths_[i].size(), excludeFolderPaths_[i]) == 0) {
            return true;
        }
    }
    return false;
}

// ---- Event loop ----

void FileChangeMonitor::registerObserver(boost::shared_ptr<IFileChangeMonitorObserver> observer) {
    observer_ = observer;
}

void FileChangeMonitor::startNotify() {
    if (!beginNotify()) {
        // Without inotify there is nothing to read: park this thread for good
        // and let the daemon go on answering requests.
        for (;;) {
            boost::this_thread::sleep_for(boost::chrono::hours(24));
        }
    }
    for (;;) {
        runPass();
    }
}

bool FileChangeMonitor::beginNotify() {
    if (inotifyFd_ < 0) {
        QLOG(ERROR) << "The disk is not being followed: inotify_init failed: "
                    << strerror(initErrno_);
        return false;
    }
    QLOG(INFO) << "talvern has start notify";
    for (std::size_t i = 0; i < watchDirs_.size(); ++i) {
        if (scanAndAddWatchDiskDirRecursive(watchDirs_[i])) {
            noteRootIdentity(withSlash(watchDirs_[i]));
        } else {
            // Looked for by watchMissingRoots, not retried as a refused folder.
            delayAddDirs_.erase(watchDirs_[i]);
            unwatchedRoots_[withSlash(watchDirs_[i])];
        }
    }
    // The first events wait for their quiet second, however long the scan.
    lastSettled_ = clock_->now();
    return true;
}

void FileChangeMonitor::noteRootIdentity(const std::string& root) {
    talvern::FileStatus status;
    if (talvern::FileStatus::sOfPath(root, status) == 0) {
        rootIdentities_[root] = std::make_pair(status.device, status.inode);
    }
}

// A data folder moved away and another put in its place gives no event (a
// watch follows its directory, and moves of the watched directory itself are
// not asked for): a root whose path now names another directory, or none,
// loses its watches and is looked for again.
void FileChangeMonitor::checkRootsInPlace() {
    boost::unordered_map<std::string, std::pair<dev_t, ino_t> >::iterator it =
        rootIdentities_.begin();
    while (it != rootIdentities_.end()) {
        talvern::FileStatus status;
        if (talvern::FileStatus::sOfPath(it->first, status) == 0 &&
            std::make_pair(status.device, status.inode) == it->second) {
            ++it;
            continue;
        }
        QLOG(WARNING) << "the followed folder " << it->first
                      << " is not the one watched any more; it is looked for again";
        removeWatchesBelow(it->first);
        std::map<std::string, int>::iterator root = pathToWd_.find(it->first);
        if (root != pathToWd_.end()) {
            kernel_->removeWatch(inotifyFd_, root->second);
            wdToPath_.erase(root->second);
            pathToWd_.erase(root);
        }
        unwatchedRoots_[it->first];
        it = rootIdentities_.erase(it);
    }
}

void FileChangeMonitor::runPass() {
    if (changesNotified_) {
        changesNotified_ = false;
        changePaths_.clear();
    }
    int r = kernel_->waitReadable(inotifyFd_, kQuietMilliseconds);
    int error = errno;
    if (gateShut()) {
        return;
    }
    if (r > 0) {
        drain();
        if (batchIsFull()) {
            deliverChanges(false);
        } else if (settleIsOverdue() &&
                   kernel_->waitReadable(inotifyFd_, kSettleGraceMilliseconds) == 0) {
            settle();
        }
    } else if (r == 0 || error == EINTR) {
        settle();
    } else {
        // A descriptor that fails for good must not turn the loop into a
        // busy one.
        boost::this_thread::sleep_for(boost::chrono::milliseconds(kQuietMilliseconds));
    }
}

void FileChangeMonitor::settle() {
    lastSettled_ = clock_->now();
    checkRootsInPlace();
    watchMissingRoots();
    deliverChanges(true);
    recoverLostEvents();
}

// A move's halves are queued one after the other, by one system call: a
// read that left the queue dry, did not end between them, and after which
// nothing came for a moment (another event may be queued between the
// halves) holds both, or neither.
bool FileChangeMonitor::settleIsOverdue() const {
    return !readEndsInMoveFrom_ &&
           clock_->now() - lastSettled_ >= std::chrono::seconds(kMaxUnsettledSeconds);
}

bool FileChangeMonitor::gateShut() {
    int until = disableUntil_;
    if (until == 0) {
        return false;
    }
    if (until == -1 || until > time(NULL)) {
        discardAllEvent();
        // Nothing comes in while the gate is shut: what comes once it opens
        // waits for its quiet second too.
        lastSettled_ = clock_->now();
        return true;
    }
    disableUntil_ = 0;
    return false;
}

// Reads until the queue is dry or the batch is full (a copy that never
// leaves a quiet second would otherwise keep the loop here).
void FileChangeMonitor::drain() {
    std::vector<char> buffer(kReadBufferSize);
    while (!batchIsFull()) {
        ssize_t n = kernel_->read(inotifyFd_, &buffer[0], buffer.size());
        if (n <= 0) {
            return;
        }
        if (changePaths_.empty()) {
            batchStarted_ = clock_->now();
        }
        handleEvents(&buffer[0], static_cast<std::size_t>(n));
    }
}

bool FileChangeMonitor::batchIsFull() const {
    return changePaths_.size() >= kMaxBatchItems ||
           (!changePaths_.empty() &&
            clock_->now() - batchStarted_ >= std::chrono::seconds(kMaxBatchSeconds));
}

void FileChangeMonitor::handleEvents(const char* buffer, std::size_t length) {
    std::size_t i = 0;
    while (i + kEventHeaderSize <= length) {
        inotify_event* event = reinterpret_cast<inotify_event*>(const_cast<char*>(buffer + i));
        if (i + kEventHeaderSize + event->len > length) {
            return;
        }
        readEndsInMoveFrom_ = (event->mask & IN_MOVED_FROM) != 0;
        if (dealWithEvent(event)) {
            addEvent2ChangePath(event);
        }
        i += kEventHeaderSize + event->len;
    }
}

bool FileChangeMonitor::dealWithEvent(inotify_event* event) {
    const uint32_t mask = event->mask;
    if (mask & IN_Q_OVERFLOW) {
        eventsLost_ = true;
        return false;
    }
    if (mask & IN_IGNORED) {
        forgetWatch(event->wd);
        return false;
    }
    if ((mask & IN_ISDIR) && CommonUtils::isFilterDir(eventName(event))) {
        return false;
    }
    if (mask & (IN_MOVED_FROM | IN_DELETE)) {
        removeWatchDiskDir(event);
        return true;
    }
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        removeWatchDiskDirSelf(event);
        return true;
    }
    if (mask & (IN_MOVED_TO | IN_CREATE)) {
        addWatchDiskDir(event);
        return true;
    }
    return (mask & (IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE)) != 0;
}

void FileChangeMonitor::addEvent2ChangePath(inotify_event* event) {
    if (event->len == 0) {
        return;
    }
    boost::unordered_map<int, std::string>::iterator it = wdToPath_.find(event->wd);
    if (it == wdToPath_.end()) {
        return;
    }
    const bool isDir = (event->mask & IN_ISDIR) != 0;
    std::string path = it->second + eventName(event);
    if (isDir) {
        path += "/";
    }
    const uint32_t cookie = (event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) ? event->cookie : 0;
    changePaths_.add(path, inotifyMaskTransfer(event->mask), isDir, cookie);
    if (isDir && (event->mask & IN_MOVED_FROM)) {
        addUnseenArrival(path, cookie);
    }
}

WatchMask FileChangeMonitor::inotifyMaskTransfer(unsigned int mask) {
    char hex[16];
    snprintf(hex, sizeof(hex), "%x", mask);
    QLOG(INFO) << "event mask is " << hex;
    if (mask & IN_MOVED_FROM) {
        return TALVERN_FROM;
    }
    if (mask & IN_MOVED_TO) {
        return TALVERN_TO;
    }
    if (mask & IN_MOVE_SELF) {
        return TALVERN_DELETE;
    }
    if (mask & IN_CLOSE_WRITE) {
        return TALVERN_MODIFY;
    }
    if (mask & (IN_DELETE | IN_DELETE_SELF)) {
        return TALVERN_DELETE;
    }
    if (mask & IN_CREATE) {
        return TALVERN_CREATE;
    }
    if (mask & IN_MODIFY) {
        return TALVERN_MODIFY;
    }
    if (mask & IN_ATTRIB) {
        return TALVERN_CREATE;
    }
    return static_cast<WatchMask>(0);
}

std::string FileChangeMonitor::convertWatchMaskToString(WatchMask mask) {
    switch (mask) {
    case TALVERN_MODIFY:
        return "TALVERN_MODIFY";
    case TALVERN_CREATE:
        return "TALVERN_CREATE";
    case TALVERN_DELETE:
        return "TALVERN_DELETE";
    case TALVERN_FROM:
        return "TALVERN_FROM";
    case TALVERN_TO:
        return "TALVERN_TO";
    }
    return "";
}

void FileChangeMonitor::printAllChanges() {
    const std::vector<FileChangeItem>& items = changePaths_.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        QLOG(INFO) << "change path is " << items[i].path << " ,mask is "
                   << convertWatchMaskToString(items[i].mask) << " ,is dir : "
                   << (items[i].isDir ? 1 : 0);
    }
}

void FileChangeMonitor::deliverChanges(bool quiet) {
    if (!changePaths_.empty() && !delayAddDirs_.empty()) {
        delayAddWatchDiskDir();
    }
    // A slice may end between the two halves of a move: what waits for the
    // rest of a move is settled on a quiet pass only, one with nothing to
    // deliver included (the slice before it delivered everything).
    if (quiet) {
        dropDirectoriesMovedOut();
        removeDisplacedWatches();
        endedDirs_.clear();
        unseenArrivals_.clear();
    }
    if (changePaths_.empty()) {
        return;
    }
    changesNotified_ = true;
    printAllChanges();
    notifyObserver();
}

void FileChangeMonitor::recoverLostEvents() {
    if (!eventsLost_) {
        return;
    }
    eventsLost_ = false;
    QLOG(WARNING) << "inotify dropped events (its queue overflowed): the folders are watched "
                     "anew and the index is checked against the disk";
    // A folder renamed while events were lost would otherwise lose its rows
    // to the check against the disk, though every file is still there: the
    // watches it kept say where it went.
    const boost::unordered_map<int, std::string> before = wdToPath_;
    for (std::size_t i = 0; i < watchDirs_.size(); ++i) {
        if (talvern::Directory::sExists(watchDirs_[i])) {
            scanFoundDir(watchDirs_[i]);
        }
    }
    const std::vector<FolderMove> moves = foundMoves(before);
    if (!observer_) {
        return;
    }
    try {
        observer_->eventsLost(watchDirs_, moves);
    } catch (const std::exception& e) {
        QLOG(ERROR) << "FileChangeMonitor: observer raised an exception: " << e.what();
    }
}

// Every watch now under another path is a folder moved, save one that only
// went along with the folder above it (that folder's move takes it).
std::vector<FolderMove> FileChangeMonitor::foundMoves(
    const boost::unordered_map<int, std::string>& before) const {
    std::map<std::string, std::string> moved;
    boost::unordered_set<std::string> watched;
    for (boost::unordered_map<int, std::string>::const_iterator it = before.begin();
         it != before.end(); ++it) {
        watched.insert(it->second);
        boost::unordered_map<int, std::string>::const_iterator now = wdToPath_.find(it->first);
        if (now != wdToPath_.end() && now->second != it->second) {
            moved[it->second] = now->second;
        }
    }
    std::vector<FolderMove> moves;
    for (std::map<std::string, std::string>::const_iterator it = moved.begin(); it != moved.end();
         ++it) {
        const std::string parent = watchedParent(it->first, watched);
        std::map<std::string, std::string>::const_iterator up = moved.find(parent);
        const std::string parentNow = up == moved.end() ? parent : up->second;
        if (parent.empty() || it->second != parentNow + it->first.substr(parent.size())) {
            QLOG(INFO) << "folder " << it->first << " found at " << it->second
                       << " after events were lost";
            moves.push_back(FolderMove{it->first, it->second});
        }
    }
    return moves;
}

std::string FileChangeMonitor::watchedParent(const std::string& path,
                                             const boost::unordered_set<std::string>& watched) {
    for (std::size_t slash = path.rfind('/', path.size() - 2);
         slash != std::string::npos && slash > 0; slash = path.rfind('/', slash - 1)) {
        if (watched.count(path.substr(0, slash + 1)) != 0) {
            return path.substr(0, slash + 1);
        }
    }
    return std::string();
}

// An observer that throws must not end the thread that follows the disk.
void FileChangeMonitor::notifyObserver() {
    if (!observer_) {
        return;
    }
    try {
        observer_->update(&changePaths_.items(), MONITOR_TYPE_INOTIFY);
    } catch (const std::exception& e) {
        QLOG(ERROR) << "FileChangeMonitor: observer raised an exception: " << e.what();
    }
}

void FileChangeMonitor::discardAllEvent() {
    std::vector<char> buffer(kReadBufferSize);
    while (kernel_->read(inotifyFd_, &buffer[0], buffer.size()) > 0) {
    }
}

void FileChangeMonitor::enableWatchEvent() { disableUntil_ = 0; }

void FileChangeMonitor::disableWatchEvent() { disableUntil_ = -1; }

void FileChangeMonitor::disableWatchEventThreeSec() {
    time_t now = time(NULL);
    disableUntil_ = (now == static_cast<time_t>(-1)) ? 0 : static_cast<int>(now + kGateSeconds);
}

// ---- Inspection ----

std::string FileChangeMonitor::watchedPath(int wd) const {
    boost::unordered_map<int, std::string>::const_iterator it = wdToPath_.find(wd);
    return it == wdToPath_.end() ? std::string() : it->second;
}

std::vector<std::string> FileChangeMonitor::watchedPaths() const {
    std::vector<std::string> paths;
    for (boost::unordered_map<int, std::string>::const_iterator it = wdToPath_.begin();
         it != wdToPath_.end(); ++it) {
        paths.push_back(it->second);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::map<std::string, int> FileChangeMonitor::delayedDirs() const {
    return std::map<std::string, int>(delayAddDirs_.begin(), delayAddDirs_.end());
}

std::string FileChangeMonitor::eventName(const inotify_event* event) {
    if (event->len == 0) {
        return std::string();
    }
    return std::string(event->name, strnlen(event->name, event->len));
}
