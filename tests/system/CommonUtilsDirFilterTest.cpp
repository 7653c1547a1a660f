#include <gtest/gtest.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

class CommonUtilsDirFilterTest : public quorvia_test::DeviceRootTest {};

TEST_F(CommonUtilsDirFilterTest, NamesLeftOutAndFollowed) {
    talvern::ConfigInfo* config = talvern::ConfigInfo::sGetInstance();
    const std::string backup = config->getBackupRouterDiskDirName();
    const std::string camera = config->getPemrickCameraDirName();
    ASSERT_FALSE(backup.empty());
    ASSERT_FALSE(camera.empty());
    struct Case {
        std::string name;
        bool filtered;
    } cases[] = {
        {".", true},
        {"..", true},
        {".hidden", true},
        {"$RECYCLE.BIN", true},
        {"$Recycle.Bin", true},
        {"RECYCLER", true},
        {"recycled", true},
        {"Recyclers", true},
        {"timecapsule", true},
        {"Timecapsule2", true},
        {"vostel_cache", true},
        {"VOSTEL_ORMAND_old", true},
        {backup, true},
        {backup + " 2", true},
        {camera, true},
        {"Photos", false},
        {"my.hidden", false},
        {"Recycle", false},
        {"time capsule", false},
        {"", false},
        {"\xff\xfe bad utf8", false},
        {"line\nbreak", false},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        log_.clear();
        EXPECT_EQ(cases[i].filtered, CommonUtils::isFilterDir(cases[i].name)) << cases[i].name;
        EXPECT_EQ(cases[i].filtered ? 1 : 0,
                  log_.count(cases[i].name + " is recycle or hidden directory"))
            << cases[i].name;
    }
}

TEST_F(CommonUtilsDirFilterTest, EmptyLocalisedBackupNameFiltersEveryDirectory) {
    ASSERT_EQ(0, shell("sed -i '/^backup_router_disk###/d' '" +
                       path("/etc/talvernconfig/localization") + "'/*.txt"));
    EXPECT_TRUE(CommonUtils::isFilterDir("Photos"));
    EXPECT_TRUE(CommonUtils::isFilterDir(""));
}

TEST_F(CommonUtilsDirFilterTest, DownloadTemporaryFiles) {
    const std::string download = talvern::ConfigInfo::sGetInstance()->getDownloadFolderPath();
    ASSERT_FALSE(download.empty());
    EXPECT_TRUE(CommonUtils::sIsDownloadTmpFile(download + "movie.td"));
    EXPECT_TRUE(CommonUtils::sIsDownloadTmpFile(download + "movie.TD"));
    EXPECT_TRUE(CommonUtils::sIsDownloadTmpFile(download + "sub/movie.cfg"));
    EXPECT_FALSE(CommonUtils::sIsDownloadTmpFile(download + "movie.mkv"));
    EXPECT_FALSE(CommonUtils::sIsDownloadTmpFile(path("/userdisk/data/movie.td")));
    EXPECT_FALSE(CommonUtils::sIsDownloadTmpFile(""));
}

}  // namespace
