#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
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
    EXPECT_EQ(config, ConfigInfo::sGetInstance());
    EXPECT_EQ("照片", config->getBackupImageDirName());
    EXPECT_EQ("路由器硬盘备份", config->getBackupRouterDiskDirName());
    EXPECT_EQ(path("/userdisk/data/私密空间"), config->getNewPrivacyDataFolderPath());
    const char* expected[] = {"视频", "照片", "音乐", "文档", "共享", "下载"};
    EXPECT_EQ(std::vector<std::string>(expected, expected + 6), config->getMainDirectoriesName());
    EXPECT_TRUE(log_.contains("ConfigInfo::localization, backupImageDirName_ : 照片, "
                              "backupVideoDirName_ : 视频, backupAudioDirName_ : 音乐"));
    EXPECT_TRUE(log_.contains(", userdiskNewPrivacyDataPath_ : " +
                              path("/userdisk/data/私密空间") +
                              ", pemrickCameraDirName_ : 摄像机监控视频"));
    EXPECT_EQ(path("/userdisk/data/.systemconfig/DataBase/pinyin.db"),
              config->getPinyinDatabasePath());
    EXPECT_EQ(path("/userdisk/talvernConfig/umntpath.cfg"), config->getExtdiskUmntPath());
    EXPECT_EQ(path("/tmp/sdz9.txt"), config->getPTPCameraExistPath());
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
    config->getDatabaseRootPath();
    config->getDatabaseDeviceConfigPath();
    config->getTorrentFolderPath();
    for (const char* made : {"/userdisk/data/.systemconfig/DataBase", "/userdisk/backupDBDevice",
                             "/userdisk/data/torrent"}) {
        EXPECT_TRUE(isDir(made)) << made;
    }
    EXPECT_EQ(path("/userdisk/dromly"), config->getDromlyFolderPath());
    config->getDromlyFolderPath();
    EXPECT_EQ(1, log_.count("ConfigInfo::getDromlyFolderPath: not exist dromly path and create " +
                            path("/userdisk/dromly")));

    fs::remove_all(path("/userdisk/talvernConfig"));
    config->getExtdiskUmntPath();
    EXPECT_TRUE(isDir("/userdisk/talvernConfig"));
    EXPECT_FALSE(fs::exists(path("/userdisk/talvernConfig/umntpath.cfg")));
}

