#include "system/HeldFolder.h"

#include <unistd.h>

#include "system/ConfigInfo.h"
#include "system/DiskFolders.h"

namespace talvern {

namespace {

// The folder of path, as a walk takes it ("/" for "/x", "." for "x").
std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

HeldFolder::HeldFolder(const DiskFolders& disks, const std::string& path)
    : path_(path), name_(nameOf(path)), folder_(-1), reached_(false), onDisk_(false) {
    std::string realFolder;
    reached_ = disks.reachWithoutPlantedLink(folderOf(path), realFolder, folder_);
    onDisk_ = disks.holds(realFolder, folder_);
}

HeldFolder::HeldFolder(const std::string& path)
    : HeldFolder(ConfigInfo::sGetInstance()->diskFolders(), path) {}

HeldFolder::~HeldFolder() {
    if (folder_ >= 0) {
        close(folder_);
    }
}

}  // namespace talvern
