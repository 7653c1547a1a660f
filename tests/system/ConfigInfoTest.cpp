#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <libconfig.h++>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"
#include "system/DiskFolders.h"
#include "system/SettingsFile.h"

namespace {

using quorvia_test::capture;
using quorvia_test::quoted;
using talvern::ConfigInfo;
namespace fs = boost::filesystem;

const char* const kGlobalFile = "/userdisk/talvernConfig/config.cfg";

// Each test case runs in a process of its own, so the first sGetInstance()
// inside a test builds the singleton on that test's root: set up device files
// before it.
class ConfigInfoTest : public quorvia_test::DeviceRootTest {
protected:
    ConfigInfo* info() { return ConfigInfo::sGetInstance(); }
    bool isDir(const std::string& fixedPath) const { return fs::is_directory(path(fixedPath)); }
    std::string global() const { return readFile(kGlobalFile); }
};

class ConfigFilesTest : public ConfigInfoTest {};

TEST_F(ConfigInfoTest, ChineseDeviceGetsChineseNamesAndFixedPathsUnderTheRoot) {
    const std::vector<std::string> expected = {"视频", "照片", "音乐", "文档", "共享", "下载"};
    EXPECT_EQ(expected, info()->getMainDirectoriesName());
    EXPECT_EQ(path("/userdisk/data/私密空间"), info()->getNewPrivacyDataFolderPath());
}

TEST_F(ConfigInfoTest, MissingLocalisationLeavesNamesEmptyExceptTheCameraFolder) {
    fs::remove_all(path("/etc/talvernconfig/localization"));
    EXPECT_EQ("", info()->getBackupImageDirName());
    EXPECT_EQ(path("/userdisk/data/"), info()->getNewPrivacyDataFolderPath());
    EXPECT_EQ(path("/userdisk/data/摄像机监控视频"), info()->getPemrickCameraPath());
}

TEST_F(ConfigInfoTest, FolderGettersMakeTheFolderOnlyWhereTheyShould) {
    ConfigInfo* config = info();
    EXPECT_EQ(path("/userdisk/data"), config->getUserdiskDataPath());
    EXPECT_FALSE(isDir("/userdisk/data"));
    EXPECT_EQ(path("/userdisk/data"), config->getDataFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data"));
    const std::string download = config->getDownloadFolderPath();
    EXPECT_EQ(path("/userdisk/data/下载/"), download);
    fs::remove_all(path("/userdisk/data/下载"));
    EXPECT_EQ(download, config->getDownloadFolderPath());
    EXPECT_TRUE(isDir("/userdisk/data/下载"));
    EXPECT_TRUE(fs::is_directory(config->getDromlyFolderPath()));
    // exists tells whether the folder was there before the call.
    config->setBackupDrivePath(path("/extdisks/sda1"));
    bool exists = true;
    const std::string images = config->getBackupImagePath(exists, false, "p", 0);
    EXPECT_FALSE(exists || fs::exists(path("/extdisks")));
    config->getBackupImagePath(exists, true, "p", 0);
    EXPECT_TRUE(fs::is_directory(images) && !exists);
    EXPECT_TRUE(fs::is_directory(config->getBackupCustomPath(exists, true, "q")));
    EXPECT_TRUE(fs::is_directory(config->getBackupRootPath(exists, "r")));
}

// The disk may come from another machine: links planted in or at the two
// leftover trees and at the configuration file lead nowhere.
TEST_F(ConfigInfoTest, StartDeletesTheTwoLeftoverTreesOnlyAndNeverFollowsAPlantedLink) {
    writeFile(kGlobalFile, "needCopyInstruction = \"yes\";\n");
    writeFile("/userdisk/.thumbnails/a/b.jpg", "x");
    writeFile("/userdisk/data/.systemconfig/DataBase/quorvia.db", "keep");
    writeFile("/outside/photos/p.jpg", "photo");
    writeFile("/outside/victim.cfg", "secret = \"s3cret\";\n");
    const std::string outside = quoted(path("/outside"));
    ASSERT_EQ(0, shell("cd " + quoted(path("/userdisk")) + " && ln -s " + outside +
                       "/photos talvernConfig/DataBase && ln -s " + outside +
                       " .thumbnails/a/out && mkfifo .thumbnails/fifo"
                       " && ln -s /nowhere .thumbnails/dangling"));
    info();
    EXPECT_FALSE(fs::exists(fs::symlink_status(path("/userdisk/talvernConfig/DataBase"))));
    EXPECT_FALSE(fs::exists(fs::symlink_status(path("/userdisk/.thumbnails"))));
    EXPECT_EQ("keep", readFile("/userdisk/data/.systemconfig/DataBase/quorvia.db"));
    EXPECT_EQ("photo", readFile("/outside/photos/p.jpg"));
    EXPECT_EQ("yes", info()->getConfig(ConfigInfo::sNeedCopyInstructionKey));

    // The file is replaced as a whole: a link at its name is never written
    // through, nor read (what it led to was copied onto the disk).
    fs::remove(path(kGlobalFile));
    fs::create_symlink(path("/outside/victim.cfg"), path(kGlobalFile));
    EXPECT_EQ("", info()->getConfig("secret"));
    info()->setConfig("k", "v");
    EXPECT_EQ("secret = \"s3cret\";\n", readFile("/outside/victim.cfg"));
    EXPECT_FALSE(fs::is_symlink(path(kGlobalFile)));
    EXPECT_EQ("needCopyInstruction = \"yes\";\nk = \"v\";\n", global());
}

// Files of those names are no trees: they stay.
TEST_F(ConfigInfoTest, StartLeavesFilesNamedAsTheLeftoverTrees) {
    writeFile("/userdisk/.thumbnails", "mine");
    writeFile("/userdisk/talvernConfig/DataBase", "mine too");
    info();
    EXPECT_EQ("mine", readFile("/userdisk/.thumbnails"));
    EXPECT_EQ("mine too", readFile("/userdisk/talvernConfig/DataBase"));
}

TEST_F(ConfigInfoTest, ConfigurationRootThatIsALinkKeepsWhatItPointsTo) {
    const std::string spelledRoot = root() + "//.";
    setenv("QUORVIA_ROOT", spelledRoot.c_str(), 1);
    writeFile("/outside/DataBase/photo.jpg", "photo");
    fs::create_directories(path("/userdisk"));
    fs::create_symlink(path("/outside"), path("/userdisk/talvernConfig"));
    info();
    EXPECT_EQ("photo", readFile("/outside/DataBase/photo.jpg"));
    EXPECT_TRUE(
        log_.contains(spelledRoot + "/userdisk/talvernConfig is a link", google::GLOG_ERROR));
    // Nor are settings written where it leads, nor where one on an external
    // disk leads (regressions); a data folder that is a link is the device's.
    fs::create_directories(path("/extdisks/sdb1"));
    fs::create_symlink(path("/outside"), path("/extdisks/sdb1/zentrel_config"));
    fs::create_symlink(path("/real-data"), path("/userdisk/data"));
    fs::create_directories(path("/real-data"));
    info()->setConfig("k", "v");
    info()->setConfigToFile(info()->getExtdiskUmntPath(), "k", "v");
    info()->setConfigToFile(path("/extdisks/sdb1/zentrel_config/share.cfg"), "k", "v");
    // However the caller or the device root spells the path, and wherever
    // the current folder lies (regressions).
    fs::create_symlink(path("/outside"), path("/real-data/planted"));
    fs::create_directories(path("/mnt/sdc1"));
    fs::create_symlink(path("/mnt/sdc1"), path("/extdisks/sdc1"));
    fs::create_symlink(path("/outside"), path("/mnt/sdc1/zentrel_config"));
    for (const std::string& spelling :
         {path("//extdisks/./sdb1//zentrel_config/a.cfg"),
          path("/outside/../extdisks/sdb1/zentrel_config/b.cfg"), std::string("planted/c.cfg"),
          std::string("../userdisk/data/planted/d.cfg"),
          path("/extdisks/sdc1/zentrel_config/e.cfg")}) {
        ASSERT_EQ(0, chdir(path("/userdisk/data").c_str()));
        info()->setConfigToFile(spelling, "k", "v");
    }
    info()->setConfigToFile(path("/userdisk/data/x.cfg"), "k", "v");
    EXPECT_EQ("DataBase\n", capture("ls -A " + quoted(path("/outside"))));
    EXPECT_EQ("k = \"v\";\n", readFile("/real-data/x.cfg"));
    // A link at the file itself is replaced; what it led to was read and
    // copied onto the disk (regression).
    writeFile("/secret.cfg", "password = \"s3cret\";\n");
    for (const std::string disk : {"/extdisks/sdb1", "/extdisks/sdc1"}) {
        fs::create_symlink(path("/secret.cfg"), path(disk + "/leak.cfg"));
        info()->setConfigToFile(path(disk + "/leak.cfg"), "k", "v");
        EXPECT_EQ("k = \"v\";\n", readFile(disk + "/leak.cfg")) << disk;
    }
}

// A disk user who swaps the settings folder for a link between the walk and
// the act: reading, replacing and setting aside still happen in the folder
// walked (once, a write landed where the link led about one try in 60).
TEST_F(ConfigInfoTest, AFolderSwappedForALinkAfterTheWalkLeadsNothingElsewhereRegression) {
    writeFile("/outside/config.cfg", "secret = \"s3cret\";\n");
    const talvern::DiskFolders disks(path("/userdisk"), path("/userdisk/data"), path("/extdisks"));
    for (const std::string act : {"read", "replace", "set aside"}) {
        writeFile(kGlobalFile, "mine = \"1\";\n");
        const talvern::SettingsFile file(disks, path(kGlobalFile));
        fs::remove_all(path("/userdisk/moved"));
        fs::rename(path("/userdisk/talvernConfig"), path("/userdisk/moved"));
        fs::create_symlink(path("/outside"), path("/userdisk/talvernConfig"));
        ASSERT_TRUE(file.isReached() && file.exists() && !file.isPlantedLink());
        libconfig::Config config;
        if (act == "read") {
            file.read(config);
            EXPECT_TRUE(config.exists("mine") && !config.exists("secret"));
        } else if (act == "replace") {
            file.replace(config);
            EXPECT_EQ("", readFile("/userdisk/moved/config.cfg"));
        } else {
            EXPECT_TRUE(file.setAside(".broken"));
            EXPECT_TRUE(fs::exists(path("/userdisk/moved/config.cfg.broken")));
        }
        EXPECT_EQ("config.cfg\n", capture("ls -A " + quoted(path("/outside")))) << act;
        EXPECT_EQ("secret = \"s3cret\";\n", readFile("/outside/config.cfg")) << act;
        fs::remove(path("/userdisk/talvernConfig"));
        fs::rename(path("/userdisk/moved"), path("/userdisk/talvernConfig"));
    }
}

// A disk mounted on its own is a disk under any name: a link planted on it
// is not followed where a second mount reaches it (regression: a setting was
// written where it led).
TEST_F(ConfigInfoTest, ALinkPlantedOnADiskReachedUnderAnotherNameIsNotFollowedRegression) {
    if (unshare(CLONE_NEWNS) != 0) {
        GTEST_SKIP() << "no mount namespace: " << strerror(errno);
    }
    ASSERT_EQ(0, mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL));
    for (const char* folder : {"/userdisk", "/share", "/outside"}) {
        fs::create_directories(path(folder));
    }
    ASSERT_EQ(0, mount("tmpfs", path("/userdisk").c_str(), "tmpfs", 0, NULL));
    fs::create_directories(path("/userdisk/data"));
    fs::create_symlink(path("/outside"), path("/userdisk/data/planted"));
    ASSERT_EQ(0,
              mount(path("/userdisk/data").c_str(), path("/share").c_str(), NULL, MS_BIND, NULL));
    info()->setConfigToFile(path("/share/planted/x.cfg"), "k", "v");
    info()->setConfigToFile(path("/share/x.cfg"), "k", "v");
    EXPECT_EQ("", capture("ls -A " + quoted(path("/outside"))));
    EXPECT_EQ("k = \"v\";\n", readFile("/userdisk/data/x.cfg"));
    EXPECT_EQ(0, umount2(path("/share").c_str(), MNT_DETACH) +
                     umount2(path("/userdisk").c_str(), MNT_DETACH));
}

// /tmp is anyone's and the user disk is written elsewhere: a FIFO or a device
// planted where the start reads a file counts as no file (once, the start
// waited on the FIFO for ever, or read /dev/zero until memory ran out).
TEST_F(ConfigInfoTest, PlantedFifosAndDevicesReadAsNoFileRegression) {
    alarm(60);
    ASSERT_EQ(0, shell("cd " + quoted(root()) +
                       " && mkdir -p tmp userdisk/talvernConfig && "
                       "rm etc/talvernconfig/localization/country.txt && "
                       "mkfifo tmp/commonutils.config.tmp userdisk/talvernConfig/config.cfg "
                       "etc/talvernconfig/localization/country.txt && "
                       "ln -s /dev/zero tmp/userdisk_info"));
    EXPECT_EQ("", info()->getPrimaryDiskDevice());
    EXPECT_EQ("", info()->getBackupImageDirName());
    EXPECT_EQ("", info()->getConfig("code"));
    EXPECT_TRUE(log_.contains("open config file error;", google::GLOG_ERROR));
}

TEST_F(ConfigInfoTest, ConfigurationRootThatCantBeMadeStopsTheStartHousekeeping) {
    writeFile("/userdisk", "a file where the disk should be");
    ConfigInfo* config = info();
    EXPECT_TRUE(log_.contains("create " + path("/userdisk/talvernConfig") + " failed: ",
                              google::GLOG_ERROR));
    EXPECT_EQ("照片", config->getBackupImageDirName());
    EXPECT_EQ("", config->getConfig("anything"));
}

TEST_F(ConfigFilesTest, SetConfigWritesTheFileAndGetConfigRereadsIt) {
    info()->setConfig("a", "1");
    const size_t descriptors = quorvia_test::openDescriptors();
    EXPECT_EQ("a = \"1\";\n", global());
    // Another writer's value is seen; without the file, memory answers.
    writeFile(kGlobalFile, "a = \"2\";\nnumber = 5;\n");
    EXPECT_EQ("2", info()->getConfig("a"));
    EXPECT_EQ("", info()->getConfig("number"));
    fs::remove(path(kGlobalFile));
    EXPECT_EQ("2", info()->getConfig("a"));

    info()->setConfig("a", "");
    EXPECT_EQ("", info()->getConfig("a"));
    EXPECT_EQ("number = 5;\n", global());

    // Any other file: edited in place, never made where its folder is missing.
    const std::string file = path("/cfg/other.cfg");
    fs::create_directories(path("/cfg"));
    // A new one has the mode the umask leaves, as one opened to be written.
    const mode_t umaskBefore = umask(027);
    info()->setConfigToFile(file, "first", "1");
    umask(umaskBefore);
    EXPECT_EQ("640\n", capture("stat -c %a " + quoted(file)));
    // Owned by another component, private: it stays so.
    ASSERT_EQ(0, shell("chown 65534:65534 " + quoted(file) + " && chmod 600 " + quoted(file)));
    info()->setConfigToFile(file, "second", "2");
    info()->setConfigToFile(file, "first", "");
    EXPECT_EQ("second = \"2\";\n", readFile("/cfg/other.cfg"));
    EXPECT_EQ("65534 600\n", capture("stat -c '%u %a' " + quoted(file)));
    EXPECT_EQ("2", info()->getConfigFromFile(file, "second"));
    info()->setConfigToFile(path("/no/such/folder/x.cfg"), "k", "v");
    EXPECT_FALSE(fs::exists(path("/no")));
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors());
}

