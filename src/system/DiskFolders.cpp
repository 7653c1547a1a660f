#include "system/DiskFolders.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <deque>

#include "storage/Directory.h"
#include "storage/FileStatus.h"

namespace talvern {

namespace {

// As many links as the kernel follows on one path.
const int kMaxLinksFollowed = 40;

std::deque<std::string> partsOf(const std::string& path) {
    std::deque<std::string> parts;
    for (std::size_t start = 0; start < path.size();) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string part = path.substr(start, end - start);
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = end + 1;
    }
    return parts;
}

std::string joined(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

std::string parentOf(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : folder.substr(0, slash);
}

// "" when path can't be resolved.
std::string realPathOf(const std::string& path) {
    char* real = realpath(path.c_str(), NULL);
    const std::string result = real != NULL ? real : "";
    free(real);
    return result;
}

// Where the entry at path lies, the entry itself not followed.
std::string entryOf(const std::string& path) {
    const std::deque<std::string> parts = partsOf(path);
    if (parts.empty()) {
        return "";
    }
    const std::size_t slash = path.rfind('/', path.find_last_not_of('/'));
    const std::string parent =
        realPathOf(slash == std::string::npos ? "." : path.substr(0, slash + 1));
    return parent.empty() ? "" : joined(parent, parts.back());
}

std::string linkTarget(const std::string& link) {
    char target[PATH_MAX];
    const ssize_t size = readlink(link.c_str(), target, sizeof(target));
    return size > 0 && static_cast<std::size_t>(size) < sizeof(target) ? std::string(target, size)
                                                                       : "";
}

bool within(const std::string& top, const std::string& folder) {
    return !top.empty() && Directory::sIsAncestorPath(top, folder);
}

}  // namespace

DiskFolders::DiskFolders(const std::string& userdiskRoot, const std::string& dataFolder,
                         const std::string& extdiskRoot)
    : userdisk_(realPathOf(userdiskRoot)),
      data_(realPathOf(dataFolder)),
      extdisks_(realPathOf(extdiskRoot)),
      userdiskEntry_(entryOf(userdiskRoot)),
      dataEntry_(entryOf(dataFolder)) {
    addExternalDisks();
}

// An external disk's mount point may itself be a link: the disk is where it
// leads.
void DiskFolders::addExternalDisks() {
    DIR* folder = extdisks_.empty() ? NULL : opendir(extdisks_.c_str());
    if (folder == NULL) {
        return;
    }
    for (struct dirent* entry; (entry = readdir(folder)) != NULL;) {
        const std::string name = entry->d_name;
        const std::string disk =
            name == "." || name == ".." ? "" : realPathOf(joined(extdisks_, name));
        if (!disk.empty()) {
            externalDisks_.push_back(disk);
        }
    }
    closedir(folder);
}

bool DiskFolders::reachWithoutPlantedLink(const std::string& folder, std::string& real) const {
    std::deque<std::string> left = partsOf(folder);
    real = "/";
    if (folder.empty() || folder[0] != '/') {
        char here[PATH_MAX];
        if (getcwd(here, sizeof(here)) == NULL) {
            return false;
        }
        real = here;
    }
    for (int links = 0; !left.empty();) {
        const std::string part = left.front();
        left.pop_front();
        if (part == "..") {
            real = parentOf(real);
            continue;
        }
        const std::string entry = joined(real, part);
        FileStatus status;
        if (FileStatus::sOfPath(entry, status, false) != 0) {
            // Nothing planted lies beyond what doesn't exist yet.
            for (real = entry; !left.empty(); left.pop_front()) {
                real = joined(real, left.front());
            }
            return true;
        }
        if (!status.isLink()) {
            real = entry;
            continue;
        }
        const std::string target = linkTarget(entry);
        if (isPlanted(entry, real) || ++links > kMaxLinksFollowed || target.empty()) {
            return false;
        }
        const std::deque<std::string> more = partsOf(target);
        left.insert(left.begin(), more.begin(), more.end());
        if (target[0] == '/') {
            real = "/";
        }
    }
    return true;
}

bool DiskFolders::holds(const std::string& realFolder) const {
    if (within(data_, realFolder) || within(userdisk_, realFolder) ||
        (within(extdisks_, realFolder) && realFolder != extdisks_)) {
        return true;
    }
    for (const std::string& disk : externalDisks_) {
        if (within(disk, realFolder)) {
            return true;
        }
    }
    return false;
}

bool DiskFolders::isPlanted(const std::string& entry, const std::string& realParent) const {
    return holds(realParent) && entry != userdiskEntry_ && entry != dataEntry_;
}

}  // namespace talvern
