#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem.hpp>
#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"
#include "system/MacFilter.h"

namespace {

const char* const kMacFilter = "/etc/config/macfilter";
const char* const kWhitelist = "/data/etc/talvern/whitelist";

// Entries that cover each outcome; a named "config mac" line and other
// sections are no entries.
const char* const kFilter =
    "config global 'g'\n"
    "\toption mac 'ff:ff:ff:ff:ff:ff'\n"
    "\toption pridisk 'yes'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:55'\n"
    "\toption pridisk 'yes'\n"
    "config mac\n"
    "\toption pridisk 'YES'\n"
    "\toption name 'tv'\n"
    "\toption mac 'AA:BB:CC:DD:EE:FF'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:77'\n"
    "\toption pridisk 'no'\n"
    "\toption lan 'no'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:88'\n"
    "\toption name 'phone'\n"
    "config mac 'named'\n"
    "\toption mac 'aa:aa:aa:aa:aa:aa'\n"
    "\toption pridisk 'yes'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:99'\n"
    "config rule\n"
    "\toption pridisk 'yes'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:5'\n"
    "\toption lan 'yes'\n"
    "config mac\n"
    "\toption pridisk 'yes'\n"
    "config mac\n"
    "\toption mac '00:11:22:33:44:ab0'\n"
    "\toption pridisk 'yes'\n";

struct Question {
    const char* mac;
    const char* attribute;
    int answer;
};

const Question kQuestions[] = {
    {"00:11:22:33:44:55", "pridisk", 1},
    {"00:11:22:33:44:55", "PRIDISK", 1},
    {"00:11:22:33:44:55", "lan", 1},
    {"aa:bb:cc:dd:ee:ff", "pridisk", 1},
    {"00:11:22:33:44:77", "pridisk", 0},
    {"00:11:22:33:44:77", "lan", 0},
    {"00:11:22:33:44:88", "pridisk", 0},
    {"00:11:22:33:44:88", "LAN_access", 1},
    {"ff:ff:ff:ff:ff:ff", "pridisk", 0},
    {"aa:aa:aa:aa:aa:aa", "pridisk", 0},
    {"00:11:22:33:44:99", "pridisk", 0},
    {"00:11:22:33:44:5", "pridisk", 1},
    {"00:11:22:33:44:550", "pridisk", 0},
    {"00:11:22:33:44:ab", "pridisk", 1},
    {"00:11:22:33:44:ab0", "pridisk", 0},
    {"12:34:56:78:9a:bc", "pridisk", 0},
    {"12:34:56:78:9a:bc", "lan", 1},
    {"", "pridisk", 0},
    {"", "lan", 1},
};

class PrivacyAccessTest : public quorvia_test::DeviceRootTest {
protected:
    void expectAnswers(const std::string& label) {
        for (size_t i = 0; i < sizeof(kQuestions) / sizeof(kQuestions[0]); ++i) {
            EXPECT_EQ(kQuestions[i].answer, find_mac_attribute_from_macfilter(
                                                kQuestions[i].mac, kQuestions[i].attribute))
                << label << ": " << kQuestions[i].mac << " " << kQuestions[i].attribute;
        }
    }
    std::string toolOutputPath() const {
        return path("/tmp/macfilter_access_control.tmp." +
                    std::to_string(static_cast<unsigned long>(pthread_self())));
    }
    bool sysapiCalled() const { return boost::filesystem::exists(path("/device/sysapi/calls")); }
};

TEST_F(PrivacyAccessTest, MacFilterOutcomes) {
    writeFile(kMacFilter, kFilter);
    expectAnswers("plain");
}

TEST_F(PrivacyAccessTest, MacFilterOutcomesWithCrlfAndBlanks) {
    std::string crlf(kFilter);
    boost::algorithm::replace_all(crlf, "\n", " \t\r\n");
    boost::algorithm::replace_all(crlf, "\toption", " \t option");
    writeFile(kMacFilter, crlf);
    expectAnswers("crlf");
}

TEST_F(PrivacyAccessTest, MacFilterWithoutFileGivesDefaults) {
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", "pridisk"));
    EXPECT_EQ(1, find_mac_attribute_from_macfilter("00:11:22:33:44:55", "lan"));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter(NULL, "pridisk"));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", NULL));
}

TEST_F(PrivacyAccessTest, FirstEntryHoldingTheAttributeDecides) {
    writeFile(kMacFilter,
              "config mac\n option mac '00:11:22:33:44:55'\n"
              "config mac\n option mac '00:11:22:33:44:55'\n option pridisk 'no'\n"
              "config mac\n option mac '00:11:22:33:44:55'\n option pridisk 'yes'\n");
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", "pridisk"));
}