// With one descriptor or none to spare, the global file counts as unread,
// not as missing (nor as led through a link): the next setting reads it again
// before it writes (regression: a setting stored by another process
// meanwhile was lost).
TEST_F(ConfigFilesTest, AFileThatCantBeOpenedNowIsNotTakenForMissingRegression) {
#ifdef QUORVIA_UNDEFINED_SANITIZER
    GTEST_SKIP() << "the sanitizer's type check needs a descriptor (a pipe) and reports every "
                    "object as invalid without one";
#endif
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const struct rlimit few = {quorvia_test::openDescriptors() + 10, saved.rlim_max};
    for (const bool oneSpare : {true, false}) {
        info()->setConfig("b", "old");
        writeFile(kGlobalFile, "b = \"new\";\n");
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
        std::vector<int> taken;
        for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
            taken.push_back(fd);
        }
        if (oneSpare) {
            close(taken.back());
            taken.pop_back();
        }
        const std::string answer = info()->getConfig("b");
        for (const int fd : taken) {
            close(fd);
        }
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
        EXPECT_EQ("old", answer);
        info()->setConfig("c", "3");
        EXPECT_EQ("b = \"new\";\nc = \"3\";\n", global()) << oneSpare;
    }
    EXPECT_EQ(2, log_.count("parse config file error at :FileIOException", google::GLOG_ERROR));
    EXPECT_FALSE(log_.contains("planted"));
}

