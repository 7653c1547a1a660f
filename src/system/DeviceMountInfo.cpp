#include "system/DeviceMountInfo.h"

#include <stdlib.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/DeviceRoot.h"
#include "system/Log.h"

namespace talvern {

namespace {

const char* const kMountsFile = "/proc/mounts";
const char* const kMountInfoFile = "/proc/self/mountinfo";
// More than any router's table of mounts.
const std::size_t kMaxMountInfoBytes = 1024 * 1024;
const char* const kGetdiskCommand = "getdisk mnt";
const char* const kUsbDevicePrefix = "/dev/sd";
const size_t kSystemMountMinFields = 4;
const size_t kGetdiskEntryParts = 2;

bool deviceExistsOnDisk(const char* device) { return File::sExists(device); }

bool deviceAccessible(const char* device) { return access(device, F_OK) == 0; }

bool beginsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The blank-or-tab-delimited field of text that starts at or after from;
// from moves behind it. Empty when the text has no more fields.
std::string nextField(const char* text, size_t& from) {
    while (text[from] != '\0' && isspace(static_cast<unsigned char>(text[from]))) {
        ++from;
    }
    const size_t start = from;
    while (text[from] != '\0' && !isspace(static_cast<unsigned char>(text[from]))) {
        ++from;
    }
    return std::string(text + start, from - start);
}

typedef bool (*MountFilter)(const std::string& mountPoint);

bool isHotplugMount(const std::string& mountPoint) {
    return beginsWith(mountPoint, ConfigInfo::sGetInstance()->getExtdiskRootPath());
}

bool isUserOrExtDiskMount(const std::string& mountPoint) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const bool onDisk = beginsWith(mountPoint, config->getUserdiskRootPath()) ||
                        beginsWith(mountPoint, config->getExtdiskRootPath());
    return onDisk && !beginsWith(mountPoint, config->getUserdiskAppDataPath());
}

std::vector<MountInfo> getdiskMounts(const char* operation, MountFilter filter) {
    std::vector<MountInfo> result;
    std::string output;
    if (!CommonUtils::sCallSystem(kGetdiskCommand, output)) {
        return result;
    }
    const std::vector<MountInfo> entries = DeviceMountInfo::sParseGetdiskOutput(output);
    for (size_t i = 0; i < entries.size(); ++i) {
        if (filter(entries[i].mountPoint)) {
            QLOG(INFO) << operation << " device name: " << entries[i].deviceName
                       << " mount point: " << entries[i].mountPoint << "\n";
            result.push_back(entries[i]);
        }
    }
    return result;
}

}  // namespace

std::vector<MountInfo> DeviceMountInfo::sGetSystemDeviceMountInfo() {
    std::ifstream mounts(DeviceRoot::sPath(kMountsFile).c_str(), std::ios::binary);
    if (!mounts) {
        return std::vector<MountInfo>();
    }
    return sParseSystemMounts(mounts, ConfigInfo::sGetInstance()->getPrimaryDiskDevice(),
                              deviceExistsOnDisk);
}

std::vector<MountInfo> DeviceMountInfo::sGetHotplugDeviceMountInfo() {
    return getdiskMounts("DeviceMountInfo.sGetHotplugDeviceMountInfo", isHotplugMount);
}

std::vector<MountInfo> DeviceMountInfo::sGetUserAndExtDiskMountInfo() {
    return getdiskMounts("DeviceMountInfo.sGetUserAndExtDiskMountInfo", isUserOrExtDiskMount);
}

bool DeviceMountInfo::sIsExistExtDisk(const std::string& path) {
    const std::vector<MountInfo> mounts = sGetHotplugDeviceMountInfo();
    for (size_t i = 0; i < mounts.size(); ++i) {
        if (beginsWith(path, mounts[i].mountPoint)) {
            return sIsExtDiskPlugIn(mounts[i].mountPoint, mounts[i].deviceName);
        }
    }
    return false;
}

bool DeviceMountInfo::sIsExtDiskPlugIn(const std::string& mountPoint,
                                       const std::string& deviceName) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    if (mountPoint == config->getPTPCameraMountPoint()) {
        return File::sExists(config->getPTPCameraExistPath());
    }
    return File::sExists(deviceName);
}

