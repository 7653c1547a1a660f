#include "system/SettingsFile.h"

#include <stdio.h>

#include <stdexcept>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/ConfigUtils.h"
#include "system/DiskFolders.h"

namespace talvern {

SettingsFile::SettingsFile(const DiskFolders& disks, const std::string& path)
    : folder_(disks, path) {}

// Without the folder held (a part of it missing, or no descriptor left), the
// path is asked by name: only to tell a missing file from one that can't be
// read now, never to read it.
bool SettingsFile::exists() const {
    FileStatus status;
    return folder_.descriptor() >= 0 ? FileStatus::sOfEntry(folder_.descriptor(), folder_.name(),
                                                            status, !folder_.isOnDisk()) == 0
                                     : File::sExists(folder_.path());
}

bool SettingsFile::isPlantedLink() const {
    FileStatus status;
    return folder_.isOnDisk() && folder_.descriptor() >= 0 &&
           FileStatus::sOfEntry(folder_.descriptor(), folder_.name(), status, false) == 0 &&
           status.isLink();
}

void SettingsFile::read(libconfig::Config& config) const {
    if (folder_.descriptor() < 0) {
        throw libconfig::FileIOException();
    }
    ConfigUtils::sReadFileIn(config, folder_.descriptor(), folder_.name(), !folder_.isOnDisk());
}

void SettingsFile::replace(const libconfig::Config& config) const {
    // A folder that doesn't exist has no descriptor, and openat refuses -1.
    ReplacementFile replacement(folder_.descriptor(), folder_.name());
    if (replacement.stream() == NULL) {
        throw std::runtime_error("can't create a file beside " + path());
    }
    config.write(replacement.stream());
    if (!replacement.commitKeepingOwner(true)) {
        throw std::runtime_error("can't replace " + path());
    }
}

bool SettingsFile::setAside(const std::string& suffix) const {
    const std::string aside = folder_.name() + suffix;
    const int folder = folder_.descriptor();
    return folder >= 0 && renameat(folder, folder_.name().c_str(), folder, aside.c_str()) == 0;
}

}  // namespace talvern
