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

// Entries in the order each folder lists them, a subfolder walked at its
// entry as a recursion would, but with the open folders kept in a list
// rather than on the stack: a chain of folders a few hundred levels deep
// overflowed the 128 KiB stack a router gives a thread.
void QuorviaScanner::scanDiskDirRecursive(const std::string& dir) {
    std::vector<OpenFolder> open;
    open.push_back(openFolder(dir));
    while (!open.empty()) {
        OpenFolder& folder = open.back();
        if (folder.visited) {
            ++folder.entry;
        }
        folder.visited = true;
        if (folder.entry == fs::directory_iterator()) {
            open.pop_back();
            continue;
        }
        const std::string subfolder = visit(folder.path, *folder.entry);
        if (!subfolder.empty()) {
            open.push_back(openFolder(subfolder));
        }
    }
}

QuorviaScanner::OpenFolder QuorviaScanner::openFolder(const std::string& dir) {
    QLOG(INFO) << "Scanner: begin scan " << dir;
    OpenFolder folder;
    folder.path = dir;
    folder.entry = fs::directory_iterator(dir);
    return folder;
}

std::string QuorviaScanner::visit(const std::string& dir, const fs::directory_entry& entry) {
    // Not boost's symlink_status(): see FileStatus. An entry gone meanwhile
    // (its folder too) is passed over without a word.
    const std::string path = entry.path().string();
    talvern::FileStatus status;
    const int error = talvern::FileStatus::sOfPath(path, status, false);
    if (error != 0) {
        if (error != ENOENT && error != ENOTDIR) {
            QLOG(ERROR) << "In scanDiskDirRecursive catch exception: " << path << ": "
                        << std::strerror(error);
        }
        return std::string();
    }
    const std::string name = entry.path().filename().string();
    if (status.isRegular()) {
        if ((CommonUtils::endWith(path, ".jpg") || CommonUtils::endWith(path, ".jpeg")) &&
            (name.empty() || name[0] != '.')) {
            notifyObserverInGroup(path);
        }
    } else if (status.isDirectory() && name != "." && name != ".." &&
               !CommonUtils::isFilterDir(name) && path != dir) {
        return path;
    }
    return std::string();
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
