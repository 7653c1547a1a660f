#ifndef QUORVIA_SYSTEM_DISKFOLDERS_H
#define QUORVIA_SYSTEM_DISKFOLDERS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace talvern {

// The folders whose content anyone may have written: the user disk, its data
// folder, and each external disk below the external disks' root, taken where
// they really lie (the device may link or mount them anywhere); and the walk
// that tells whether reaching a folder follows a link planted on one of them.
// The folders themselves are the device's: a data folder that is a link, or
// an external disk's mount point, is followed. Taken at construction, so
// build one per check. Any thread.
class DiskFolders {
public:
    DiskFolders(const std::string& userdiskRoot, const std::string& dataFolder,
                const std::string& extdiskRoot);
    virtual ~DiskFolders() {}

    // Follows folder entry by entry as the kernel would (from the current
    // folder when it is relative; "//", "." and ".." as the kernel reads
    // them). false when a link planted on a disk lies on the way, or a loop
    // of links. real is where folder lies: its part walked resolved, the rest
    // as given. descriptor: the folder held open (O_PATH) as the walk reached
    // it, for the caller to open, rename and remove in and then close; -1
    // when a part of folder doesn't exist, it can't be opened now (no
    // descriptor left, no current folder), or false is returned. The disks' users may rename
    // folders during the walk, but only within a disk, so real still tells
    // whether the folder lies on one.
    bool reachWithoutPlantedLink(const std::string& folder, std::string& real,
                                 int& descriptor) const;
    // Whether a folder, given as it really lies and held open as folder (-1:
    // not held), holds a disk's content: it lies below a disk, or on the
    // file system of a disk mounted on its own, whatever name reached it (a
    // bind mount, a second mount).
    bool holds(const std::string& realFolder, int folder) const;

private:
    void addExternalDisks();
    void addDiskDevice(const std::string& disk);
    bool isPlanted(const std::string& entry, const std::string& realParent, int parent) const;

    std::string userdisk_;
    std::string data_;
    std::string extdisks_;
    // Where the entries of the user disk and the data folder themselves lie.
    std::string userdiskEntry_;
    std::string dataEntry_;
    // Where each entry of the external disks' root leads.
    std::vector<std::string> externalDisks_;
    // The file systems of the disks that are mount points.
    std::vector<dev_t> diskDevices_;
};

}  // namespace talvern

#endif
