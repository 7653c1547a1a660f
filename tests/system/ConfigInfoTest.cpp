#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace {

using talvern::ConfigInfo;
namespace fs = boost::filesystem;

// Each test case runs in a process of its own, so the first sGetInstance()
// inside a test builds the singleton on that test's root: set up device files
// before it.
class ConfigInfoTest : public quorvia_test::DeviceRootTest {
protected:
    ConfigInfo* info() { return ConfigInfo::sGetInstance(); }
    bool isDir(const std::string& fixedPath) const { return fs::is_directory(path(fixedPath)); }
};

TEST_F(ConfigInfoTest, ChineseDeviceGetsChineseNamesAndFixedPathsUnderTheRoot) {
    ConfigInfo* config = info();
    EXPECT_EQ("路由器硬盘备份", config->getBackupRouterDiskDirName());
    EXPECT_EQ(path("/userdisk/data/私密空间"), config->getNewPrivacyDataFolderPath());
    const char* expected[] = {"视频", "照片", "音乐", "文档", "共享", "下载"};
    EXPECT_EQ(std::vector<std::string>(expected, expected + 6), config->getMainDirectoriesName());
    EXPECT_TRUE(log_.contains("ConfigInfo::localization, backupImageDirName_ : 照片, "
                              "backupVideoDirName_ : 视频, backupAudioDirName_ : 音乐"));
}

TEST_F(ConfigInfoTest, MissingLocalisationLeavesNamesEmptyExceptTheCameraFolder) {
    fs::remove_all(path("/etc/talvernconfig/localization"));
    ConfigInfo* config = info();
    EXPECT_EQ("", config->getBackupImageDirName());
    EXPECT_EQ(path("/userdisk/data/"), config->getNewPrivacyDataFolderPath());
    EXPECT_EQ(path("/userdisk/data/摄像机监控视频"), config->getPemrickCameraPath());
}