TEST_F(PrivacyAccessTest, LongLinesStayWhole) {
    const std::string filler(5000, 'x');
    writeFile(kMacFilter,
              "config mac\n option mac '00:11:22:33:44:55'\n"
              " option name '" + filler + "option pridisk 'yes'\n" +
              " option note '" + std::string(1010, 'y') + "config mac\n" +
              " option lan 'no'\n"
              "config mac\n option mac '00:11:22:33:44:66'\n"
              " option pridisk '" + "yes" + filler + "'\n");
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", "pridisk"));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", "lan"));
    EXPECT_EQ(1, find_mac_attribute_from_macfilter("00:11:22:33:44:66", "pridisk"));
}

TEST_F(PrivacyAccessTest, AttributeNameLimit) {
    const std::string longest(talvern::MacFilter::kMaxAttributeLength, 'a');
    const std::string tooLong(talvern::MacFilter::kMaxAttributeLength + 1, 'a');
    writeFile(kMacFilter, "config mac\n option mac '00:11:22:33:44:55'\n option " + longest +
                              " 'yes'\n option " + tooLong + " 'yes'\n");
    EXPECT_EQ(1, find_mac_attribute_from_macfilter("00:11:22:33:44:55", longest.c_str()));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter("00:11:22:33:44:55", tooLong.c_str()));
}

TEST_F(PrivacyAccessTest, PrivacyAccessByMacHash) {
    writeFile(kMacFilter, kFilter);
    struct Case {
        const char* hash;
        bool allowed;
    } cases[] = {
        {"4a7074688ea4a32cd257f7c672d56365", true},   // 00:11:22:33:44:55
        {"4A7074688EA4A32CD257F7C672D56365", true},
        {"6424e2dce251d76b3113dfa5a4b7d2d2", true},   // aa:bb:cc:dd:ee:ff, stored upper
        {"1de10621300d51f5e0b50cffa8008c54", false},  // 00:11:22:33:44:66, no entry
        {"4a7074688ea4a32cd257f7c672d5636", false},
        {"00:11:22:33:44:55", false},
        {"", false},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].allowed, CommonUtils::sIsCanAccessPrivacyData(cases[i].hash))
            << cases[i].hash;
    }
    EXPECT_TRUE(log_.contains("sMacCompare, str1 : 00:11:22:33:44:55 , str2 : "
                              "4a7074688ea4a32cd257f7c672d56365 , md5_hex : "
                              "4a7074688ea4a32cd257f7c672d56365",
                              google::GLOG_INFO));
}

TEST_F(PrivacyAccessTest, CommandRouteReadsToolLine) {
    setToolValue("sysapi", "mac=00:11:22:33:44:55", "name=TV PRIDISK=YES lan=no");
    struct Case {
        const char* mac;
        const char* attribute;
        int answer;
    } cases[] = {
        {"00:11:22:33:44:55", "pridisk", 1},
        {"00:11:22:33:44:55", "lan", 0},
        {"00:11:22:33:44:55", "name", 0},
        {"00:11:22:33:44:55", "PRIDISK", 0},
        {"00:11:22:33:44:66", "pridisk", 0},
        {"00:11:22:33:44:66", "lan", 0},
        {"00-11-22-33-44-66", "lan", 0},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        EXPECT_EQ(cases[i].answer,
                  find_mac_attribute_from_macfilter_command(cases[i].mac, cases[i].attribute))
            << cases[i].mac << " " << cases[i].attribute;
        EXPECT_FALSE(boost::filesystem::exists(toolOutputPath())) << i;
    }
    EXPECT_EQ(0u, readFile("/device/sysapi/calls").find("macfilter\nget\nmac=00:11:22:33:44:55\n\n"));
}

TEST_F(PrivacyAccessTest, CommandRouteLimits) {
    const std::string fixedPart = path("/usr/sbin/sysapi") + " macfilter get 'mac=" + "' > " +
                                  toolOutputPath();
    const size_t longestMac = talvern::MacFilter::kMaxCommandLength - fixedPart.size();
    const std::string fits(longestMac, 'a');
    setToolValue("sysapi", "mac=" + fits, std::string(254, ' ') + "pridisk=yes");
    EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(fits.c_str(), "pridisk"));
    EXPECT_TRUE(sysapiCalled());
    setToolValue("sysapi", "mac=" + fits, std::string(244, ' ') + "pridisk=yes");
    EXPECT_EQ(1, find_mac_attribute_from_macfilter_command(fits.c_str(), "pridisk"));

    boost::filesystem::remove(path("/device/sysapi/calls"));
    const std::string tooLong(longestMac + 1, 'a');
    EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(tooLong.c_str(), "pridisk"));
    EXPECT_FALSE(sysapiCalled());
}

TEST_F(PrivacyAccessTest, CommandRouteNeverWritesThroughPlantedLink) {
    setToolValue("sysapi", "mac=00:11:22:33:44:55", "pridisk=yes");
    writeFile("/victim", "keep");
    boost::filesystem::create_symlink(path("/victim"), toolOutputPath());
    EXPECT_EQ(1, find_mac_attribute_from_macfilter_command("00:11:22:33:44:55", "pridisk"));
    EXPECT_EQ("keep", readFile("/victim"));
}