// A file read while another process was writing it is left alone: once, that
// read set it aside and the next setting replaced all the others. One that
// still doesn't parse when a setting is stored (cut short by a power loss)
// goes aside; one that can't be read at all is kept and not written over.
TEST_F(ConfigFilesTest, ABrokenFileIsSetAsideOnlyWhenASettingIsStoredRegression) {
    const std::string whole = "userSetting = \"precious\";\nother = \"kept\";\n";
    writeFile(kGlobalFile, whole.substr(0, whole.size() - 4));
    EXPECT_EQ("precious", info()->getConfig("userSetting"));
    writeFile(kGlobalFile, whole);
    info()->setConfig("needShareHSDOWNLOAD", "true");
    EXPECT_EQ(whole + "needShareHSDOWNLOAD = \"true\";\n", global());

    writeFile(kGlobalFile, "{{{ not a config");
    EXPECT_EQ("", info()->getConfig("userSetting"));
    info()->setConfig("b", "2");
    EXPECT_EQ("{{{ not a config", readFile(std::string(kGlobalFile) + ".broken"));
    EXPECT_EQ("b = \"2\";\n", global());

    fs::remove(path(kGlobalFile));
    fs::create_directory(path(kGlobalFile));
    info()->getConfig("b");
    info()->setConfig("c", "3");
    EXPECT_TRUE(log_.contains("setConfig skipped: " + path(kGlobalFile), google::GLOG_ERROR));
    EXPECT_TRUE(fs::is_directory(path(kGlobalFile)));
}