TEST_F(ConfigInfoTest, GettersThatMakeFoldersAndThoseThatDont) {
    ConfigInfo* config = info();
    EXPECT_EQ(path("/userdisk/data"), config->getUserdiskDataPath());
    EXPECT_FALSE(isDir("/userdisk/data"));
    EXPECT_EQ(path("/userdisk/data"), config->getDataFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data"));
    EXPECT_EQ(path("/userdisk/dromly"), config->getDromlyFolderPath());
    EXPECT_EQ(1, log_.count("ConfigInfo::getDromlyFolderPath: not exist dromly path and create " +
                            path("/userdisk/dromly")));

    fs::remove_all(path("/userdisk/talvernConfig"));
    EXPECT_EQ(path("/userdisk/talvernConfig/umntpath.cfg"), config->getExtdiskUmntPath());
    EXPECT_TRUE(isDir("/userdisk/talvernConfig"));
    EXPECT_FALSE(fs::exists(path("/userdisk/talvernConfig/umntpath.cfg")));

    const std::string download = config->getDownloadFolderPath();
    EXPECT_EQ(path("/userdisk/data/下载/"), download);
    fs::remove_all(path("/userdisk/data/下载"));
    EXPECT_EQ(download, config->getDownloadFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data/下载"));
}

TEST_F(ConfigInfoTest, BackupFoldersFollowTheDrivePathAndAreMadeOnRequest) {
    ConfigInfo* config = info();
    config->setBackupDrivePath("/extdisks/sda1");
    EXPECT_EQ("/extdisks/sda1/photos/视频", config->getBackupVideoPath("photos"));
    EXPECT_EQ("/extdisks/sda1/", config->getBackupRootPath(""));
    EXPECT_EQ("/extdisks/sda1/p", config->getBackupImagePath("p", 1));

    config->setBackupDrivePath(path("/extdisks/sda1"));
    bool exists = true;
    const std::string images = config->getBackupImagePath(exists, false, "p", 0);
    EXPECT_FALSE(exists);
    EXPECT_FALSE(fs::exists(path("/extdisks")));
    config->getBackupImagePath(exists, true, "p", 0);
    EXPECT_FALSE(exists);
    EXPECT_TRUE(fs::is_directory(images));

    typedef std::string (ConfigInfo::*TypedForm)(bool&, bool, const std::string&);
    const std::initializer_list<TypedForm> forms = {
        &ConfigInfo::getBackupVideoPath, &ConfigInfo::getBackupAudioPath,
        &ConfigInfo::getBackupDocumentPath, &ConfigInfo::getBackupOtherPath,
        &ConfigInfo::getBackupCustomPath};
    for (TypedForm form : forms) {
        const std::string folder = (config->*form)(exists, false, "q");
        EXPECT_FALSE(fs::exists(folder)) << folder;
        (config->*form)(exists, true, "q");
        EXPECT_TRUE(fs::is_directory(folder)) << folder;
    }
    EXPECT_TRUE(fs::is_directory(config->getBackupRootPath(exists, "r")));
}

TEST_F(ConfigInfoTest, StartLoadsTheGlobalFileAndDeletesTheTwoLeftoverTreesOnly) {
    writeFile("/userdisk/talvernConfig/config.cfg", "needCopyInstruction = \"yes\";\n");
    writeFile("/userdisk/talvernConfig/DataBase/old.db", "x");
    writeFile("/userdisk/.thumbnails/a/b.jpg", "x");
    writeFile("/userdisk/data/.systemconfig/DataBase/quorvia.db", "keep");
    info();
    EXPECT_FALSE(fs::exists(path("/userdisk/talvernConfig/DataBase")));
    EXPECT_FALSE(fs::exists(path("/userdisk/.thumbnails")));
    EXPECT_EQ("keep", readFile("/userdisk/data/.systemconfig/DataBase/quorvia.db"));
    fs::remove(path("/userdisk/talvernConfig/config.cfg"));
    EXPECT_EQ("yes", info()->getConfig(ConfigInfo::sNeedCopyInstructionKey));
}

TEST_F(ConfigInfoTest, ConfigurationRootThatCantBeMadeStopsTheStartHousekeeping) {
    writeFile("/userdisk", "a file where the disk should be");
    ConfigInfo* config = info();
    EXPECT_TRUE(log_.contains("create " + path("/userdisk/talvernConfig") + " failed: ",
                              google::GLOG_ERROR));
    EXPECT_EQ("照片", config->getBackupImageDirName());
    EXPECT_EQ("", config->getConfig("anything"));
}

// The file is read once, when the singleton is built: one process per case.
struct PrimaryCase {
    const char* name;
    const char* content;
    const char* device;
};

void PrintTo(const PrimaryCase& c, std::ostream* out) { *out << c.name; }

class PrimaryDiskTest : public ConfigInfoTest,
                        public ::testing::WithParamInterface<PrimaryCase> {};

TEST_P(PrimaryDiskTest, FirstPrimaryLineWins) {
    if (GetParam().content != NULL) {
        writeFile("/tmp/userdisk_info", GetParam().content);
    }
    const std::string device = GetParam().device;
    EXPECT_EQ(device, info()->getPrimaryDiskDevice());
    EXPECT_EQ(device.empty() ? 1 : 0, log_.count("no primary disk info", google::GLOG_ERROR));
    if (!device.empty()) {
        EXPECT_EQ(1, log_.count("primary disk device: " + device, google::GLOG_ERROR));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PrimaryDiskTest,
    ::testing::Values(PrimaryCase{"UpperBeforeLower", "PRIMARY=/dev/sda1\nprimary=/dev/sdb1\n",
                                  "/dev/sda1"},
                      PrimaryCase{"AnyCase", "SIZE=1\nprimary=/dev/sdb1\n", "/dev/sdb1"},
                      PrimaryCase{"EmptyStops", "PRIMARY=\nPRIMARY=/dev/sdb1\n", ""},
                      PrimaryCase{"BlanksKept", "PRIMARY= /dev/sdc1 \r\n", " /dev/sdc1 \r"},
                      PrimaryCase{"NoLineEnd", "PRIMARY=/dev/sdd1", "/dev/sdd1"},
                      PrimaryCase{"LeadingBlank", " PRIMARY=/dev/sda1\nOTHER=1\n", ""},
                      PrimaryCase{"NoFile", NULL, ""}),
    [](const ::testing::TestParamInfo<PrimaryCase>& info) { return info.param.name; });

}  // namespace
