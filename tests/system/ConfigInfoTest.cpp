#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace {

using talvern::ConfigInfo;
namespace fs = boost::filesystem;

class ConfigInfoTest : public quorvia_test::DeviceRootTest {
protected:
    ConfigInfo* config() { return ConfigInfo::sGetInstance(); }
};

TEST_F(ConfigInfoTest, ChineseDeviceGetsChineseNamesUnderTheRoot) {
    ConfigInfo* info = config();
    EXPECT_EQ(info, ConfigInfo::sGetInstance());
    EXPECT_EQ(path("/userdisk/data"), info->getUserdiskDataPath());
    EXPECT_EQ("照片", info->getBackupImageDirName());
    EXPECT_EQ("摄像机监控视频", info->getPemrickCameraDirName());
    EXPECT_EQ(path("/userdisk/data/私密空间"), info->getNewPrivacyDataFolderPath());
    EXPECT_EQ(path("/userdisk/data/.systemconfig/.thumbnails/"), info->getThumbnailRootPath());
    EXPECT_TRUE(fs::is_directory(path("/userdisk/talvernConfig")));
}

}  // namespace
