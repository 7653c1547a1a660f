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

TEST_F(ConfigInfoTest, ChineseDeviceGetsChineseNames) {
    ConfigInfo* config = info();
    EXPECT_EQ(config, ConfigInfo::sGetInstance());
    EXPECT_EQ("照片", config->getBackupImageDirName());
    EXPECT_EQ("视频", config->getBackupVideoDirName());
    EXPECT_EQ("的备份", config->getBackupMark());
    EXPECT_EQ("外接存储", config->getExtdiskDeviceName());
    EXPECT_EQ("摄像机监控视频", config->getPemrickCameraDirName());
    EXPECT_EQ("运动相机", config->getPemrickActionCameraName());
    EXPECT_EQ("路由器硬盘备份", config->getBackupRouterDiskDirName());
    EXPECT_EQ(path("/userdisk/data/私密空间"), config->getNewPrivacyDataFolderPath());
    const char* expected[] = {"视频", "照片", "音乐", "文档", "共享", "下载"};
    EXPECT_EQ(std::vector<std::string>(expected, expected + 6), config->getMainDirectoriesName());
    EXPECT_TRUE(log_.contains("ConfigInfo::localization, backupImageDirName_ : 照片, "
                              "backupVideoDirName_ : 视频, backupAudioDirName_ : 音乐"));
    EXPECT_TRUE(log_.contains(", userdiskNewPrivacyDataPath_ : " +
                              path("/userdisk/data/私密空间") +
                              ", pemrickCameraDirName_ : 摄像机监控视频"));
}

TEST_F(ConfigInfoTest, EnglishDeviceGetsEnglishNames) {
    writeFile("/tmp/commonutils.config.tmp", "code = \"US\";\n");
    EXPECT_EQ("Photos", info()->getBackupImageDirName());
    EXPECT_EQ("backup", info()->getBackupMark());
    EXPECT_EQ("Camera recordings", info()->getPemrickCameraDirName());
    EXPECT_EQ(path("/userdisk/data/Downloads/"), info()->getDownloadFolderPath());
}

TEST_F(ConfigInfoTest, MissingLocalisationLeavesNamesEmptyExceptTheCameraFolder) {
    fs::remove_all(path("/etc/talvernconfig/localization"));
    ConfigInfo* config = info();
    EXPECT_EQ("", config->getBackupImageDirName());
    EXPECT_EQ("", config->getInitCreateDownloadDirName());
    EXPECT_EQ(path("/userdisk/data/"), config->getNewPrivacyDataFolderPath());
    EXPECT_EQ("摄像机监控视频", config->getPemrickCameraDirName());
    EXPECT_EQ(path("/userdisk/data/摄像机监控视频"), config->getPemrickCameraPath());
}

