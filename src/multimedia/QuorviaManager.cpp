#include "multimedia/QuorviaManager.h"

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <boost/thread/lock_guard.hpp>

#include "backup/inotify/FileChangeMonitor.h"
#include "multimedia/quorviatask/BatchOrder.h"
#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"
#include "multimedia/quorviatask/QuorviaMoveDirTask.h"
#include "multimedia/quorviatask/QuorviaReconcileTask.h"
#include "multimedia/quorviatask/QuorviaTaskFactory.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace quorvia {

constexpr const char* QuorviaManager::kMovingFolder;
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
    for (const BatchEvent& event : BatchOrder::sInOrder(*changes)) {
        const FileChangeItem& item = (*changes)[event.item];
        if (!event.last) {
            dispatcherTask(item.path, event.mask, item.isDir, type, event.cookie);
            continue;
        }
        if (item.mask == TALVERN_MODIFY && !CommonUtils::endWith(item.path, ".jpg") &&
            !CommonUtils::endWith(item.path, ".jpeg")) {
            continue;
        }
        // Asked for its side effect only: it makes a missing download folder.
        CommonUtils::sIsDownloadTmpFile(item.path);
        dispatcherTask(item.path, item.mask, item.isDir, type, item.cookie);
    }
}

void QuorviaManager::eventsLost(const std::vector<std::string>& roots,
                                const std::vector<FolderMove>& moves) {
    if (!dispatcher_) {
        return;
    }
    if (!moves.empty()) {
        dispatcher_->dispatch(boost::shared_ptr<Dispatchable>(
            new QuorviaDeleteDirTask(kMovingFolder, MONITOR_TYPE_INOTIFY)));
    }
    const std::string waiting = std::string(kMovingFolder) + "/";
    std::vector<FolderMove> deepestFirst(moves);
    std::stable_sort(
        deepestFirst.begin(), deepestFirst.end(),
        [](const FolderMove& a, const FolderMove& b) { return a.from.size() > b.from.size(); });
    for (std::size_t i = 0; i < deepestFirst.size(); ++i) {
        dispatcher_->dispatch(boost::shared_ptr<Dispatchable>(new QuorviaMoveDirTask(
            deepestFirst[i].from, waiting + std::to_string(i) + "/", MONITOR_TYPE_INOTIFY)));
    }
    for (std::size_t i = 0; i < deepestFirst.size(); ++i) {
        dispatcher_->dispatch(boost::shared_ptr<Dispatchable>(new QuorviaMoveDirTask(
            waiting + std::to_string(i) + "/", deepestFirst[i].to, MONITOR_TYPE_INOTIFY)));
    }
    for (const std::string& root : roots) {
        dispatcher_->dispatch(
            boost::shared_ptr<Dispatchable>(new QuorviaReconcileTask(root, MONITOR_TYPE_INOTIFY)));
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