// A rejected key or a garbled file throws to the caller, leaves the file as it
// was and releases the lock: the next call goes through.
TEST_F(ConfigFilesTest, RejectedKeysAndGarbledFilesThrowAndKeepTheFile) {
    info()->setConfig("good", "1");
    for (const char* key : {"bad key!", "", "a..b", "good.x", "\xff"}) {
        // Lookups take the key as libconfig's path: whatever it finds, no throw.
        EXPECT_NO_THROW(info()->getConfig(key)) << key;
        EXPECT_TRUE(info()->getListFromFile(path(kGlobalFile), key).empty()) << key;
        EXPECT_THROW(info()->setConfig(key, "x"), libconfig::ConfigException) << key;
    }
    EXPECT_EQ("good = \"1\";\n", global());

    writeFile("/cfg/garbled.cfg", "x = ;;");
    const std::string garbled = path("/cfg/garbled.cfg");
    EXPECT_THROW(info()->setConfigToFile(garbled, "k", "v"), libconfig::ParseException);
    EXPECT_EQ("x = ;;", readFile("/cfg/garbled.cfg"));
    EXPECT_EQ("", info()->getConfigFromFile(garbled, "x"));
    info()->setConfig("other", "2");
    EXPECT_EQ("2", info()->getConfig("other"));
}

