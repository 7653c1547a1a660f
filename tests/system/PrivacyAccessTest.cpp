#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem.hpp>
#include <string>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"
#include "system/MacFilter.h"

namespace {

namespace fs = boost::filesystem;

const char* const kMacFilter = "/etc/config/macfilter";
const char* const kWhitelist = "/data/etc/talvern/whitelist";
const char* const kMac = "00:11:22:33:44:55";

// Entries that cover each outcome; a named "config mac" line and other
// sections are no entries.
const char* const kFilter =
    "config global 'g'\n\toption mac 'ff:ff:ff:ff:ff:ff'\n\toption pridisk 'yes'\n"
    "config mac\n\toption mac '00:11:22:33:44:55'\n\toption pridisk 'yes'\n"
    "config mac\n\toption pridisk 'YES'\n\toption name 'tv'\n\toption mac 'AA:BB:CC:DD:EE:FF'\n"
    "config mac\n\toption mac '00:11:22:33:44:77'\n\toption pridisk 'no'\n\toption lan 'no'\n"
    "config mac\n\toption mac '00:11:22:33:44:88'\n\toption name 'phone'\n"
    "config mac 'named'\n\toption mac 'aa:aa:aa:aa:aa:aa'\n\toption pridisk 'yes'\n"
    "config mac\n\toption mac '00:11:22:33:44:99'\n"
    "config rule\n\toption pridisk 'yes'\n"
    "config mac\n\toption mac '00:11:22:33:44:ab0'\n\toption pridisk 'yes'\n";

class PrivacyAccessTest : public quorvia_test::DeviceRootTest {
protected:
    std::string toolOutputPath() const {
        return path("/tmp/macfilter_access_control.tmp." +
                    std::to_string(static_cast<unsigned long>(pthread_self())));
    }
    static int fromFile(const std::string& mac, const std::string& attribute) {
        return find_mac_attribute_from_macfilter(mac.c_str(), attribute.c_str());
    }
    static int fromCommand(const std::string& mac, const char* attribute) {
        return find_mac_attribute_from_macfilter_command(mac.c_str(), attribute);
    }
};

// Asked by MAC, plain and with CRLF line ends and blanks, or by the MAC's hash.
TEST_F(PrivacyAccessTest, MacFilterOutcomesByMacAndByHash) {
    EXPECT_EQ(0, fromFile(kMac, "pridisk"));  // no file: the defaults
    EXPECT_EQ(1, fromFile(kMac, "lan"));
    EXPECT_EQ(0, find_mac_attribute_from_macfilter(NULL, "pridisk"));
    const struct { const char* mac; const char* attribute; int answer; } questions[] = {
        {kMac, "PRIDISK", 1}, {kMac, "lan", 1}, {"aa:bb:cc:dd:ee:ff", "pridisk", 1},
        {"00:11:22:33:44:77", "pridisk", 0}, {"00:11:22:33:44:88", "pridisk", 0},
        {"ff:ff:ff:ff:ff:ff", "pridisk", 0}, {"aa:aa:aa:aa:aa:aa", "pridisk", 0},
        {"00:11:22:33:44:99", "pridisk", 0}, {"00:11:22:33:44:550", "pridisk", 0},
        {"00:11:22:33:44:ab", "pridisk", 1}, {"00:11:22:33:44:ab0", "pridisk", 0},
        {"", "pridisk", 0},
    };
    std::string crlf(kFilter);
    boost::algorithm::replace_all(crlf, "\n", " \t\r\n");
    boost::algorithm::replace_all(crlf, "\toption", " \t option");
    for (const std::string& content : {std::string(kFilter), crlf}) {
        writeFile(kMacFilter, content);
        for (const auto& q : questions) {
            EXPECT_EQ(q.answer, fromFile(q.mac, q.attribute)) << q.mac << " " << q.attribute;
        }
    }
    const struct { const char* hash; bool allowed; } hashes[] = {
        {"4A7074688EA4A32CD257F7C672D56365", true},   // 00:11:22:33:44:55
        {"6424e2dce251d76b3113dfa5a4b7d2d2", true},   // aa:bb:cc:dd:ee:ff, stored upper
        {"1de10621300d51f5e0b50cffa8008c54", false},  // 00:11:22:33:44:66, no entry
        {"4a7074688ea4a32cd257f7c672d5636", false}, {"", false},
    };
    for (const auto& h : hashes) {
        EXPECT_EQ(h.allowed, CommonUtils::sIsCanAccessPrivacyData(h.hash)) << h.hash;
    }
}

TEST_F(PrivacyAccessTest, FirstEntryHoldingTheAttributeDecidesLongLinesStayWholeAndNamesAreLimited) {
    const std::string filler(5000, 'x');
    // An attribute name of 90 characters is read; one more and it is not.
    const std::string longest(90, 'a');
    writeFile(kMacFilter, "config mac\n option mac '00:11:22:33:44:55'\n"
                          " option name '" + filler + "option pridisk 'yes'\n" +
                          " option note '" + std::string(1010, 'y') + "config mac\n" +
                          " option lan 'no'\n option " + longest + " 'yes'\n option " + longest +
                          "b 'yes'\n"
                          "config mac\n option mac '00:11:22:33:44:55'\n option pridisk 'no'\n"
                          "config mac\n option mac '00:11:22:33:44:55'\n option pridisk 'yes'\n"
                          "config mac\n option mac '00:11:22:33:44:66'\n"
                          " option pridisk '" + "yes" + filler + "'\n");
    EXPECT_EQ(0, fromFile(kMac, "pridisk"));
    EXPECT_EQ(0, fromFile(kMac, "lan"));
    EXPECT_EQ(1, fromFile("00:11:22:33:44:66", "pridisk"));
    EXPECT_EQ(1, fromFile(kMac, longest));
    EXPECT_EQ(0, fromFile(kMac, longest + "b"));
}

// The command route: the tool's one line decides; its output file is made
// afresh, so a link planted under that name is never written through, and
// anything but a plain MAC of a command that fits is refused before a shell.
TEST_F(PrivacyAccessTest, CommandRouteReadsToolLineAndNeverLetsTheShellOrALinkIn) {
    setToolValue("sysapi", "mac=00:11:22:33:44:55", "name=TV PRIDISK=YES lan=no");
    writeFile("/victim", "keep");
    fs::create_symlink(path("/victim"), toolOutputPath());
    const size_t descriptors = quorvia_test::openDescriptors();
    EXPECT_EQ(1, fromCommand(kMac, "pridisk"));
    EXPECT_EQ(0, fromCommand(kMac, "lan"));
    EXPECT_EQ(0, fromCommand("00-11-22-33-44-66", "lan"));
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors()) << "the tool's answer is closed";
    EXPECT_FALSE(fs::exists(toolOutputPath()));
    EXPECT_EQ("keep", readFile("/victim"));
    EXPECT_EQ(0u, readFile("/device/sysapi/calls").find("macfilter\nget\nmac=00:11:22:33:44:55\n\n"));

