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

TEST(CommonUtilsNames, RemoveSuffixKeepsFirstCharacter) {
    struct Case {
        const char* path;
        const char* expected;
    } cases[] = {{"a///", "a"}, {"///", "/"}, {"/", "/"}, {"", ""}, {"/a/b/", "/a/b"}, {"a", "a"}};
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        std::string path(cases[i].path);
        EXPECT_EQ(cases[i].expected, CommonUtils::sRemoveSuffix(path)) << cases[i].path;
        EXPECT_EQ(cases[i].expected, path) << cases[i].path;
    }
}

TEST(CommonUtilsNames, RemoveMarksTakesOneLayer) {
    struct Case {
        const char* text;
        const char* expected;
    } cases[] = {
        {"'a'", "a"},     {"\"a\"", "a"},       {"'\"a\"'", "\"a\""}, {"\"'a'\"", "'a'"},
        {"'a\"", "'a\""}, {"'", "'"},           {"''", ""},           {"a'", "a'"},
        {"", ""},         {"'照片'", "照片"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].expected, CommonUtils::sRemoveMarks(cases[i].text)) << cases[i].text;
    }
}

TEST(CommonUtilsNames, TrimAllFoldsBlanks) {
    struct Case {
        const char* text;
        const char* expected;
    } cases[] = {
        {"  a   b  ", "a b "}, {"a b", "a b"}, {"   ", ""}, {"", ""}, {"a\t\tb", "a\t\tb"},
        {"x  ", "x "},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        std::string text(cases[i].text);
        std::vector<char> buffer(text.begin(), text.end());
        buffer.push_back('\0');
        CommonUtils::sTrimAll(&buffer[0]);
        EXPECT_STREQ(cases[i].expected, &buffer[0]) << "'" << cases[i].text << "'";
    }
    CommonUtils::sTrimAll(NULL);
}

TEST_F(CommonUtilsPathsTest, InvalidCharsAreTheNineAndLoggedOnce) {
    const std::string invalid = "\\:*?\"<>|;";
    for (size_t i = 0; i < invalid.size(); ++i) {
        EXPECT_TRUE(CommonUtils::sIsContainInvalidChar(std::string("ab") + invalid[i] + "c"))
            << invalid[i];
    }
    const char* valid[] = {"a/b", "照片 (1).jpg", "", "a'b$c`d&e", "名"};
    for (size_t i = 0; i < sizeof(valid) / sizeof(valid[0]); ++i) {
        EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(valid[i])) << valid[i];
    }
    EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(std::string("a\0b", 3)));
    log_.clear();
    EXPECT_TRUE(CommonUtils::sIsContainInvalidChar("x:y*z"));
    EXPECT_EQ(1u, log_.lines().size());
    EXPECT_EQ(1, log_.count("x:y*zcontains invalid char which is :", google::GLOG_INFO));
}

TEST_F(CommonUtilsPathsTest, EscapedPathBackslashesTheFiveChars) {
    struct Case {
        std::string path;
        std::string expected;
        size_t logged;
    } cases[] = {
        {"/d/a b.txt", "/d/a\\ b.txt", 1},
        {" *?()", "\\ \\*\\?\\(\\)", 5},
        {"/d/照片 一.jpg", "/d/照片\\ 一.jpg", 1},
        {"/d/plain'$;", "/d/plain'$;", 0},
        {"", "", 0},
        {std::string(255, '('), "", 255},
    };
    cases[5].expected.clear();
    for (int i = 0; i < 255; ++i) {
        cases[5].expected += "\\(";
    }
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        log_.clear();
        EXPECT_EQ(cases[i].expected, CommonUtils::sGetEscapedPath(cases[i].path)) << i;
        EXPECT_EQ(cases[i].logged, log_.lines().size()) << i;
    }
    log_.clear();
    CommonUtils::sGetEscapedPath("a b");
    EXPECT_EQ(1, log_.count("a bcontains invalid char which is  ", google::GLOG_ERROR));
}