std::vector<MountInfo> DeviceMountInfo::sParseSystemMounts(std::istream& mounts,
                                                           const std::string& primaryDevice,
                                                           DeviceExists exists) {
    std::vector<MountInfo> result;
    std::string line;
    while (std::getline(mounts, line)) {
        if (!beginsWith(line, primaryDevice)) {
            continue;
        }
        const std::vector<std::string> fields = CommonUtils::splitString(line, " ");
        if (fields.size() >= kSystemMountMinFields && beginsWith(fields[0], primaryDevice) &&
            exists(fields[0].c_str())) {
            MountInfo mount = {fields[0], fields[1]};
            result.push_back(mount);
        }
    }
    return result;
}

std::vector<MountInfo> DeviceMountInfo::sParseGetdiskOutput(const std::string& output) {
    std::vector<MountInfo> result;
    const std::vector<std::string> lines = CommonUtils::splitStringTokenCompress(output, "\n");
    if (lines.empty()) {
        return result;
    }
    const std::vector<std::string> entries = CommonUtils::splitStringTokenCompress(lines[0], " ");
    for (size_t i = 0; i < entries.size(); ++i) {
        const std::vector<std::string> parts =
            CommonUtils::splitStringTokenCompress(entries[i], ",");
        if (parts.size() == kGetdiskEntryParts) {
            MountInfo mount = {parts[0], parts[1]};
            result.push_back(mount);
        }
    }
    return result;
}

// Lines are read whole (getline), so an over-long line can neither be cut
// into a wrong mount point nor split into a piece that poses as a line of its
// own beginning "/dev/sd".
int DeviceMountInfo::sFindUsbDeployRootPath(FILE* mounts, char* rootPath, DeviceExists exists) {
    char* line = NULL;
    size_t capacity = 0;
    int found = 0;
    while (getline(&line, &capacity, mounts) != -1) {
        if (usbdeploy_begins_with(line, kUsbDevicePrefix) != 1) {
            continue;
        }
        size_t at = 0;
        const std::string device = nextField(line, at);
        const std::string mountPoint = nextField(line, at);
        if (mountPoint.empty() || !exists(device.c_str())) {
            continue;
        }
        if (device.size() < kUsbDeployFieldSize && mountPoint.size() < kUsbDeployFieldSize) {
            memcpy(rootPath, mountPoint.c_str(), mountPoint.size() + 1);
            found = 1;
        }
        break;
    }
    free(line);
    return found;
}

bool DeviceMountInfo::sIsFileSystemReadOnly(const std::string& path) {
    FileStatus status;
    std::string table;
    if (FileStatus::sOfPath(path, status) != 0 ||
        !File::sReadRegularFile(DeviceRoot::sPath(kMountInfoFile), kMaxMountInfoBytes, table)) {
        return false;
    }
    const std::string device =
        std::to_string(major(status.device)) + ":" + std::to_string(minor(status.device));
    std::istringstream lines(table);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string id, parent, numbers;
        if (fields >> id >> parent >> numbers && numbers == device) {
            const std::string options = "," + line.substr(line.rfind(' ') + 1) + ",";
            return options.find(",ro,") != std::string::npos;
        }
    }
    return false;
}

}  // namespace talvern

extern "C" int usbdeploy_begins_with(const char* text, const char* prefix) {
    if (text == NULL || prefix == NULL) {
        return -1;
    }
    const size_t length = strlen(prefix);
    return strncmp(text, prefix, length) == 0 ? 1 : 0;
}

extern "C" int get_usb_deploy_root_path(char* rootPath) {
    if (rootPath == NULL) {
        printf("get_usb_deploy_root_path error : root_path is NULL\n");
        return 0;
    }
    FILE* mounts = fopen(talvern::DeviceRoot::sPath(talvern::kMountsFile).c_str(), "rb");
    if (mounts == NULL) {
        printf("open /proc/mounts fail\n");
        return 0;
    }
    const int found = talvern::DeviceMountInfo::sFindUsbDeployRootPath(mounts, rootPath,
                                                                       talvern::deviceAccessible);
    fclose(mounts);
    return found;
}