TEST_F(ConfigInfoTest, FixedPathsLieUnderTheDeviceRoot) {
    ConfigInfo* config = info();
    struct Case {
        std::string actual;
        const char* fixed;
    };
    const Case cases[] = {
        {config->getUserdiskRootPath(), "/userdisk"},
        {config->getUserdiskDataPath(), "/userdisk/data"},
        {config->getPrivacyDataFolderPath(), "/userdisk/privacyData"},
        {config->getUserdiskAppDataPath(), "/userdisk/appdata"},
        {config->getExtdiskRootPath(), "/extdisks"},
        {config->getExtdiskUmntPath(), "/userdisk/talvernConfig/umntpath.cfg"},
        {config->getPinyinDatabasePath(), "/userdisk/data/.systemconfig/DataBase/pinyin.db"},
        {config->getMinidlnaConfigPath(), "/etc/config/minidlna"},
        {config->getSambaConfigPath(), "/etc/config/samba"},
        {config->getLoginMacConfigPath(), "/tmp/loginMac.cfg"},
        {config->getNonLoginMacConfigPath(), "/userdisk/talvernConfig/nonLoginMac.cfg"},
        {config->getShareDirConfigPath(), "/userdisk/talvernConfig/bnSharePath.cfg"},
        {config->getAutoBackupConfigPath(), "/userdisk/talvernConfig/autoBackup.cfg"},
        {config->getHardDiskBackupConfigPath(), "/userdisk/talvernConfig/hardDiskBackup.cfg"},
        {config->getHardDiskBackupSourceFile(),
         "/userdisk/talvernConfig/hardDiskBackupSource.cfg"},
        {config->getNolvuMacConfigPath(), "/userdisk/talvernConfig/nolvuMac.cfg"},
        {config->getThumbnailRootPath(), "/userdisk/data/.systemconfig/.thumbnails/"},
        {config->getSmallIconsRootPath(), "/userdisk/data/.systemconfig/.thumbnails/smallIcons"},
        {config->getMiddleIconsRootPath(),
         "/userdisk/data/.systemconfig/.thumbnails/middleIcons"},
        {config->getImportedExtThumbsRootPath(),
         "/userdisk/data/.systemconfig/.thumbnails/importedExtThumbs"},
        {config->getHSDOWNLOADRootPath(), "/userdisk/data/HSDOWNLOAD"},
        {config->getCameraAutoImportConfigPath(), "/userdisk/talvernConfig/cameraAutoImport.cfg"},
        {config->getLogPath(), "/userdisk/log/talvern"},
        {config->getTimeMachineBackupPath(), "/userdisk/data/timecapsule"},
        {config->getHestronVostelPath(), "/userdisk/data/vostel_cache"},
        {config->getHestronVostelNewPath(), "/userdisk/data/vostel_ormand"},
        {config->getPTPCameraMountPoint(), "/extdisks/sdz9"},
        {config->getPTPCameraUsbInfoDevice(), "/dev/sdz9"},
        {config->getPTPCameraExistPath(), "/tmp/sdz9.txt"},
        {config->getBackupDrivePath(), "/userdisk/data"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(path(cases[i].fixed), cases[i].actual);
    }
    EXPECT_EQ("USB", config->getExtdiskDeviceId());
    EXPECT_EQ("gphotofs", config->getPTPCameraDevice());
    EXPECT_EQ("Zentrel", config->getUserdiskDataName());
    EXPECT_EQ("timecapsule", config->getTimecapsuleName());
    EXPECT_EQ("vostel_cache", config->getHestronVostelDirName());
    EXPECT_EQ("vostel_ormand", config->getHestronVostelNewDirName());
    EXPECT_EQ("needCopyInstruction", ConfigInfo::sNeedCopyInstructionKey);
}

TEST_F(ConfigInfoTest, GettersThatMakeFoldersAndThoseThatDont) {
    ConfigInfo* config = info();
    EXPECT_EQ(path("/userdisk/data"), config->getUserdiskDataPath());
    EXPECT_FALSE(isDir("/userdisk/data"));
    EXPECT_EQ(path("/userdisk/data"), config->getDataFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data"));

    EXPECT_EQ(path("/userdisk/data/.systemconfig/DataBase"), config->getDatabaseRootPath());
    EXPECT_TRUE(isDir("/userdisk/data/.systemconfig/DataBase"));
    EXPECT_EQ(path("/userdisk/backupDBDevice"), config->getDatabaseDeviceConfigPath());
    EXPECT_TRUE(isDir("/userdisk/backupDBDevice"));
    EXPECT_EQ(path("/userdisk/data/torrent/"), config->getTorrentFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data/torrent"));

    EXPECT_EQ(path("/userdisk/dromly"), config->getDromlyFolderPath());
    EXPECT_TRUE(isDir("/userdisk/dromly"));
    config->getDromlyFolderPath();
    EXPECT_EQ(1, log_.count("ConfigInfo::getDromlyFolderPath: not exist dromly path and create " +
                            path("/userdisk/dromly")));

    fs::remove_all(path("/userdisk/talvernConfig"));
    EXPECT_EQ(path("/userdisk/talvernConfig/umntpath.cfg"), config->getExtdiskUmntPath());
    EXPECT_TRUE(isDir("/userdisk/talvernConfig"));
    EXPECT_FALSE(fs::exists(path("/userdisk/talvernConfig/umntpath.cfg")));
    fs::remove_all(path("/userdisk/talvernConfig"));
    EXPECT_EQ(path("/userdisk/talvernConfig"), config->getConfigRoot());
    EXPECT_TRUE(isDir("/userdisk/talvernConfig"));
}

TEST_F(ConfigInfoTest, DownloadFolderIsComposedOnceAndMadeAgainWhenDeleted) {
    const std::string first = info()->getDownloadFolderPath();
    EXPECT_EQ(path("/userdisk/data/下载/"), first);
    EXPECT_TRUE(isDir("/userdisk/data/下载"));
    fs::remove_all(path("/userdisk/data/下载"));
    EXPECT_EQ(first, info()->getDownloadFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data/下载"));
}

TEST_F(ConfigInfoTest, FormattedStorageIsTheUserdiskRoot) {
    EXPECT_TRUE(info()->hasFormattedStorage());
    EXPECT_TRUE(isDir("/userdisk/data"));
    EXPECT_EQ(path("/userdisk"), info()->getFormattedStorageRoot());
    info()->setHasFormattedStorageRoot("/somewhere");
    EXPECT_EQ(1, log_.count("/somewhere", google::GLOG_INFO));
    EXPECT_EQ(path("/userdisk"), info()->getFormattedStorageRoot());
}

TEST_F(ConfigInfoTest, BackupPathsFollowTheDrivePath) {
    ConfigInfo* config = info();
    config->setBackupDrivePath("/extdisks/sda1");
    EXPECT_EQ("/extdisks/sda1", config->getBackupDrivePath());
    EXPECT_EQ("/extdisks/sda1/photos/视频", config->getBackupVideoPath("photos"));
    EXPECT_EQ("/extdisks/sda1/", config->getBackupRootPath(""));
    EXPECT_EQ("/extdisks/sda1/p", config->getBackupImagePath("p", 1));
    EXPECT_EQ("/extdisks/sda1/p/照片", config->getBackupImagePath("p", 0));
    EXPECT_EQ("/extdisks/sda1/p/照片", config->getBackupImagePath("p", 2));
    EXPECT_EQ("/extdisks/sda1/p/音乐", config->getBackupAudioPath("p"));
    EXPECT_EQ("/extdisks/sda1/p/文档", config->getBackupDocumentPath("p"));
    EXPECT_EQ("/extdisks/sda1/p/其他", config->getBackupOtherPath("p"));
    EXPECT_EQ("/extdisks/sda1/p/自定义", config->getBackupCustomPath("p"));
}

TEST_F(ConfigInfoTest, BackupFolderFormsReportAndOptionallyMakeTheFolder) {
    ConfigInfo* config = info();
    config->setBackupDrivePath(path("/extdisks/sda1"));
    const std::string images = path("/extdisks/sda1/p/照片");

    bool exists = true;
    EXPECT_EQ(images, config->getBackupImagePath(exists, false, "p", 0));
    EXPECT_FALSE(exists);
    EXPECT_FALSE(fs::exists(path("/extdisks")));

    exists = true;
    EXPECT_EQ(images, config->getBackupImagePath(exists, true, "p", 0));
    EXPECT_FALSE(exists);
    EXPECT_TRUE(fs::is_directory(images));

    exists = false;
    config->getBackupImagePath(exists, false, "p", 0);
    EXPECT_TRUE(exists);

    typedef std::string (ConfigInfo::*TypedForm)(bool&, bool, const std::string&);
    const std::vector<TypedForm> forms = {
        &ConfigInfo::getBackupVideoPath, &ConfigInfo::getBackupAudioPath,
        &ConfigInfo::getBackupDocumentPath, &ConfigInfo::getBackupOtherPath,
        &ConfigInfo::getBackupCustomPath};
    for (TypedForm form : forms) {
        exists = true;
        const std::string folder = (config->*form)(exists, false, "q");
        EXPECT_FALSE(exists) << folder;
        EXPECT_FALSE(fs::exists(folder)) << folder;
        (config->*form)(exists, true, "q");
        EXPECT_TRUE(fs::is_directory(folder)) << folder;
    }

    exists = true;
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
                      PrimaryCase{" PRIMARY=/dev/sda1\nOTHER=1\n", ""},
                      PrimaryCase{"", ""}, PrimaryCase{NULL, ""}));

}  // namespace
