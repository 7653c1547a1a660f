#include <gtest/gtest.h>
#include <stdlib.h>

#include <set>

#include "system/CommonUtils.h"
#include "system/DeviceRoot.h"

TEST(CommonUtilsPrimitives, PrefixSuffixCaseAndPathStyle) {
    EXPECT_TRUE(CommonUtils::startWith("Primary=x", "PRIMARY="));
    EXPECT_FALSE(CommonUtils::startWith("ab", "abc"));
    EXPECT_TRUE(CommonUtils::endWith(".JpG", ".jpg"));
    EXPECT_FALSE(CommonUtils::endWith("a.jpeg", ".jpg"));
    EXPECT_EQ("照片.jpg", CommonUtils::sToLower("照片.JPG"));
    EXPECT_EQ(0u, CommonUtils::sGetFileSize("/nonexistent/quorvia/file"));
    const char* cases[][2] = {{"/", "/"}, {"a//", "a/"}, {"/a/b", "/a/b"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[1], CommonUtils::sUnifyPathStyle(c[0])) << c[0];
    }
}

TEST(CommonUtilsPrimitives, SplitsKeepOrCompressEmptyFields) {
    typedef std::vector<std::string> Fields;
    EXPECT_EQ(Fields({"a", "", "b"}), CommonUtils::splitString("a,,b", ","));
    EXPECT_EQ(Fields({"a", "b", "c"}), CommonUtils::splitStringTokenCompress("a, ,b c", ", "));
    EXPECT_EQ(Fields({"k", "v", "w"}), CommonUtils::splitStringTokenCompress("k#v###w", "###"));
    std::set<std::string> distinct = {"stale"};
    CommonUtils::splitString(distinct, "b,a,,b", ",");
    EXPECT_EQ((std::set<std::string>{"a", "b"}), distinct);
}

TEST(DeviceRootMapping, UnsetOrEmptyRootLeavesPathsAloneAndARootIsPrefixedOnce) {
    unsetenv("QUORVIA_ROOT");
    EXPECT_EQ("/userdisk/data", talvern::DeviceRoot::sPath("/userdisk/data"));
    setenv("QUORVIA_ROOT", "", 1);
    EXPECT_EQ("/proc/mounts", talvern::DeviceRoot::sPath("/proc/mounts"));
    setenv("QUORVIA_ROOT", "/tmp/r//", 1);
    EXPECT_EQ("/tmp/r/sbin/uci", talvern::DeviceRoot::sPath("/sbin/uci"));
}