TEST(CommonUtilsNames, LibconfigKeyConversion) {
    struct Case {
        const char* key;
        const char* expected;
    } cases[] = {
        {"9 lives", "key_9_lives"}, {"*a b", "*a_b"},   {"", ""},
        {"ok-key_1", "ok-key_1"},   {"a.b/c", "a_b_c"}, {"_x", "key__x"},
        {"照片", "key_______"},     {"-", "key_-"},     {"Z", "Z"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        std::string key(cases[i].key);
        CommonUtils::sConvertToValidLibconfigKey(key);
        EXPECT_EQ(cases[i].expected, key) << cases[i].key;
    }
}

TEST_F(CommonUtilsPathsTest, FileTimesAndKinds) {
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
}

TEST_F(CommonUtilsPathsTest, FileStatIsZeroForUnreachablePath) {
    struct stat64 expected;
    ASSERT_EQ(0, stat64(root().c_str(), &expected));
    EXPECT_EQ(expected.st_dev, CommonUtils::sGetFileStat(root()).st_dev);
    EXPECT_EQ(expected.st_ino, CommonUtils::sGetFileStat(root()).st_ino);

    log_.clear();
    const struct stat64 missing = CommonUtils::sGetFileStat(path("/missing"));
    EXPECT_EQ(0u, missing.st_dev);
    EXPECT_EQ(0u, missing.st_ino);
    EXPECT_EQ(0, missing.st_size);
    EXPECT_EQ(1, log_.count("the device id of " + path("/missing") + " is :0"));
}

TEST_F(CommonUtilsPathsTest, TimeTexts) {
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
}

TEST(CommonUtilsNames, XasprintfAndLexicalCast) {
    char* text = NULL;
    EXPECT_EQ(5, CommonUtils::xasprintf(&text, "%s-%d", "abc", 7));
    ASSERT_TRUE(text != NULL);
    EXPECT_STREQ("abc-7", text);
    free(text);

    EXPECT_EQ(42u, CommonUtils::lexicalCast<uint64_t>(std::string("42"), uint64_t(9)));
    EXPECT_EQ(9u, CommonUtils::lexicalCast<uint64_t>(std::string("4x"), uint64_t(9)));
    EXPECT_EQ(9u, CommonUtils::lexicalCast<uint64_t>(std::string(""), uint64_t(9)));
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
        _exit(CommonUtils::slockFileLock(childLock, F_WRLCK, other, name) == -1 &&
                      fcntl(other, F_GETFD) == -1
                  ? 0
                  : 1);
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
    const std::string d = path("/d");
    writeFile("/d/a.txt", "");
    writeFile("/d/b.txt", "");
    writeFile("/d/b(1).txt", "");
    writeFile("/d/b(2).txt", "");
    writeFile("/d/c(7).txt", "");
    writeFile("/d/e(x).txt", "");
    writeFile("/d/e(x)(1).txt", "");
    writeFile("/d/f().txt", "");
    writeFile("/d/照片.jpg", "");
    writeFile("/d/noext", "");
    writeFile("/d/.hidden", "");
    struct Case {
        std::string path;
        std::string expected;
    } cases[] = {
        {d + "/missing.txt", d + "/missing.txt"},
        {d + "/a.txt", d + "/a(1).txt"},
        {d + "/b.txt", d + "/b(3).txt"},
        {d + "/c(7).txt", d + "/c(1).txt"},
        {d + "/e(x).txt", d + "/e(x)(1).txt"},
        {d + "/f().txt", d + "/f()(1).txt"},
        {d + "/照片.jpg", d + "/照片(1).jpg"},
        {d + "/noext", d + "/noext(1)"},
        {d + "/.hidden", d + "/(1).hidden"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].expected, CommonUtils::sGetDuplicateFileName(cases[i].path))
            << cases[i].path;
    }

    ASSERT_EQ(0, chdir(d.c_str()));
    EXPECT_EQ("a(1).txt", CommonUtils::sGetDuplicateFileName("a.txt"));
}

TEST_F(CommonUtilsPathsTest, DuplicateFileNameOfLongName) {
    const std::string stem(251, 'n');
    writeFile("/d/" + stem + ".txt", "");
    EXPECT_EQ(path("/d/" + stem + "(1).txt"),
              CommonUtils::sGetDuplicateFileName(path("/d/" + stem + ".txt")));
}

TEST_F(CommonUtilsPathsTest, DuplicatePathUsesWordSuffix) {
    const std::string d = path("/d");
    writeFile("/d/a.txt", "");
    writeFile("/d/b.txt", "");
    writeFile("/d/b-副本.txt", "");
    writeFile("/d/b-副本2.txt", "");
    writeFile("/d/b-副本4.txt", "");
    writeFile("/d/c-副本x.txt", "");
    writeFile("/d/照片.jpg", "");
    struct Case {
        std::string path;
        std::string expected;
    } cases[] = {
        {"", ""},
        {d + "/missing.txt", d + "/missing.txt"},
        {d + "/a.txt", d + "/a-副本.txt"},
        {d + "/b.txt", d + "/b-副本3.txt"},
        {d + "/b-副本.txt", d + "/b-副本3.txt"},
        {d + "/b-副本4.txt", d + "/b-副本3.txt"},
        {d + "/c-副本x.txt", d + "/c-副本x-副本.txt"},
        {d + "/照片.jpg", d + "/照片-副本.jpg"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].expected, CommonUtils::sGetDuplicatePath(cases[i].path))
            << cases[i].path;
    }
    EXPECT_EQ(3, log_.count("CommonUtils::sGetDuplicatePath return newPath: " + d +
                            "/b-副本3.txt"));
}