    const std::string fixedPart = path("/usr/sbin/sysapi") + " macfilter get 'mac=" + "' > " +
                                  toolOutputPath();
    const size_t longestMac = talvern::MacFilter::kMaxCommandLength - fixedPart.size();
    const std::string fits(longestMac, 'a');
    setToolValue("sysapi", "mac=" + fits, std::string(254, ' ') + "pridisk=yes");
    EXPECT_EQ(0, fromCommand(fits, "pridisk"));
    setToolValue("sysapi", "mac=" + fits, std::string(244, ' ') + "pridisk=yes");
    EXPECT_EQ(1, fromCommand(fits, "pridisk"));

    fs::remove(path("/device/sysapi/calls"));
    const std::string marker = path("/pwned");
    for (const std::string& mac : {std::string(longestMac + 1, 'a'), "00:11'; touch " + marker + "; '",
                                   "$(touch " + marker + ")", std::string()}) {
        EXPECT_EQ(0, fromCommand(mac, "lan")) << mac;
    }
    EXPECT_EQ(0, find_mac_attribute_from_macfilter_command(NULL, "lan"));
    EXPECT_FALSE(fs::exists(path("/device/sysapi/calls")));
    EXPECT_FALSE(fs::exists(marker));
}

TEST_F(PrivacyAccessTest, WhitelistAddsAndRemovesWholeLinesOnly) {
    CommonUtils::sAuthAccessPrivacyData("aa:aa", true);
    EXPECT_FALSE(fs::exists(path("/data")));  // no whitelist, none is made
    writeFile(kWhitelist, "aa:aa\nbb:bb\nxbb:bbx\ncc:cc");
    CommonUtils::sAuthAccessPrivacyData("aa:aa", true);
    EXPECT_EQ("aa:aa\nbb:bb\nxbb:bbx\ncc:cc\n", readFile(kWhitelist));
    CommonUtils::sAuthAccessPrivacyData("dd:dd", true);
    CommonUtils::sAuthAccessPrivacyData("bb:bb", false);
    // Entries of more than one line are refused.
    for (const std::string& refused : {std::string(), std::string("ee:ee\nff:ff"),
                                       std::string("ee\0ff", 5)}) {
        CommonUtils::sAuthAccessPrivacyData(refused, true);
        CommonUtils::sAuthAccessPrivacyData(refused, false);
    }
    EXPECT_EQ("aa:aa\ncc:cc\ndd:dd\n", readFile(kWhitelist));

    // A link at its name is replaced, never written through; a FIFO is left
    // alone, never waited on.
    alarm(60);
    writeFile("/outside", "kept");
    using quorvia_test::quoted;
    ASSERT_EQ(0, shell("cd " + quoted(root()) + " && ln -sf " + quoted(path("/outside")) + " " +
                       quoted(path(kWhitelist)) + " && mkfifo fifo"));
    CommonUtils::sAuthAccessPrivacyData("ee:ee", true);
    EXPECT_EQ("kept\nee:ee\n", readFile(kWhitelist));
    EXPECT_EQ("kept", readFile("/outside"));
    ASSERT_EQ(0, shell("mv " + quoted(path("/fifo")) + " " + quoted(path(kWhitelist))));
    CommonUtils::sAuthAccessPrivacyData("ee:ee", false);
}

}  // namespace
