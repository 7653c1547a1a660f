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
    for (size_t i = 0; i < mounts.size(); ++i) {
        text += mounts[i].deviceName + "," + mounts[i].mountPoint + ";";
    }
    return text;
}

class DeviceMountInfoTest : public quorvia_test::DeviceRootTest {
protected:
    // A device node stand-in: an existing file under the test's root.
    std::string device(const std::string& name) {
        writeFile("/dev/" + name, "");
        return path("/dev/" + name);
    }
    void setPrimary(const std::string& primary) {
        writeFile("/tmp/userdisk_info", "PRIMARY=" + primary + "\n");
    }
    void setGetdisk(const std::string& output) { setToolValue("getdisk", "mnt", output); }
};

TEST_F(DeviceMountInfoTest, SystemMountsKeepPrimaryLinesWithFourFieldsAndExistingDevice) {
    const std::string sda1 = device("sda1");
    const std::string sda2 = device("sda2");
    setPrimary(path("/dev/sda"));
    writeFile("/proc/mounts", "proc /proc proc rw 0 0\n" + sda1 + " /userdisk ext4 rw 0 0\n" +
                                  sda2 + " /mnt/with\\040blank ext4 rw 0 0\n" + path("/dev/sda3") +
                                  " /missing ext4 rw 0 0\n" + sda1 + " /three fields\n" + sda1 +
                                  "  /double-blank ext4 rw\n" + sda1 + " /userdisk ext4 rw 0 0\n" +
                                  sda2 + " /no-newline ext4 rw");

    EXPECT_EQ(sda1 + ",/userdisk;" + sda2 + ",/mnt/with\\040blank;" + sda1 + ",;" + sda1 +
                  ",/userdisk;" + sda2 + ",/no-newline;",
              describe(DeviceMountInfo::sGetSystemDeviceMountInfo()));
}

TEST_F(DeviceMountInfoTest, SystemMountsWithoutPrimaryTakeEveryExistingDeviceOrNone) {
    const std::string sdb1 = device("sdb1");
    EXPECT_TRUE(DeviceMountInfo::sGetSystemDeviceMountInfo().empty());
    writeFile("/proc/mounts", sdb1 + " /b ext4 rw 0 0\n/nonexistent/dev/x /x ext4 rw 0 0\n");
    EXPECT_EQ(sdb1 + ",/b;", describe(DeviceMountInfo::sGetSystemDeviceMountInfo()));

    std::string mounts;
    for (int i = 0; i < 10000; ++i) {
        mounts += (i % 100 == 0 ? sdb1 : "tmpfs") + " /m" + std::to_string(i) + " tmpfs rw 0 0\n";
    }
    writeFile("/proc/mounts", mounts);
    EXPECT_EQ(100u, DeviceMountInfo::sGetSystemDeviceMountInfo().size());
}

TEST_F(DeviceMountInfoTest, GetdiskEntriesAreFilteredByRoot) {
    const std::string ext = path("/extdisks");
    const std::string user = path("/userdisk");
    const std::string longDevice = "/dev/" + std::string(40, 'd');
    setGetdisk("/dev/sdb1," + ext + "/sdb1 /dev/sda1," + user + "/appdata/x  /dev/sda2," + user +
               " lonely /a,b,c " + longDevice + "," + ext + "/" + std::string(40, 'm') +
               "\n/dev/sdc1," + ext + "/sdc1");

    EXPECT_EQ("/dev/sdb1," + ext + "/sdb1;" + longDevice + "," + ext + "/" +
                  std::string(40, 'm') + ";",
              describe(DeviceMountInfo::sGetHotplugDeviceMountInfo()));
    EXPECT_EQ(1, log_.count("DeviceMountInfo.sGetHotplugDeviceMountInfo device name: /dev/sdb1 "
                            "mount point: " + ext + "/sdb1"));
    EXPECT_EQ("/dev/sdb1," + ext + "/sdb1;/dev/sda2," + user + ";" + longDevice + "," + ext +
                  "/" + std::string(40, 'm') + ";",
              describe(DeviceMountInfo::sGetUserAndExtDiskMountInfo()));
}

TEST_F(DeviceMountInfoTest, GetdiskParsingTable) {
    const struct { const char* output; const char* expected; } cases[] = {
        {"", ""},          {"\n\n", ""},         {"a", ""},           {"a,b,c", ""},
        {"a,b", "a,b;"},   {"a,,b", "a,b;"},     {"a,b\tc,d", ""},    {"a,b   c,d", "a,b;c,d;"},
        {"a,b\nc,d", "a,b;"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, describe(DeviceMountInfo::sParseGetdiskOutput(c.output))) << c.output;
    }
    EXPECT_TRUE(DeviceMountInfo::sGetHotplugDeviceMountInfo().empty());
    EXPECT_TRUE(DeviceMountInfo::sGetUserAndExtDiskMountInfo().empty());
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(path("/extdisks/sdb1/a.txt")));
}