TEST(CommonUtilsNames, AbsolutePathTable) {
    struct Case {
        const char* path;
        bool ok;
        const char* expected;
    } cases[] = {
        {"/a/../..", false, "untouched"},
        {"a/./b/", true, "a/b/"},
        {"/a//b", true, "/a/b"},
        {"/a/...x/b", false, "untouched"},
        {"/a/..x", true, "/a/..x"},
        {"/a/b/../c", true, "/a/c"},
        {"..", false, "untouched"},
        {"", false, "untouched"},
        {"/", true, "/"},
        {"/a/..", true, "/"},
        {"/a/../", true, "/"},
        {"a/..", true, ""},
        {"./", true, ""},
        {"a/../", true, ""},
        {"/照片/./一", true, "/照片/一"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        std::string result("untouched");
        EXPECT_EQ(cases[i].ok, CommonUtils::sGetAbsolutePath(cases[i].path, result))
            << cases[i].path;
        EXPECT_EQ(cases[i].expected, result) << cases[i].path;
    }
}

TEST_F(CommonUtilsPathsTest, UmountRefusesRootAndPrimaryDiskMounts) {
    writeFile("/dev/sda1", "");
    const std::string sda1 = path("/dev/sda1");
    writeFile("/tmp/userdisk_info", "PRIMARY=" + sda1 + "\n");
    writeFile("/proc/mounts", sda1 + " /userdisk ext4 rw 0 0\n");
    struct Case {
        std::string path;
        bool canUmount;
    } cases[] = {
        {"", false},        {"/", false},           {"///", false},
        {sda1, false},      {sda1 + "/", false},    {"/userdisk", false},
        {"/userdisk//", false}, {"/extdisks/sdb1", true}, {"/userdisk/data", true},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].canUmount, CommonUtils::sIsCanUmountDevice(cases[i].path))
            << cases[i].path;
    }
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
        const std::string searchPath = path("/bin") + ":" + getenv("PATH");
        setenv("PATH", searchPath.c_str(), 1);
    }
};

TEST_F(PartitionSpaceTest, FirstSixFieldLineOfTheMountPointCounts) {
    struct Case {
        const char* mountPoint;
        unsigned long long total;
        unsigned long long available;
    } cases[] = {
        {"/mnt/a", 3000 * 1024ULL, 2000 * 1024ULL},
        {"/mnt/a1", 1000 * 1024ULL, 600 * 1024ULL},
        {"/mnt/b", 0, 0},
        {"/mnt/bad", 0, 0},
        {"/mnt/none", 0, 0},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        unsigned long long total = 7;
        unsigned long long available = 7;
        CommonUtils::sGetPartitionSpaceInfo(cases[i].mountPoint, total, available);
        EXPECT_EQ(cases[i].total, total) << cases[i].mountPoint;
        EXPECT_EQ(cases[i].available, available) << cases[i].mountPoint;
    }
}

TEST_F(PartitionSpaceTest, MountPointThatIsNotPlainNeverReachesShell) {
    const std::string marker = path("/pwned");
    const std::string hostile[] = {
        "/mnt/a; touch " + marker, "/mnt/a$(touch " + marker + ")", "/mnt/a`touch " + marker + "`",
        "/mnt/a\ntouch " + marker,  "/mnt/a' '", "mnt/a", "-f/etc/passwd", "",
    };
    for (size_t i = 0; i < sizeof(hostile) / sizeof(hostile[0]); ++i) {
        unsigned long long total = 7;
        unsigned long long available = 7;
        log_.clear();
        CommonUtils::sGetPartitionSpaceInfo(hostile[i], total, available);
        EXPECT_EQ(0u, total) << hostile[i];
        EXPECT_EQ(0u, available) << hostile[i];
        EXPECT_FALSE(log_.contains("excuete cmd")) << hostile[i];
    }
    EXPECT_NE(0, access(marker.c_str(), F_OK));
}

}  // namespace
