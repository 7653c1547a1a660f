#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"

namespace {

class CommonUtilsPathsTest : public quorvia_test::DeviceRootTest {};

struct TextCase {
    std::string in;
    std::string out;
};

TEST(CommonUtilsNames, RemoveSuffixMarksTrimAndLibconfigKeys) {
    const TextCase suffix[] = {{"a///", "a"}, {"///", "/"}, {"/", "/"},
                               {"", ""},      {"/a/b/", "/a/b"}};
    for (const TextCase& c : suffix) {
        std::string path(c.in);
        EXPECT_EQ(c.out, CommonUtils::sRemoveSuffix(path)) << c.in;
        EXPECT_EQ(c.out, path) << c.in;
    }
    const TextCase marks[] = {{"'a'", "a"},   {"'\"a\"'", "\"a\""}, {"\"'a'\"", "'a'"},
                              {"'a\"", "'a\""}, {"'", "'"},         {"''", ""},
                              {"a'", "a'"},   {"'照片'", "照片"}};
    for (const TextCase& c : marks) {
        EXPECT_EQ(c.out, CommonUtils::sRemoveMarks(c.in)) << c.in;
    }
    const TextCase blanks[] = {{"  a   b  ", "a b "}, {"   ", ""}, {"", ""}, {"a\t\tb", "a\t\tb"}};
    for (const TextCase& c : blanks) {
        std::vector<char> buffer(c.in.begin(), c.in.end());
        buffer.push_back('\0');
        CommonUtils::sTrimAll(&buffer[0]);
        EXPECT_STREQ(c.out.c_str(), &buffer[0]) << "'" << c.in << "'";
    }
    CommonUtils::sTrimAll(NULL);
    const TextCase keys[] = {{"9 lives", "key_9_lives"}, {"*a b", "*a_b"}, {"", ""},
                             {"ok-key_1", "ok-key_1"},   {"a.b/c", "a_b_c"}, {"_x", "key__x"},
                             {"照片", "key_______"},     {"-", "key_-"}};
    for (const TextCase& c : keys) {
        std::string key(c.in);
        CommonUtils::sConvertToValidLibconfigKey(key);
        EXPECT_EQ(c.out, key) << c.in;
    }
}

TEST_F(CommonUtilsPathsTest, InvalidCharsAreTheNineAndLoggedOnce) {
    for (char c : std::string("\\:*?\"<>|;")) {
        EXPECT_TRUE(CommonUtils::sIsContainInvalidChar(std::string("ab") + c + "c")) << c;
    }
    for (const char* valid : {"a/b", "照片 (1).jpg", "", "a'b$c`d&e"}) {
        EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(valid)) << valid;
    }
    EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(std::string("a\0b", 3)));
    log_.clear();
    EXPECT_TRUE(CommonUtils::sIsContainInvalidChar("x:y*z"));
    EXPECT_EQ(1u, log_.lines().size());
    EXPECT_EQ(1, log_.count("x:y*zcontains invalid char which is :", google::GLOG_INFO));
}

TEST_F(CommonUtilsPathsTest, EscapedPathBackslashesTheFiveChars) {
    std::string longest;
    for (int i = 0; i < 255; ++i) {
        longest += "\\(";
    }
    const struct { std::string path, expected; size_t logged; } cases[] = {
        {"/d/a b.txt", "/d/a\\ b.txt", 1}, {" *?()", "\\ \\*\\?\\(\\)", 5},
        {"/d/照片 一.jpg", "/d/照片\\ 一.jpg", 1}, {"/d/plain'$;", "/d/plain'$;", 0},
        {"", "", 0}, {std::string(255, '('), longest, 255},
    };
    for (const auto& c : cases) {
        log_.clear();
        EXPECT_EQ(c.expected, CommonUtils::sGetEscapedPath(c.path)) << c.path;
        EXPECT_EQ(c.logged, log_.lines().size()) << c.path;
    }
    log_.clear();
    CommonUtils::sGetEscapedPath("a b");
    EXPECT_EQ(1, log_.count("a bcontains invalid char which is  ", google::GLOG_ERROR));
}

TEST_F(CommonUtilsPathsTest, FileTimesKindsAndStat) {
    writeFile("/f.txt", "x");
    const std::string file = path("/f.txt");
    EXPECT_EQ(0, CommonUtils::sSetFileModifyTime(file, 1500000000L));
    EXPECT_EQ(1500000000L, CommonUtils::sGetFileModifyTime(file));
    EXPECT_EQ(-1, CommonUtils::sSetFileModifyTime(path("/missing"), 1L));
    EXPECT_EQ(0L, CommonUtils::sGetFileModifyTime(path("/missing")));
    EXPECT_TRUE(CommonUtils::sIsFile(file));
    EXPECT_TRUE(CommonUtils::sIsFile("/dev/null"));
    EXPECT_FALSE(CommonUtils::sIsFile(root()));
    EXPECT_FALSE(CommonUtils::sIsFile(path("/missing")));

    struct stat64 expected;
    ASSERT_EQ(0, stat64(root().c_str(), &expected));
    EXPECT_EQ(expected.st_ino, CommonUtils::sGetFileStat(root()).st_ino);
    log_.clear();
    const struct stat64 missing = CommonUtils::sGetFileStat(path("/missing"));
    EXPECT_EQ(0u, missing.st_dev);
    EXPECT_EQ(0u, missing.st_ino);
    EXPECT_EQ(1, log_.count("the device id of " + path("/missing") + " is :0"));
}