TEST_F(ConfigInfoTest, DownloadFolderIsComposedOnceAndMadeAgainWhenDeleted) {
    const std::string first = info()->getDownloadFolderPath();
    EXPECT_EQ(path("/userdisk/data/下载/"), first);
    fs::remove_all(path("/userdisk/data/下载"));
    EXPECT_EQ(first, info()->getDownloadFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data/下载"));
}

TEST_F(ConfigInfoTest, FormattedStorageIsTheUserdiskRoot) {
    EXPECT_TRUE(info()->hasFormattedStorage());
    info()->setHasFormattedStorageRoot("/somewhere");
    EXPECT_EQ(1, log_.count("/somewhere", google::GLOG_INFO));
    EXPECT_EQ(path("/userdisk"), info()->getFormattedStorageRoot());
}

TEST_F(ConfigInfoTest, BackupFoldersFollowTheDrivePathAndAreMadeOnRequest) {
    ConfigInfo* config = info();
    config->setBackupDrivePath("/extdisks/sda1");
    EXPECT_EQ("/extdisks/sda1/photos/视频", config->getBackupVideoPath("photos"));
    EXPECT_EQ("/extdisks/sda1/", config->getBackupRootPath(""));
    EXPECT_EQ("/extdisks/sda1/p", config->getBackupImagePath("p", 1));
    EXPECT_EQ("/extdisks/sda1/p/照片", config->getBackupImagePath("p", 2));
    EXPECT_EQ("/extdisks/sda1/p/其他", config->getBackupOtherPath("p"));

    config->setBackupDrivePath(path("/extdisks/sda1"));
    bool exists = true;
    const std::string images = config->getBackupImagePath(exists, false, "p", 0);
    EXPECT_EQ(path("/extdisks/sda1/p/照片"), images);
    EXPECT_FALSE(exists);
    EXPECT_FALSE(fs::exists(path("/extdisks")));
    config->getBackupImagePath(exists, true, "p", 0);
    EXPECT_FALSE(exists);
    EXPECT_TRUE(fs::is_directory(images));
    config->getBackupImagePath(exists, false, "p", 0);
    EXPECT_TRUE(exists);

    typedef std::string (ConfigInfo::*TypedForm)(bool&, bool, const std::string&);
    const std::initializer_list<TypedForm> forms = {
        &ConfigInfo::getBackupVideoPath, &ConfigInfo::getBackupAudioPath,
        &ConfigInfo::getBackupDocumentPath, &ConfigInfo::getBackupOtherPath,
        &ConfigInfo::getBackupCustomPath};
    for (TypedForm form : forms) {
        exists = true;
        const std::string folder = (config->*form)(exists, false, "q");
        EXPECT_FALSE(exists || fs::exists(folder)) << folder;
        (config->*form)(exists, true, "q");
        EXPECT_TRUE(fs::is_directory(folder)) << folder;
    }
    EXPECT_EQ(path("/extdisks/sda1/r"), config->getBackupRootPath(exists, "r"));
    EXPECT_FALSE(exists);
    EXPECT_TRUE(fs::is_directory(path("/extdisks/sda1/r")));
}

TEST_F(ConfigInfoTest, StartDeletesTheTwoLeftoverTreesOnly) {
    writeFile("/userdisk/talvernConfig/DataBase/old.db", "x");
    writeFile("/userdisk/.thumbnails/a/b.jpg", "x");
    writeFile("/userdisk/data/.systemconfig/DataBase/quorvia.db", "keep");
    writeFile("/userdisk/data/.systemconfig/.thumbnails/t.jpg", "keep");
    info();
    EXPECT_FALSE(fs::exists(path("/userdisk/talvernConfig/DataBase")));
    EXPECT_FALSE(fs::exists(path("/userdisk/.thumbnails")));
    EXPECT_TRUE(isDir("/userdisk/talvernConfig"));
    EXPECT_EQ("keep", readFile("/userdisk/data/.systemconfig/DataBase/quorvia.db"));
    EXPECT_EQ("keep", readFile("/userdisk/data/.systemconfig/.thumbnails/t.jpg"));
}

TEST_F(ConfigInfoTest, ConfigurationRootThatCantBeMadeStopsTheStartHousekeeping) {
    writeFile("/userdisk", "a file where the disk should be");
    ConfigInfo* config = info();
    EXPECT_TRUE(log_.contains("create " + path("/userdisk/talvernConfig") + " failed: ",
                              google::GLOG_ERROR));
    EXPECT_EQ("照片", config->getBackupImageDirName());
    EXPECT_EQ("", config->getConfig("anything"));
}

TEST_F(ConfigInfoTest, GlobalFileIsLoadedAtStart) {
    writeFile("/userdisk/talvernConfig/config.cfg", "needCopyInstruction = \"yes\";\n");
    info();
    fs::remove(path("/userdisk/talvernConfig/config.cfg"));
    EXPECT_EQ("yes", info()->getConfig(ConfigInfo::sNeedCopyInstructionKey));
}

TEST_F(ConfigInfoTest, UnparsableGlobalFileIsLoggedWithItsLine) {
    writeFile("/userdisk/talvernConfig/config.cfg", "a = \"1\";\nb = = ;\n");
    info();
    EXPECT_TRUE(log_.contains("parse config file error at :2 - ", google::GLOG_ERROR));
}

struct PrimaryCase {
    const char* content;
    const char* device;
};

class PrimaryDiskTest : public ConfigInfoTest,
                        public ::testing::WithParamInterface<PrimaryCase> {};

TEST_P(PrimaryDiskTest, FirstPrimaryLineWins) {
    if (GetParam().content != NULL) {
        writeFile("/tmp/userdisk_info", GetParam().content);
    }
    const std::string device = GetParam().device;
    EXPECT_EQ(device, info()->getPrimaryDiskDevice());
    if (device.empty()) {
        EXPECT_EQ(1, log_.count("no primary disk info", google::GLOG_ERROR));
    } else {
        EXPECT_EQ(1, log_.count("primary disk device: " + device, google::GLOG_ERROR));
        EXPECT_EQ(0, log_.count("no primary disk info"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PrimaryDiskTest,
    ::testing::Values(PrimaryCase{"PRIMARY=/dev/sda1\nprimary=/dev/sdb1\n", "/dev/sda1"},
                      PrimaryCase{"SIZE=1\nprimary=/dev/sdb1\n", "/dev/sdb1"},
                      PrimaryCase{"PRIMARY=\nPRIMARY=/dev/sdb1\n", ""},
                      PrimaryCase{"PRIMARY= /dev/sdc1 \r\n", " /dev/sdc1 \r"},
                      PrimaryCase{"PRIMARY=/dev/sdd1", "/dev/sdd1"},
                      PrimaryCase{" PRIMARY=/dev/sda1\nOTHER=1\n", ""}, PrimaryCase{NULL, ""}));

}  // namespace
