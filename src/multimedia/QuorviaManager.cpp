#include "multimedia/QuorviaManager.h"

#include <boost/bind/bind.hpp>
#include <boost/thread/lock_guard.hpp>

#include "backup/inotify/FileChangeMonitor.h"
#include "multimedia/quorviatask/QuorviaReconcileTask.h"
#include "multimedia/quorviatask/QuorviaTaskFactory.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace quorvia {

boost::shared_ptr<QuorviaManager> QuorviaManager::sInstance_;
boost::mutex QuorviaManager::instanceMutex_;

boost::shared_ptr<QuorviaManager> QuorviaManager::sGetInstance() {
    boost::lock_guard<boost::mutex> lock(instanceMutex_);
    if (!sInstance_) {
        sInstance_.reset(new QuorviaManager);
    }
    return sInstance_;
}

QuorviaManager::QuorviaManager() { init(); }

QuorviaManager::~QuorviaManager() {}

void QuorviaManager::init() {
    watchDirs_.push_back(talvern::ConfigInfo::sGetInstance()->getUserdiskDataPath());
}

void QuorviaManager::run() {
    startDispatcher();
    thread_.reset(new boost::thread(boost::bind(&QuorviaManager::notify, this)));
}

void QuorviaManager::startDispatcher() {
    dispatcher_.reset(new Dispatcher());
    dispatcher_->start();
}

void QuorviaManager::notify() {
    FileChangeMonitor* monitor = FileChangeMonitor::sGetInstance();
    monitor->init(watchDirs_);
    monitor->registerObserver(shared_from_this());
    monitor->startNotify();
}

void QuorviaManager::update(std::vector<FileChangeItem>* changes, MonitorType type) {
    if (!changes) {
        return;
    }
    std::vector<const FileChangeItem*> deleted;
    for (std::size_t i = 0; i < changes->size(); ++i) {
        const FileChangeItem& item = (*changes)[i];
        for (const MoveHalf& half : item.earlierMoves) {
            dispatcherTask(item.path, half.mask, item.isDir, type, half.cookie);
        }
        if (item.mask == TALVERN_MODIFY && !CommonUtils::endWith(item.path, ".jpg") &&
            !CommonUtils::endWith(item.path, ".jpeg")) {
            continue;
        }
        // Asked for its side effect only: it makes a missing download folder.
        CommonUtils::sIsDownloadTmpFile(item.path);
        if (item.mask == TALVERN_DELETE) {
            deleted.push_back(&item);
            continue;
        }
        dispatcherTask(item.path, item.mask, item.isDir, type, item.cookie);
    }
    // An item stands where its path was first seen in the batch, but a move
    // pairs only at the item of its second half, perhaps further on. A path
    // deleted last is gone at the batch's end, so its rows go once every move
    // of the batch has taken its rows along (a file or folder renamed, and
    // another of its old name made and removed, once lost the first one's
    // rows).
    for (const FileChangeItem* item : deleted) {
        dispatcherTask(item->path, item->mask, item->isDir, type, item->cookie);
    }
}

void QuorviaManager::eventsLost(const std::vector<std::string>& roots) {
    for (const std::string& root : roots) {
        boost::shared_ptr<Dispatchable> task(new QuorviaReconcileTask(root, MONITOR_TYPE_INOTIFY));
        if (dispatcher_) {
            dispatcher_->dispatch(task);
        }
    }
}

void QuorviaManager::dispatcherTask(const std::string& path, WatchMask mask, bool isDir,
                                    MonitorType type, uint32_t cookie) {
    boost::shared_ptr<Dispatchable> task;
    QuorviaTaskFactory::CreateTask(task, path, mask, isDir, type, cookie);
    if (dispatcher_) {
        dispatcher_->dispatch(task);
    }
}

}  // namespace quorvia
