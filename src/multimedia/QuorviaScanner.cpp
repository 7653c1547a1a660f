#include "multimedia/QuorviaScanner.h"

#include <errno.h>

#include <boost/filesystem.hpp>
#include <cstring>

#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/Log.h"

namespace fs = boost::filesystem;

namespace quorvia {

const std::size_t QuorviaScanner::kGroupSize;

void QuorviaScanner::registerObserver(boost::shared_ptr<IFileChangeMonitorObserver> observer) {
    observer_ = observer;
}

void QuorviaScanner::start_scanner(const std::vector<std::string>& roots) {
    for (std::size_t i = 0; i < roots.size(); ++i) {
        try {
            scanDiskDirRecursive(roots[i]);
        } catch (const fs::filesystem_error& e) {
            QLOG(ERROR) << "start_scanner catch exception: " << e.what();
        }
    }
    if (!changePaths_.empty()) {
        notifyObserver();
        changePaths_.clear();
    }
}

void QuorviaScanner::scanDiskDirRecursive(const std::string& dir) {
    QLOG(INFO) << "Scanner: begin scan " << dir;
    for (fs::directory_iterator it(dir), end; it != end; ++it) {
        // Not boost's symlink_status(): see FileStatus. An entry gone
        // meanwhile (its folder too) is passed over without a word.
        const std::string path = it->path().string();
        talvern::FileStatus status;
        const int error = talvern::FileStatus::sOfPath(path, status, false);
        if (error != 0) {
            if (error != ENOENT && error != ENOTDIR) {
                QLOG(ERROR) << "In scanDiskDirRecursive catch exception: " << path << ": "
                            << std::strerror(error);
            }
            continue;
        }
        const std::string name = it->path().filename().string();
        if (status.isRegular()) {
            if ((CommonUtils::endWith(path, ".jpg") || CommonUtils::endWith(path, ".jpeg")) &&
                (name.empty() || name[0] != '.')) {
                notifyObserverInGroup(path);
            }
        } else if (status.isDirectory() && name != "." && name != ".." &&
                   !CommonUtils::isFilterDir(name) && path != dir) {
            scanDiskDirRecursive(path);
        }
    }
}

void QuorviaScanner::notifyObserverInGroup(const std::string& path) {
    changePaths_.push_back(FileChangeItem(path, TALVERN_MODIFY, false));
    QLOG(INFO) << "scanner: add " << path;
    if (changePaths_.size() >= kGroupSize) {
        notifyObserver();
        changePaths_.clear();
    }
}

void QuorviaScanner::notifyObserver() {
    if (observer_) {
        observer_->update(&changePaths_, MONITOR_TYPE_SCANNER);
    }
}

}  // namespace quorvia
