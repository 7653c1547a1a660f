#include <gtest/gtest.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

class CommonUtilsDirFilterTest : public quorvia_test::DeviceRootTest {};

TEST_F(CommonUtilsDirFilterTest, NamesLeftOutAndFollowedAndDownloadTemporaryFiles) {
    talvern::ConfigInfo* config = talvern::ConfigInfo::sGetInstance();
    const struct { std::string name; bool filtered; } names[] = {
        {".hidden", true},      {"$Recycle.Bin", true}, {"recycled", true},
        {"Timecapsule2", true}, {"VOSTEL_ORMAND_old", true},
        {config->getBackupRouterDiskDirName() + " 2", true}, {config->getPemrickCameraDirName(), true},
        {"Photos", false},      {"my.hidden", false},   {"", false},
    };
    for (const auto& c : names) {
        log_.clear();
        EXPECT_EQ(c.filtered, CommonUtils::isFilterDir(c.name)) << c.name;
        EXPECT_EQ(c.filtered ? 1 : 0, log_.count(c.name + " is recycle or hidden directory"));
    }
    const std::string download = config->getDownloadFolderPath();
    const struct { std::string path; bool temporary; } files[] = {
        {download + "movie.TD", true}, {download + "sub/movie.cfg", true},
        {download + "movie.mkv", false}, {path("/userdisk/data/movie.td"), false},
    };
    for (const auto& c : files) {
        EXPECT_EQ(c.temporary, CommonUtils::sIsDownloadTmpFile(c.path)) << c.path;
    }
}

}  // namespace
