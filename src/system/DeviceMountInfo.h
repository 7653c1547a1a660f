#ifndef QUORVIA_SYSTEM_DEVICEMOUNTINFO_H
#define QUORVIA_SYSTEM_DEVICEMOUNTINFO_H

#include <cstdio>
#include <istream>
#include <string>
#include <vector>

namespace talvern {

// One mount: the device as its source names it, and where it is mounted.
struct MountInfo {
    std::string deviceName;
    std::string mountPoint;
};

// Which block devices are mounted where: the primary disk from "/proc/mounts",
// hot-plugged and user disks from "getdisk mnt". Every operation reads its
// source anew (a file or a process), so none belongs on a fast path. No state
// beyond the ConfigInfo singleton: any thread may call them.
class DeviceMountInfo {
public:
    // Whether a device path names something present; the file system's view
    // by default, a table in tests.
    typedef bool (*DeviceExists)(const char* device);
    // Size of each field buffer of the USB deployment search, terminator
    // included: a device or mount point of more bytes is refused, never cut.
    static const size_t kUsbDeployFieldSize = 32;

    virtual ~DeviceMountInfo() {}

    // Mounts of the primary disk (ConfigInfo::getPrimaryDiskDevice), in file
    // order with duplicates, mount points with the kernel's octal escapes as
    // they stand. Empty when "/proc/mounts" can't be read.
    static std::vector<MountInfo> sGetSystemDeviceMountInfo();
    // Mounts under the external disk root, from "getdisk mnt"; empty when the
    // command can't be started.
    static std::vector<MountInfo> sGetHotplugDeviceMountInfo();
    // Mounts under the user disk or the external disk root, less those under
    // the user disk's app data folder.
    static std::vector<MountInfo> sGetUserAndExtDiskMountInfo();
    // Whether path lies on a plugged-in external disk: the first hot-plug
    // mount whose mount point is a byte prefix of path decides (no heed to
    // component borders, so /extdisks/sda1 covers /extdisks/sda10/x).
    static bool sIsExistExtDisk(const std::string& path);
    // Whether that disk is there: the PTP camera's marker file for the camera's
    // mount point, else the device path itself.
    static bool sIsExtDiskPlugIn(const std::string& mountPoint, const std::string& deviceName);
    // Whether the file system holding path is read-only itself, not only the
    // mount it is reached by: a read-only bind of a writable disk (a sandbox's
    // view of it) is written through its other mounts all the same. The super
    // block's options, the last field of the disk's line in
    // "/proc/self/mountinfo", tell. false when that can't be read.
    static bool sIsFileSystemReadOnly(const std::string& path);

    // ---- Parsing steps, apart from their sources ----

    // The lines of a "/proc/mounts" text that name primaryDevice: at least
    // four blank-separated fields (empty ones count), the first beginning with
    // primaryDevice (case-sensitive) and existing as a path.
    static std::vector<MountInfo> sParseSystemMounts(std::istream& mounts,
                                                     const std::string& primaryDevice,
                                                     DeviceExists exists);
    // The device,mountpoint entries of the first line of a "getdisk mnt"
    // answer; entries that aren't exactly two parts are skipped.
    static std::vector<MountInfo> sParseGetdiskOutput(const std::string& output);
    // The USB deployment search over an open "/proc/mounts" stream: the first
    // line beginning "/dev/sd" whose device exists and that has a mount point
    // decides. Its mount point goes to rootPath (kUsbDeployFieldSize bytes at
    // least) and the result is 1; the result is 0 when no line decides or when
    // the deciding line's device or mount point doesn't fit its field, and
    // rootPath is then left as it was.
    static int sFindUsbDeployRootPath(FILE* mounts, char* rootPath, DeviceExists exists);
};

}  // namespace talvern

extern "C" {
// 1 when text begins with prefix (case-sensitive, an empty prefix always
// does), 0 when not, -1 when either is null.
int usbdeploy_begins_with(const char* text, const char* prefix);
// The mount point of a USB deployment disk ("/dev/sd*" in "/proc/mounts")
// into rootPath, which must hold DeviceMountInfo::kUsbDeployFieldSize bytes.
// 1 when found, else 0 (a message on standard output for a null rootPath or
// an unreadable "/proc/mounts").
int get_usb_deploy_root_path(char* rootPath);
}

#endif
