#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"
#include "system/DeviceRoot.h"

namespace {

class CommonUtilsPathsTest : public quorvia_test::DeviceRootTest {};

struct TextCase {
    std::string in;
    std::string out;
};

TEST(CommonUtilsNames, TrimmedUnquotedEscapedSplitAndMadeValidKeys) {
    std::string slashes("///");
    EXPECT_EQ("/", CommonUtils::sRemoveSuffix(slashes));
    EXPECT_EQ("/", slashes);
    EXPECT_EQ("\"a\"", CommonUtils::sRemoveMarks("'\"a\"'"));
    EXPECT_EQ("'", CommonUtils::sRemoveMarks("'"));
    char blanks[] = "  a   b  ";
    CommonUtils::sTrimAll(blanks);
    EXPECT_STREQ("a b ", blanks);
    CommonUtils::sTrimAll(NULL);
    for (const TextCase& c : {TextCase{"9 lives", "key_9_lives"}, TextCase{"*a b", "*a_b"},
                              TextCase{"照片", "key_______"}}) {
        std::string key(c.in);
        CommonUtils::sConvertToValidLibconfigKey(key);
        EXPECT_EQ(c.out, key) << c.in;
    }
    EXPECT_FALSE(CommonUtils::sIsContainInvalidChar("a/照片 (1)'$`&.jpg"));
    EXPECT_TRUE(CommonUtils::sIsContainInvalidChar("x:y*z"));
    EXPECT_EQ("/d/照片\\ 一'$\\*\\?\\(\\)", CommonUtils::sGetEscapedPath("/d/照片 一'$*?()"));
    // The vector forms are exercised by every parser of the device's tools.
    std::set<std::string> distinct = {"stale"};
    CommonUtils::splitString(distinct, "b,a,,b", ",");
    EXPECT_EQ((std::set<std::string>{"a", "b"}), distinct);
}

TEST(CommonUtilsNames, AbsolutePathPathStyleAndTimeText) {
    const struct { const char* path; bool ok; const char* expected; } cases[] = {
        {"/a/../..", false, "untouched"}, {"a/./b/", true, "a/b/"},   {"/a//b", true, "/a/b"},
        {"/a/...x/b", false, "untouched"}, {"/a/..x", true, "/a/..x"}, {"", false, "untouched"},
        {"/a/../", true, "/"},             {"a/..", true, ""},
    };
    for (const auto& c : cases) {
        std::string result("untouched");
        EXPECT_EQ(c.ok, CommonUtils::sGetAbsolutePath(c.path, result)) << c.path;
        EXPECT_EQ(c.expected, result) << c.path;
    }
    EXPECT_EQ("/", CommonUtils::sUnifyPathStyle("/"));
    EXPECT_EQ("a/", CommonUtils::sUnifyPathStyle("a//"));
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("2023-11-14T22:13:20", CommonUtils::sConvertTimeFormat(1700000000L));
    // Past the years of struct tm where long has 64 bits; 2038 where it has 32 (armhf).
    EXPECT_EQ(sizeof(long) == 8 ? "" : "2038-01-19T03:14:07",
              CommonUtils::sConvertTimeFormat(LONG_MAX));
}

TEST_F(CommonUtilsPathsTest, DuplicateNamesCountOrUseTheWordSuffix) {
    for (const char* name : {"a.txt", "b(7).txt", "b(1).txt", "b(2).txt", "e(x).txt", "f(90).txt",
                             "w.txt", "w-副本.txt", "w-副本2.txt", "w-副本4.txt", "c-副本x.txt"}) {
        writeFile(std::string("/d/") + name, "");
    }
    const auto counted = CommonUtils::sGetDuplicateFileName;
    const auto worded = CommonUtils::sGetDuplicatePath;
    const struct { std::string (*duplicate)(const std::string&); const char* in, *out; } cases[] = {
        {counted, "missing.txt", "missing.txt"}, {counted, "a.txt", "a(1).txt"},
        {counted, "b(7).txt", "b(3).txt"},       {counted, "e(x).txt", "e(x)(1).txt"},
        {counted, "f(90).txt", "f(1).txt"},      {worded, "a.txt", "a-副本.txt"},
        {worded, "w-副本4.txt", "w-副本3.txt"},  {worded, "c-副本x.txt", "c-副本x-副本.txt"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(path("/d/") + c.out, c.duplicate(path("/d/") + c.in)) << c.in;
    }
    EXPECT_EQ("", CommonUtils::sGetDuplicatePath(""));
}

TEST_F(CommonUtilsPathsTest, UmountRefusesRootAndPrimaryDiskMounts) {
    writeFile("/dev/sda1", "");
    const std::string sda1 = path("/dev/sda1");
    writeFile("/tmp/userdisk_info", "PRIMARY=" + sda1 + "\n");
    writeFile("/proc/mounts", sda1 + " /userdisk ext4 rw 0 0\n");
    // However it is spelled (regression for "/." and the like).
    for (const std::string& refused :
         {std::string(), std::string("///"), sda1 + "/", std::string("/userdisk//"),
          std::string("/."), std::string("/userdisk/.."), std::string("/userdisk/./")}) {
        EXPECT_FALSE(CommonUtils::sIsCanUmountDevice(refused)) << refused;
    }
    EXPECT_TRUE(CommonUtils::sIsCanUmountDevice("/userdisk/data"));
    EXPECT_TRUE(CommonUtils::sIsCanUmountDevice("/mnt/...x"));
}

// Where time_t has 32 bits, stat64() failed for a file any of whose times
// was past 2038: its modification time read 0, its record zeros (regression).
TEST_F(CommonUtilsPathsTest, AFileAccessedPast2038HasItsTimesAndRecordRegression) {
    const std::string file = path("/f");
    writeFile("/f", "x");
    ASSERT_EQ(0, CommonUtils::sSetFileModifyTime(file, 1500000000));
    ASSERT_EQ(0, shell("touch -a -d 2040-01-01 " + quorvia_test::quoted(file)));
    EXPECT_EQ(1500000000, CommonUtils::sGetFileModifyTime(file));
    const struct stat64 info = CommonUtils::sGetFileStat(file);
    EXPECT_NE(0u, info.st_dev);
    EXPECT_EQ(1500000000, info.st_mtime);
}

// A df of the test's own on PATH, so the table is known.
TEST_F(CommonUtilsPathsTest, PartitionSpaceTakesTheFirstSixFieldLineAndNeverLetsTheShellIn) {
    writeFile("/bin/df", "#!/bin/sh\n"
                         "echo 'Filesystem 1K-blocks Used Available Use% Mounted on'\n"
                         "echo '/dev/sda1 1000 400 600 40% /mnt/a1'\n"
                         "echo '/dev/sdb1 extra 2000 500 1500 25% /mnt/b'\n"
                         "echo '/dev/sdc1   3000   1000   2000  33%   /mnt/a'\n"
                         "echo '/dev/sdd1 4000 0 4000 0% /mnt/a'\n");
    chmod(path("/bin/df").c_str(), 0755);
    setenv("PATH", (path("/bin") + ":" + getenv("PATH")).c_str(), 1);
    const std::string marker = path("/pwned");
    const struct { std::string mountPoint; unsigned long long total, available; } cases[] = {
        {"/mnt/a", 3000 * 1024ULL, 2000 * 1024ULL}, {"/mnt/b", 0, 0},
        {"/mnt/a; touch " + marker, 0, 0},          {"/mnt/a$(touch " + marker + ")", 0, 0},
    };
    for (const auto& c : cases) {
        unsigned long long total = 7;
        unsigned long long available = 7;
        CommonUtils::sGetPartitionSpaceInfo(c.mountPoint, total, available);
        EXPECT_EQ(c.total, total) << c.mountPoint;
        EXPECT_EQ(c.available, available) << c.mountPoint;
    }
    EXPECT_NE(0, access(marker.c_str(), F_OK));
}

TEST(DeviceRootMapping, UnsetOrEmptyRootLeavesPathsAloneAndARootIsPrefixedOnce) {
    unsetenv("QUORVIA_ROOT");
    EXPECT_EQ("/userdisk/data", talvern::DeviceRoot::sPath("/userdisk/data"));
    setenv("QUORVIA_ROOT", "", 1);
    EXPECT_EQ("/proc/mounts", talvern::DeviceRoot::sPath("/proc/mounts"));
    setenv("QUORVIA_ROOT", "/tmp/r//", 1);
    EXPECT_EQ("/tmp/r/sbin/uci", talvern::DeviceRoot::sPath("/sbin/uci"));
}

}  // namespace
