#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/DeviceMountInfo.h"

using talvern::DeviceMountInfo;
using talvern::MountInfo;

namespace {

std::string describe(const std::vector<MountInfo>& mounts) {
    std::string text;
    for (const MountInfo& mount : mounts) {
        text += mount.deviceName + "," + mount.mountPoint + ";";
    }
    return text;
}

const char* const kLongDevice = "/dev/sdb0123456789012345678901234";  // 33 bytes

bool fakeDevices(const char* device) {
    static const std::set<std::string> present = {"/dev/sda1", "/dev/sda2", "/dev/sdb1",
                                                  kLongDevice};
    return present.count(device) > 0;
}

std::vector<MountInfo> systemMounts(const std::string& text, const std::string& primary) {
    std::istringstream in(text);
    return DeviceMountInfo::sParseSystemMounts(in, primary, fakeDevices);
}

class DeviceMountInfoTest : public quorvia_test::DeviceRootTest {};

TEST(SystemMounts, PrimaryLinesWithFourFieldsAndExistingDeviceOrAnyWithoutPrimary) {
    const std::string mounts = "proc /proc proc rw 0 0\n/dev/sda1 /userdisk ext4 rw 0 0\n"
                               "/dev/sda2 /mnt/with\\040blank ext4 rw 0 0\n"
                               "/dev/sda3 /missing ext4 rw 0 0\n/dev/sda1 /three fields\n"
                               "/dev/sda1  /double-blank ext4 rw\n/dev/sdb1 /b ext4 rw 0 0\n"
                               "/dev/sda2 /no-newline ext4 rw";
    EXPECT_EQ("/dev/sda1,/userdisk;/dev/sda2,/mnt/with\\040blank;/dev/sda1,;/dev/sda2,/no-newline;",
              describe(systemMounts(mounts, "/dev/sda")));
    EXPECT_EQ("/dev/sdb1,/b;", describe(systemMounts(mounts, "/dev/sdb")));
    EXPECT_EQ(5u, systemMounts(mounts, "").size());
}

TEST_F(DeviceMountInfoTest, GetdiskEntriesAreParsedFromTheFirstLineAndFilteredByRoot) {
    const struct { const char* output; const char* expected; } cases[] = {
        {"\n\n", ""},       {"a", ""},          {"a,b,c", ""},     {"a,,b", "a,b;"},
        {"a,b\tc,d", ""},   {"a,b   c,d", "a,b;c,d;"},             {"a,b\nc,d", "a,b;"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, describe(DeviceMountInfo::sParseGetdiskOutput(c.output))) << c.output;
    }

    const std::string ext = path("/extdisks");
    const std::string user = path("/userdisk");
    setToolValue("getdisk", "mnt",
                 "/dev/sdb1," + ext + "/sdb1 /dev/sda1," + user + "/appdata/x /dev/sda2," + user);
    EXPECT_EQ("/dev/sdb1," + ext + "/sdb1;", describe(DeviceMountInfo::sGetHotplugDeviceMountInfo()));
    EXPECT_EQ("/dev/sdb1," + ext + "/sdb1;/dev/sda2," + user + ";",
              describe(DeviceMountInfo::sGetUserAndExtDiskMountInfo()));
}

TEST_F(DeviceMountInfoTest, ExistExtDiskTakesFirstPrefixMountAndCameraLooksAtItsMarker) {
    // Device stand-ins are files under the root.
    writeFile("/dev/sda10", "");
    writeFile("/dev/sdb1", "");
    const std::string sdb1 = path("/dev/sdb1");
    const std::string ext = path("/extdisks");
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(ext + "/sdb1/film.mp4"));
    setToolValue("getdisk", "mnt", path("/dev/gone") + "," + ext + "/sda1 " + path("/dev/sda10") +
                                       "," + ext + "/sda10 " + sdb1 + "," + ext + "/sdb1");
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(ext + "/sda10/film.mp4"));
    EXPECT_TRUE(DeviceMountInfo::sIsExistExtDisk(ext + "/sdb1/film.mp4"));
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(path("/userdisk/data/film.mp4")));

    EXPECT_FALSE(DeviceMountInfo::sIsExtDiskPlugIn(ext + "/sdz9", sdb1));
    writeFile("/tmp/sdz9.txt", "");
    EXPECT_TRUE(DeviceMountInfo::sIsExtDiskPlugIn(ext + "/sdz9", "/nonexistent/device"));
}

// Runs the search over text into a 32-byte field followed by guard bytes,
// which must stay untouched; answers the mount found, "" when the field is
// left alone.
std::string findRoot(const std::string& text) {
    char buffer[DeviceMountInfo::kUsbDeployFieldSize + 8];
    memset(buffer, 'Z', sizeof(buffer));
    FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    const int result = DeviceMountInfo::sFindUsbDeployRootPath(stream, buffer, fakeDevices);
    fclose(stream);
    EXPECT_EQ("ZZZZZZZZ", std::string(buffer + DeviceMountInfo::kUsbDeployFieldSize, 8)) << text;
    return result == 1 ? std::string(buffer) : buffer[0] == 'Z' ? "" : "field touched";
}

TEST_F(DeviceMountInfoTest, UsbDeployRootPathIsTheFirstFittingMountOfAPresentDevice) {
    const std::string mount31 = "/" + std::string(30, 'm');
    const struct { std::string mounts; std::string found; } cases[] = {
        {"/dev/sdc1 /mnt/gone ext4 rw\n/dev/sdb1 /mnt/b vfat rw\n", "/mnt/b"},
        {"proc /proc proc rw\n/dev/sda1\n/dev/sdb1 /mnt/b vfat rw\n", "/mnt/b"},
        {"/dev/sda1 " + mount31 + " ext4 rw\n", mount31},
        {"/dev/sda1 " + mount31 + "x ext4 rw\n/dev/sdb1 /mnt/b vfat rw\n", ""},
        {std::string(kLongDevice) + " /mnt/long ext4 rw\n/dev/sdb1 /mnt/b vfat\n", ""},
        {"/dev/sdc1 /" + std::string(188, 'x') + "/dev/sdb1 /mnt/evil\n", ""},
        {"/mnt/dev/sda1 /mnt/x ext4\n", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.found, findRoot(c.mounts)) << c.mounts;
    }
    EXPECT_EQ(-1, usbdeploy_begins_with(NULL, "a"));
    EXPECT_EQ(1, usbdeploy_begins_with("abc", ""));
    EXPECT_EQ(0, usbdeploy_begins_with("/DEV/sda", "/dev/sd"));

    // From the device's own table: none, or one whose device is absent.
    EXPECT_EQ(0, get_usb_deploy_root_path(NULL));
    char buffer[DeviceMountInfo::kUsbDeployFieldSize] = "unchanged";
    EXPECT_EQ(0, get_usb_deploy_root_path(buffer));
    writeFile("/proc/mounts", "/dev/sdzz9 /mnt/usb ext4 rw 0 0\n");
    EXPECT_EQ(0, get_usb_deploy_root_path(buffer));
    EXPECT_STREQ("unchanged", buffer);
}

}  // namespace