TEST_F(CommonUtilsPathsTest, TimeTextsFormatAndLexicalCast) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("1970-01-01T00:00:00", CommonUtils::sConvertTimeFormat(0));
    EXPECT_EQ("2023-11-14T22:13:20", CommonUtils::sConvertTimeFormat(1700000000L));
    EXPECT_EQ("", CommonUtils::sConvertTimeFormat(LONG_MAX));
    const long before = static_cast<long>(time(NULL));
    const long now = std::stol(CommonUtils::sGetNowTimeStamp());
    EXPECT_GE(now, before);
    EXPECT_LE(now, static_cast<long>(time(NULL)));
    EXPECT_EQ(1, log_.count("get now time stamp: " + std::to_string(now)));

    char* text = NULL;
    EXPECT_EQ(5, CommonUtils::xasprintf(&text, "%s-%d", "abc", 7));
    ASSERT_TRUE(text != NULL);
    EXPECT_STREQ("abc-7", text);
    free(text);
    EXPECT_EQ(42u, CommonUtils::lexicalCast<uint64_t>(std::string("42"), uint64_t(9)));
    EXPECT_EQ(9u, CommonUtils::lexicalCast<uint64_t>(std::string("4x"), uint64_t(9)));
}

TEST_F(CommonUtilsPathsTest, FileLockIsExclusiveAcrossProcessesAndUnlockCloses) {
    writeFile("/lock", "");
    const std::string name = path("/lock");
    const int fd = open(name.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock;
    EXPECT_EQ(0, CommonUtils::slockFileLock(lock, F_WRLCK, fd, name));
    const pid_t child = fork();
    if (child == 0) {
        const int other = open(name.c_str(), O_RDWR);
        struct flock childLock;
        const bool refused = CommonUtils::slockFileLock(childLock, F_WRLCK, other, name) == -1;
        _exit(refused && fcntl(other, F_GETFD) == -1 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(0, CommonUtils::sUnlockFileLock(lock, fd, name));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));

    log_.clear();
    EXPECT_EQ(-1, CommonUtils::slockFileLock(lock, F_WRLCK, -1, "nowhere"));
    EXPECT_EQ(-1, CommonUtils::sUnlockFileLock(lock, -1, "nowhere"));
    EXPECT_EQ(1, log_.count("failed to lock file nowhere", google::GLOG_ERROR));
    EXPECT_EQ(1, log_.count("failed to unlock file nowhere", google::GLOG_ERROR));
}

TEST_F(CommonUtilsPathsTest, DuplicateFileNameCounts) {
    const std::string stem(251, 'n');
    for (const char* name : {"a.txt", "b.txt", "b(1).txt", "b(2).txt", "c(7).txt", "f().txt",
                             "e(x).txt", "e(x)(1).txt", "照片.jpg", "noext", ".hidden"}) {
        writeFile(std::string("/d/") + name, "");
    }
    writeFile("/d/" + stem + ".txt", "");
    const TextCase cases[] = {
        {"missing.txt", "missing.txt"}, {"a.txt", "a(1).txt"},     {"b.txt", "b(3).txt"},
        {"c(7).txt", "c(1).txt"},       {"e(x).txt", "e(x)(1).txt"}, {"照片.jpg", "照片(1).jpg"},
        {"noext", "noext(1)"},          {".hidden", "(1).hidden"}, {"f().txt", "f()(1).txt"},
        {stem + ".txt", stem + "(1).txt"},
    };
    const std::string d = path("/d/");
    for (const TextCase& c : cases) {
        EXPECT_EQ(d + c.out, CommonUtils::sGetDuplicateFileName(d + c.in)) << c.in;
    }
    ASSERT_EQ(0, chdir(d.c_str()));
    EXPECT_EQ("a(1).txt", CommonUtils::sGetDuplicateFileName("a.txt"));
}

TEST_F(CommonUtilsPathsTest, DuplicatePathUsesWordSuffix) {
    for (const char* name : {"a.txt", "b.txt", "b-副本.txt", "b-副本2.txt", "b-副本4.txt",
                             "c-副本x.txt", "照片.jpg"}) {
        writeFile(std::string("/d/") + name, "");
    }
    const std::string d = path("/d/");
    const TextCase cases[] = {
        {"missing.txt", "missing.txt"}, {"a.txt", "a-副本.txt"},        {"b.txt", "b-副本3.txt"},
        {"b-副本.txt", "b-副本3.txt"},  {"b-副本4.txt", "b-副本3.txt"}, {"照片.jpg", "照片-副本.jpg"},
        {"c-副本x.txt", "c-副本x-副本.txt"},
    };
    for (const TextCase& c : cases) {
        EXPECT_EQ(d + c.out, CommonUtils::sGetDuplicatePath(d + c.in)) << c.in;
    }
    EXPECT_EQ("", CommonUtils::sGetDuplicatePath(""));
    EXPECT_EQ(3, log_.count("CommonUtils::sGetDuplicatePath return newPath: " + d +
                            "b-副本3.txt"));
}

TEST(CommonUtilsNames, AbsolutePathTable) {
    const struct { const char* path; bool ok; const char* expected; } cases[] = {
        {"/a/../..", false, "untouched"}, {"a/./b/", true, "a/b/"},   {"/a//b", true, "/a/b"},
        {"/a/...x/b", false, "untouched"}, {"/a/..x", true, "/a/..x"}, {"/a/b/../c", true, "/a/c"},
        {"..", false, "untouched"},        {"", false, "untouched"},   {"/", true, "/"},
        {"/a/..", true, "/"},              {"/a/../", true, "/"},      {"a/..", true, ""},
        {"./", true, ""},                  {"/照片/./一", true, "/照片/一"},
    };
    for (const auto& c : cases) {
        std::string result("untouched");
        EXPECT_EQ(c.ok, CommonUtils::sGetAbsolutePath(c.path, result)) << c.path;
        EXPECT_EQ(c.expected, result) << c.path;
    }
}

TEST_F(CommonUtilsPathsTest, UmountRefusesRootAndPrimaryDiskMounts) {
    writeFile("/dev/sda1", "");
    const std::string sda1 = path("/dev/sda1");
    writeFile("/tmp/userdisk_info", "PRIMARY=" + sda1 + "\n");
    writeFile("/proc/mounts", sda1 + " /userdisk ext4 rw 0 0\n");
    for (const std::string& refused : {std::string(), std::string("/"), std::string("///"), sda1,
                                       sda1 + "/", std::string("/userdisk"),
                                       std::string("/userdisk//")}) {
        EXPECT_FALSE(CommonUtils::sIsCanUmountDevice(refused)) << refused;
    }
    EXPECT_TRUE(CommonUtils::sIsCanUmountDevice("/extdisks/sdb1"));
    EXPECT_TRUE(CommonUtils::sIsCanUmountDevice("/userdisk/data"));
}

// A df of the test's own on PATH, so the table is known.
class PartitionSpaceTest : public CommonUtilsPathsTest {
protected:
    virtual void SetUp() {
        CommonUtilsPathsTest::SetUp();
        writeFile("/bin/df",
                  "#!/bin/sh\n"
                  "echo 'Filesystem 1K-blocks Used Available Use% Mounted on'\n"
                  "echo '/dev/sda1 1000 400 600 40% /mnt/a1'\n"
                  "echo '/dev/sdb1 extra 2000 500 1500 25% /mnt/b'\n"
                  "echo '/dev/sdc1   3000   1000   2000  33%   /mnt/a'\n"
                  "echo '/dev/sdd1 4000 0 4000 0% /mnt/a'\n"
                  "echo '/dev/sde1 bad 0 bad 0% /mnt/bad'\n");
        chmod(path("/bin/df").c_str(), 0755);
        setenv("PATH", (path("/bin") + ":" + getenv("PATH")).c_str(), 1);
    }
    void expectSpace(const std::string& mountPoint, unsigned long long total,
                     unsigned long long available) {
        unsigned long long gotTotal = 7;
        unsigned long long gotAvailable = 7;
        CommonUtils::sGetPartitionSpaceInfo(mountPoint, gotTotal, gotAvailable);
        EXPECT_EQ(total, gotTotal) << mountPoint;
        EXPECT_EQ(available, gotAvailable) << mountPoint;
    }
};

TEST_F(PartitionSpaceTest, FirstSixFieldLineOfTheMountPointCounts) {
    expectSpace("/mnt/a", 3000 * 1024ULL, 2000 * 1024ULL);
    expectSpace("/mnt/a1", 1000 * 1024ULL, 600 * 1024ULL);
    for (const char* none : {"/mnt/b", "/mnt/bad", "/mnt/none"}) {
        expectSpace(none, 0, 0);
    }
}

TEST_F(PartitionSpaceTest, MountPointThatIsNotPlainNeverReachesShell) {
    const std::string marker = path("/pwned");
    const std::string hostile[] = {
        "/mnt/a; touch " + marker, "/mnt/a$(touch " + marker + ")", "/mnt/a`touch " + marker + "`",
        "/mnt/a\ntouch " + marker,  "/mnt/a' '", "mnt/a", "-f/etc/passwd", "",
    };
    for (const std::string& mountPoint : hostile) {
        log_.clear();
        expectSpace(mountPoint, 0, 0);
        EXPECT_FALSE(log_.contains("excuete cmd")) << mountPoint;
    }
    EXPECT_NE(0, access(marker.c_str(), F_OK));
}

}  // namespace
