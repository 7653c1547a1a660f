#ifndef QUORVIA_SYSTEM_SETTINGSFILE_H
#define QUORVIA_SYSTEM_SETTINGSFILE_H

#include <libconfig.h++>
#include <string>

#include "system/HeldFolder.h"

namespace talvern {

class DiskFolders;

// A settings file in a folder where the disks' users may plant links, taken
// through that folder: the folder is walked once, at construction, without
// following a link planted on a disk (DiskFolders), and held open. Reading,
// replacing and setting aside the file all go through it, so a folder swapped
// for a link after the walk leads none of them elsewhere. One thread at a
// time.
class SettingsFile {
public:
    SettingsFile(const DiskFolders& disks, const std::string& path);
    virtual ~SettingsFile() {}

    const std::string& path() const { return folder_.path(); }
    // false when a link planted on a disk lies on the way to the folder:
    // then nothing is read or written there.
    bool isReached() const { return folder_.isReached(); }
    // Whether something is at the file's name in the folder reached; a link
    // is followed where the folder is off the disks. Where the folder could
    // not be held, whether the path names something.
    bool exists() const;
    // Whether the file is a link in a folder on a disk: what it leads to
    // would be copied onto the disk. Off the disks, the device's own files
    // may be links.
    bool isPlantedLink() const;
    // Parses the file into config, as ConfigUtils::sReadFile reads a path
    // (the exceptions included); a link at its name is followed where
    // exists() follows it.
    void read(libconfig::Config& config) const;
    // Makes config the file's content as a whole, synced, its owner and mode
    // kept (ReplacementFile). Throws std::runtime_error when it can't.
    void replace(const libconfig::Config& config) const;
    // Renames the file (a link as a link) to its name followed by suffix.
    bool setAside(const std::string& suffix) const;

private:
    SettingsFile(const SettingsFile&);
    SettingsFile& operator=(const SettingsFile&);

    HeldFolder folder_;
};

}  // namespace talvern

#endif