TEST_F(ConfigFilesTest, StringAndListReaders) {
    EXPECT_EQ("v", info()->getConfigFromString("k = \"v\"; n = 1;", "k"));
    EXPECT_EQ("", info()->getConfigFromString(NULL, "k"));
    EXPECT_THROW(info()->getConfigFromString("k = ", "k"), libconfig::ParseException);

    // Lists: arrays only, their elements as text.
    writeFile("/cfg/lists.cfg", "macs = [\"aa:bb\", \"cc:dd\"];\nnumbers = [1, 22];\n"
                                "mixed = (\"a\", 1);\n");
    const std::string file = path("/cfg/lists.cfg");
    EXPECT_EQ(std::vector<std::string>({"aa:bb", "cc:dd"}), info()->getListFromFile(file, "macs"));
    EXPECT_EQ(std::vector<std::string>({"1", "22"}), info()->getListFromFile(file, "numbers"));
    EXPECT_TRUE(info()->getListFromFile(file, "mixed").empty());
    EXPECT_TRUE(info()->getListFromFile(path("/cfg/missing.cfg"), "macs").empty());
}

// The file is read once, when the singleton is built: one process per case.
struct PrimaryCase { const char* name; const char* content; const char* device; };

// A file longer than is read: the lines of its first 64 KiB count, and the
// one cut there doesn't.
const std::string kPadding = std::string(64 * 1024 - 10, 'x') + "\n";
const std::string kPrimaryThenMore = "PRIMARY=/dev/sda1\n" + kPadding + kPadding;
const std::string kPrimaryCut = kPadding + "PRIMARY=/dev/sdb1\n";

