#include "system/SettingsFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <stdexcept>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/ConfigUtils.h"
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

SettingsFile::SettingsFile(const DiskFolders& disks, const std::string& path)
    : path_(path), name_(nameOf(path)), folder_(-1), reached_(false), onDisk_(false) {
    std::string realFolder;
    reached_ = disks.reachWithoutPlantedLink(folderOf(path), realFolder, folder_);
    onDisk_ = disks.holds(realFolder, folder_);
}

SettingsFile::~SettingsFile() {
    if (folder_ >= 0) {
        close(folder_);
    }
}

// Without the folder held (a part of it missing, or no descriptor left), the
// path is asked by name: only to tell a missing file from one that can't be
// read now, never to read it.
bool SettingsFile::exists() const {
    FileStatus status;
    return folder_ >= 0 ? FileStatus::sOfEntry(folder_, name_, status, !onDisk_) == 0
                        : File::sExists(path_);
}

bool SettingsFile::isPlantedLink() const {
    FileStatus status;
    return onDisk_ && folder_ >= 0 && FileStatus::sOfEntry(folder_, name_, status, false) == 0 &&
           status.isLink();
}

void SettingsFile::read(libconfig::Config& config) const {
    if (folder_ < 0) {
        throw libconfig::FileIOException();
    }
    ConfigUtils::sReadFileIn(config, folder_, name_, !onDisk_);
}

void SettingsFile::replace(const libconfig::Config& config) const {
    // A folder that doesn't exist has no descriptor, and openat refuses -1.
    ReplacementFile replacement(folder_, name_);
    if (replacement.stream() == NULL) {
        throw std::runtime_error("can't create a file beside " + path_);
    }
    config.write(replacement.stream());
    if (!replacement.commitKeepingOwner(true)) {
        throw std::runtime_error("can't replace " + path_);
    }
}

bool SettingsFile::setAside(const std::string& suffix) const {
    const std::string aside = name_ + suffix;
    return folder_ >= 0 && renameat(folder_, name_.c_str(), folder_, aside.c_str()) == 0;
}

}  // namespace talvern