TEST_F(DeviceMountInfoTest, ExistExtDiskTakesFirstPrefixMount) {
    const std::string sda10 = device("sda10");
    const std::string sdb1 = device("sdb1");
    const std::string ext = path("/extdisks");
    setGetdisk(path("/dev/gone") + "," + ext + "/sda1 " + sda10 + "," + ext + "/sda10 " + sdb1 +
               "," + ext + "/sdb1");

    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(ext + "/sda10/film.mp4"));
    EXPECT_TRUE(DeviceMountInfo::sIsExistExtDisk(ext + "/sdb1/film.mp4"));
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(path("/userdisk/data/film.mp4")));
}

TEST_F(DeviceMountInfoTest, PlugInLooksAtCameraMarkerOnlyForCameraMount) {
    const std::string camera = path("/extdisks/sdz9");
    const std::string sdb1 = device("sdb1");
    EXPECT_FALSE(DeviceMountInfo::sIsExtDiskPlugIn(camera, sdb1));
    writeFile("/tmp/sdz9.txt", "");
    EXPECT_TRUE(DeviceMountInfo::sIsExtDiskPlugIn(camera, "/nonexistent/device"));
    EXPECT_TRUE(DeviceMountInfo::sIsExtDiskPlugIn(path("/extdisks/sdb1"), sdb1));
    EXPECT_FALSE(DeviceMountInfo::sIsExtDiskPlugIn(path("/extdisks/sdb1"), path("/dev/gone")));
}

TEST(UsbDeployBeginsWith, Table) {
    const struct { const char* text; const char* prefix; int expected; } cases[] = {
        {NULL, "a", -1},   {"a", NULL, -1},  {"abc", "", 1}, {"abc", "abc", 1}, {"ab", "abc", 0},
        {"/dev/sda1 /mnt", "/dev/sd", 1},   {"/DEV/sda", "/dev/sd", 0},        {"", "a", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, usbdeploy_begins_with(c.text, c.prefix))
            << (c.text ? c.text : "NULL");
    }
}

const char* const kLongDevice = "/dev/sdb0123456789012345678901234";  // 33 bytes

bool fakeDevices(const char* device) {
    static const std::set<std::string> present = {"/dev/sda1", "/dev/sdb1", kLongDevice};
    return present.count(device) > 0;
}

// Runs the search over text; rootPath is 32 bytes followed by guard bytes.
int findRoot(const std::string& text, std::string& found, bool& guardIntact) {
    char buffer[DeviceMountInfo::kUsbDeployFieldSize + 8];
    memset(buffer, 'Z', sizeof(buffer));
    FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    const int result = DeviceMountInfo::sFindUsbDeployRootPath(stream, buffer, fakeDevices);
    fclose(stream);
    guardIntact = std::string(buffer + DeviceMountInfo::kUsbDeployFieldSize, 8) == "ZZZZZZZZ";
    found = result == 1 ? std::string(buffer) : std::string(buffer, 1);
    return result;
}

TEST(UsbDeployRootPath, SearchTable) {
    const std::string mount31 = "/" + std::string(30, 'm');
    // found is "Z" when the buffer is untouched.
    const struct { std::string mounts; int result; std::string found; } cases[] = {
        {"/dev/sda1 /mnt/usb ext4 rw 0 0\n", 1, "/mnt/usb"},
        {"/dev/sdc1 /mnt/gone ext4 rw\n/dev/sdb1 /mnt/b vfat rw\n", 1, "/mnt/b"},
        {"proc /proc proc rw\n/dev/sda1\n/dev/sdb1 /mnt/b vfat rw\n", 1, "/mnt/b"},
        {"/dev/sda1\t/mnt/tab\text4 rw", 1, "/mnt/tab"},
        {"/dev/sda1 " + mount31 + " ext4 rw\n", 1, mount31},
        {"/dev/sda1 " + mount31 + "x ext4 rw\n/dev/sdb1 /mnt/b vfat rw\n", 0, "Z"},
        {std::string(kLongDevice) + " /mnt/long ext4 rw\n/dev/sdb1 /mnt/b vfat\n", 0, "Z"},
        {"/dev/sdc1 /" + std::string(188, 'x') + "/dev/sdb1 /mnt/evil\n", 0, "Z"},
        {"/mnt/dev/sda1 /mnt/x ext4\n", 0, "Z"}, {"", 0, "Z"},
    };
    for (const auto& c : cases) {
        std::string found;
        bool guardIntact = false;
        EXPECT_EQ(c.result, findRoot(c.mounts, found, guardIntact)) << c.mounts;
        EXPECT_EQ(c.found, found) << c.mounts;
        EXPECT_TRUE(guardIntact) << c.mounts;
    }
}

TEST_F(DeviceMountInfoTest, UsbDeployRootPathReportsMissingInputsAndSkipsAbsentDevices) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, get_usb_deploy_root_path(NULL));
    char buffer[DeviceMountInfo::kUsbDeployFieldSize] = "unchanged";
    EXPECT_EQ(0, get_usb_deploy_root_path(buffer));
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              printed.find("get_usb_deploy_root_path error : root_path is NULL"));
    EXPECT_NE(std::string::npos, printed.find("open /proc/mounts fail"));

    writeFile("/proc/mounts", "/dev/sdzz9 /mnt/usb ext4 rw 0 0\n");
    EXPECT_EQ(0, get_usb_deploy_root_path(buffer));
    EXPECT_STREQ("unchanged", buffer);
}

}  // namespace