class PrimaryDiskTest : public ConfigInfoTest,
                        public ::testing::WithParamInterface<PrimaryCase> {};

TEST_P(PrimaryDiskTest, FirstPrimaryLineWins) {
    if (GetParam().content != NULL) {
        writeFile("/tmp/userdisk_info", GetParam().content);
    }
    const std::string device = GetParam().device;
    EXPECT_EQ(device, info()->getPrimaryDiskDevice());
    EXPECT_EQ(device.empty() ? 1 : 0, log_.count("no primary disk info", google::GLOG_ERROR));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, PrimaryDiskTest,
    ::testing::Values(PrimaryCase{"UpperBeforeLower", "PRIMARY=/dev/sda1\nprimary=/dev/sdb1\n",
                                  "/dev/sda1"},
                      PrimaryCase{"AnyCase", "SIZE=1\nprimary=/dev/sdb1\n", "/dev/sdb1"},
                      PrimaryCase{"EmptyStops", "PRIMARY=\nPRIMARY=/dev/sdb1\n", ""},
                      PrimaryCase{"LeadingBlank", " PRIMARY=/dev/sda1\nOTHER=1\n", ""},
                      PrimaryCase{"NoFile", NULL, ""},
                      PrimaryCase{"HeadOfAHugeFile", kPrimaryThenMore.c_str(), "/dev/sda1"},
                      PrimaryCase{"CutAtTheEndOfTheHead", kPrimaryCut.c_str(), ""}),
    [](const ::testing::TestParamInfo<PrimaryCase>& info) { return info.param.name; });

}  // namespace