TEST_F(PrivacyAccessTest, HostileMacNeverReachesShell) {
    const std::string marker = path("/pwned");
    const std::string hostile[] = {
        "00:11'; touch " + marker + "; '",
        "$(touch " + marker + ")",
        "`touch " + marker + "`",
        "00:11:22:33:44:55\ntouch " + marker,
        "00:11:22:33:44:55'",
        "00 11 22 33 44 55",
        "g0:11:22:33:44:55",
        "",
    };
    for (size_t i = 0; i < sizeof(hostile) / sizeof(hostile[0]); ++i) {
        log_.clear();
        EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(hostile[i].c_str(), "lan"))
            << hostile[i];
        EXPECT_EQ(1u, log_.lines().size()) << hostile[i];
    }
    EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(NULL, "lan"));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(
                     std::string(talvern::MacFilter::kMaxCommandLength, 'a').c_str(), "lan"));
    EXPECT_FALSE(sysapiCalled());
    EXPECT_FALSE(boost::filesystem::exists(marker));
}

TEST_F(PrivacyAccessTest, WhitelistAddsAndRemoves) {
    writeFile(kWhitelist, "aa:aa\nbb:bb\nxbb:bbx\ncc:cc");
    CommonUtils::sAuthAccessPrivacyData("aa:aa", true);
    EXPECT_EQ("aa:aa\nbb:bb\nxbb:bbx\ncc:cc\n", readFile(kWhitelist));
    CommonUtils::sAuthAccessPrivacyData("dd:dd", true);
    EXPECT_EQ("aa:aa\nbb:bb\nxbb:bbx\ncc:cc\ndd:dd\n", readFile(kWhitelist));
    CommonUtils::sAuthAccessPrivacyData("bb:bb", false);
    EXPECT_EQ("aa:aa\ncc:cc\ndd:dd\n", readFile(kWhitelist));
    CommonUtils::sAuthAccessPrivacyData("zz:zz", false);
    EXPECT_EQ("aa:aa\ncc:cc\ndd:dd\n", readFile(kWhitelist));
    EXPECT_EQ(1, log_.count("AuthAccessPrivacyData, mac : dd:dd , hasAuth : 1"));
    EXPECT_EQ(1, log_.count("AuthAccessPrivacyData, mac : bb:bb , hasAuth : 0"));
}

TEST_F(PrivacyAccessTest, WhitelistRefusesEntriesOfMoreThanOneLine) {
    writeFile(kWhitelist, "aa:aa\n");
    const std::string refused[] = {"", "ee:ee\nff:ff", "ee:ee\r", std::string("ee\0ff", 5)};
    for (size_t i = 0; i < sizeof(refused) / sizeof(refused[0]); ++i) {
        CommonUtils::sAuthAccessPrivacyData(refused[i], true);
        CommonUtils::sAuthAccessPrivacyData(refused[i], false);
    }
    EXPECT_EQ("aa:aa\n", readFile(kWhitelist));
}

TEST_F(PrivacyAccessTest, MissingOrUnwritableWhitelistIsLeftAlone) {
    CommonUtils::sAuthAccessPrivacyData("aa:aa", true);
    CommonUtils::sAuthAccessPrivacyData("aa:aa", false);
    EXPECT_FALSE(boost::filesystem::exists(path(kWhitelist)));
    EXPECT_FALSE(boost::filesystem::exists(path("/data")));
    EXPECT_TRUE(log_.lines().empty());

    boost::filesystem::create_directories(path(kWhitelist));
    CommonUtils::sAuthAccessPrivacyData("aa:aa", true);
    EXPECT_TRUE(boost::filesystem::is_directory(path(kWhitelist)));
    EXPECT_TRUE(boost::filesystem::is_empty(path(kWhitelist)));
}

// Runs as an unprivileged user where the test runs as root, who could write
// a read-only file anyway.
TEST_F(PrivacyAccessTest, ReadOnlyWhitelistIsLeftAlone) {
    writeFile(kWhitelist, "aa:aa\n");
    chmod(path(kWhitelist).c_str(), 0444);
    chmod(root().c_str(), 0755);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && setuid(65534) != 0) {
            _exit(1);
        }
        CommonUtils::sAuthAccessPrivacyData("aa:aa", false);
        CommonUtils::sAuthAccessPrivacyData("bb:bb", true);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ("aa:aa\n", readFile(kWhitelist));
}

TEST_F(PrivacyAccessTest, StatPrivacyLogsOneWarning) {
    CommonUtils::statPrivacy("open", "1");
    ASSERT_EQ(1u, log_.lines().size());
    EXPECT_EQ(1, log_.count("stat_points_privacy open=1", google::GLOG_WARNING));
}

}  // namespace
