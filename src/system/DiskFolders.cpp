#include "system/DiskFolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
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

void closeIfOpen(int fd) {
    if (fd >= 0) {
        close(fd);
    }
}

// Where a walk stands: a folder held open, so that nothing renamed or linked
// on the way meanwhile moves it, and where that folder lies. The root is not
// held but named: nothing there is a disk user's, and an emulator of another
// processor may serve its guest's library folder for "/" (qemu-user does,
// for the tests of the routers' builds).
class Place {
public:
    Place() : fd(-1) {}
    ~Place() { closeIfOpen(fd); }

    void toRoot() { moveTo(AT_FDCWD, "/"); }
    // At the root for an absolute path, at the current folder otherwise.
    // false: the current folder can't be held now.
    bool start(const std::string& path) {
        if (!path.empty() && path[0] == '/') {
            toRoot();
            return true;
        }
        char here[PATH_MAX];
        if (getcwd(here, sizeof(here)) == NULL) {
            return false;
        }
        moveTo(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC), here);
        return fd >= 0;
    }
    // The name of entry in this folder, for the *at calls on fd.
    std::string nameOf(const std::string& entry) const {
        return fd == AT_FDCWD ? "/" + entry : entry;
    }
    void moveTo(int next, const std::string& where) {
        closeIfOpen(fd);
        fd = next;
        real = where;
    }
    int release() {
        const int held = fd == AT_FDCWD ? open("/", O_PATH | O_DIRECTORY | O_CLOEXEC) : fd;
        fd = -1;
        return held;
    }

    int fd;
    std::string real;

private:
    Place(const Place&);
    Place& operator=(const Place&);
};

// The target of the link open (O_PATH) as link.
std::string linkTarget(int link) {
    char target[PATH_MAX];
    const ssize_t size = readlinkat(link, "", target, sizeof(target));
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
    addDiskDevice(userdisk_);
    addDiskDevice(data_);
    for (const std::string& disk : externalDisks_) {
        addDiskDevice(disk);
    }
}

// Only a disk mounted on its own: an unmounted disk's folder lies on the
// device's own file system, where the device's files do.
void DiskFolders::addDiskDevice(const std::string& disk) {
    FileStatus status;
    FileStatus parent;
    if (!disk.empty() && FileStatus::sOfPath(disk, status) == 0 &&
        FileStatus::sOfPath(parentOf(disk), parent) == 0 && status.device != parent.device) {
        diskDevices_.push_back(status.device);
    }
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

bool DiskFolders::reachWithoutPlantedLink(const std::string& folder, std::string& real,
                                          int& descriptor) const {
    descriptor = -1;
    real = folder;
    Place place;
    // A folder that can't be opened now (no descriptor left, no current
    // folder) is not held: nothing planted was met on the way.
    if (!place.start(folder)) {
        return true;
    }
    std::deque<std::string> left = partsOf(folder);
    for (int links = 0; !left.empty();) {
        const std::string part = left.front();
        left.pop_front();
        // ".." is taken by name from the root: the folder held may have been
        // moved up meanwhile, and its parent would lift the walk above the
        // folder the path names.
        if (part == "..") {
            const std::deque<std::string> up = partsOf(parentOf(place.real));
            left.insert(left.begin(), up.begin(), up.end());
            place.toRoot();
            continue;
        }
        const std::string entry = joined(place.real, part);
        const int next =
            openat(place.fd, place.nameOf(part).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        FileStatus status;
        if (next < 0 || FileStatus::sOfDescriptor(next, status) != 0) {
            closeIfOpen(next);
            // Nothing planted lies beyond what doesn't exist yet.
            for (real = entry; !left.empty(); left.pop_front()) {
                real = joined(real, left.front());
            }
            return true;
        }
        if (!status.isLink()) {
            place.moveTo(next, entry);
            continue;
        }
        const std::string target = linkTarget(next);
        close(next);
        if (isPlanted(entry, place.real, place.fd) || ++links > kMaxLinksFollowed ||
            target.empty()) {
            return false;
        }
        const std::deque<std::string> more = partsOf(target);
        left.insert(left.begin(), more.begin(), more.end());
        if (target[0] == '/') {
            place.toRoot();
        }
    }
    real = place.real;
    descriptor = place.release();
    return true;
}

bool DiskFolders::holds(const std::string& realFolder, int folder) const {
    FileStatus status;
    if (folder >= 0 && FileStatus::sOfDescriptor(folder, status) == 0 &&
        std::find(diskDevices_.begin(), diskDevices_.end(), status.device) != diskDevices_.end()) {
        return true;
    }
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

bool DiskFolders::isPlanted(const std::string& entry, const std::string& realParent,
                            int parent) const {
    return holds(realParent, parent) && entry != userdiskEntry_ && entry != dataEntry_;
}

}  // namespace talvern
