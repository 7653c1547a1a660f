#ifndef QUORVIA_SYSTEM_HELDFOLDER_H
#define QUORVIA_SYSTEM_HELDFOLDER_H

#include <string>

namespace talvern {

class DiskFolders;

// The folder of a file, walked once, at construction, without following a
// link planted on a disk (DiskFolders), and held open until destruction.
// Whatever is acted on by name in it afterwards (openat, renameat, unlinkat
// with descriptor()) lands in the folder walked, even when a disk user swaps
// a folder on the way for a link meanwhile. One thread at a time.
class HeldFolder {
public:
    // path names the file; its folder is walked ("." for a bare name).
    HeldFolder(const DiskFolders& disks, const std::string& path);
    // The same on the device's disks as ConfigInfo names them now.
    explicit HeldFolder(const std::string& path);
    virtual ~HeldFolder();

    const std::string& path() const { return path_; }
    // The file's name in the folder.
    const std::string& name() const { return name_; }
    // false when a link planted on a disk lies on the way to the folder:
    // then nothing is to be read or written there.
    bool isReached() const { return reached_; }
    // The folder, open (O_PATH); -1 when it is not reached, a part of it
    // doesn't exist, or it can't be opened now (no descriptor left). openat
    // and its kin refuse -1, so a write through it fails with EBADF.
    int descriptor() const { return folder_; }
    // Whether the folder holds a disk's content, where a link at the file's
    // own name was planted by a disk user rather than set by the device.
    bool isOnDisk() const { return onDisk_; }

private:
    HeldFolder(const HeldFolder&);
    HeldFolder& operator=(const HeldFolder&);

    std::string path_;
    std::string name_;
    int folder_;
    bool reached_;
    bool onDisk_;
};

}  // namespace talvern

#endif
