#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <libconfig.h++>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace {

using talvern::ConfigInfo;
namespace fs = boost::filesystem;

const char* const kGlobalFile = "/userdisk/talvernConfig/config.cfg";

class ConfigFilesTest : public quorvia_test::DeviceRootTest {
protected:
    ConfigInfo* info() { return ConfigInfo::sGetInstance(); }
    std::string global() const { return readFile(kGlobalFile); }
};

TEST_F(ConfigFilesTest, SetConfigWritesAndGetConfigReadsBack) {
    info();
    ASSERT_FALSE(fs::exists(path(kGlobalFile)));
    info()->setConfig("needSetShareStatus", "");
    EXPECT_TRUE(fs::exists(path(kGlobalFile)));
    log_.clear();
    info()->setConfig("needCreateDataFolder", "true");
    EXPECT_EQ("true", info()->getConfig("needCreateDataFolder"));
    EXPECT_NE(std::string::npos, global().find("needCreateDataFolder = \"true\";"));
    EXPECT_EQ(1, log_.count("setConfig begin,key:needCreateDataFolder value:true"));
    EXPECT_EQ(1, log_.count("write file:" + path(kGlobalFile)));
    EXPECT_EQ(1, log_.count("ConfigInfo setConfig end"));
    EXPECT_EQ(1, log_.count("return is true"));

    info()->setConfig("needCreateDataFolder", "");
    EXPECT_EQ("", info()->getConfig("needCreateDataFolder"));
    EXPECT_EQ("", global());
    EXPECT_EQ(1, log_.count("return empty!"));
}

TEST_F(ConfigFilesTest, GetConfigSeesOtherWritersAndAnswersFromMemoryWithoutTheFile) {
    info()->setConfig("a", "1");
    writeFile(kGlobalFile, "a = \"2\";\nnumber = 5;\n");
    EXPECT_EQ("2", info()->getConfig("a"));
    EXPECT_EQ("", info()->getConfig("number"));
    fs::remove(path(kGlobalFile));
    EXPECT_EQ("2", info()->getConfig("a"));
    EXPECT_EQ(2, log_.count("getConfig begin,key:a globalConfigPath:" + path(kGlobalFile)));
}

TEST_F(ConfigFilesTest, OddOrRejectedKeysNeverCrashAndLeaveTheFileAsItWas) {
    info()->setConfig("good", "1");
    EXPECT_THROW(info()->setConfig("bad key!", "x"), libconfig::SettingNameException);
    for (const char* key : {"", "a..b", "good.x", "\xff"}) {
        // Lookups take the key as libconfig's path: whatever it finds, no throw.
        EXPECT_NO_THROW(info()->getConfig(key)) << key;
        EXPECT_NO_THROW(ConfigInfo::sGetConfigFromFile(path(kGlobalFile), key)) << key;
        EXPECT_TRUE(info()->getListFromFile(path(kGlobalFile), key).empty()) << key;
        EXPECT_THROW(info()->setConfig(key, "x"), libconfig::ConfigException) << key;
    }
    EXPECT_EQ("good = \"1\";\n", global());
    // The lock was released: the next call goes through.
    info()->setConfig("other", "2");
    EXPECT_EQ("2", info()->getConfig("other"));
}

TEST_F(ConfigFilesTest, SetConfigKeepsAFileThatFailedToParseAtStartOrReload) {
    const std::string garbled = "userSetting = \"precious\";\nbroken = = ;\n";
    writeFile(kGlobalFile, garbled);
    info()->setConfig("needShareHSDOWNLOAD", "true");
    EXPECT_EQ(garbled, global());
    EXPECT_TRUE(log_.contains("parse config file error at :2 - ", google::GLOG_ERROR));
    EXPECT_TRUE(log_.contains("setConfig skipped: " + path(kGlobalFile), google::GLOG_ERROR));

    // Once the user repairs it and it loads again, writes go through and keep it.
    writeFile(kGlobalFile, "userSetting = \"precious\";\n");
    EXPECT_EQ("precious", info()->getConfig("userSetting"));
    info()->setConfig("needShareHSDOWNLOAD", "true");
    EXPECT_EQ("precious", info()->getConfig("userSetting"));

    writeFile(kGlobalFile, "{{{ not a config");
    EXPECT_EQ("", info()->getConfig("userSetting"));
    EXPECT_TRUE(log_.contains("parse config file error at :", google::GLOG_ERROR));
    info()->setConfig("b", "2");
    EXPECT_EQ("{{{ not a config", global());
}

TEST_F(ConfigFilesTest, SetConfigToFileEditsOneFileOrThrowsAndKeepsIt) {
    const std::string file = path("/cfg/other.cfg");
    fs::create_directories(path("/cfg"));
    info()->setConfigToFile(file, "first", "1");
    info()->setConfigToFile(file, "second", "2");
    info()->setConfigToFile(file, "first", "");
    EXPECT_EQ("second = \"2\";\n", readFile("/cfg/other.cfg"));
    EXPECT_FALSE(fs::exists(path(kGlobalFile)));

    info()->setConfigToFile(path("/no/such/folder/x.cfg"), "k", "v");
    EXPECT_TRUE(log_.contains("save config file error: ", google::GLOG_ERROR));
    EXPECT_FALSE(fs::exists(path("/no")));

    writeFile("/cfg/garbled.cfg", "x = ;;");
    EXPECT_THROW(info()->setConfigToFile(path("/cfg/garbled.cfg"), "k", "v"),
                 libconfig::ParseException);
    EXPECT_EQ("x = ;;", readFile("/cfg/garbled.cfg"));
    EXPECT_THROW(info()->setConfigToFile(file, "no spaces", "v"), libconfig::SettingNameException);
    // The lock was released.
    EXPECT_EQ("2", info()->getConfigFromFile(file, "second"));
    EXPECT_EQ("", info()->getConfigFromFile(path("/cfg/garbled.cfg"), "x"));
    EXPECT_TRUE(log_.contains("getConfigFromFile error: ", google::GLOG_ERROR));
}

TEST_F(ConfigFilesTest, ConfigFromString) {
    EXPECT_EQ("v", info()->getConfigFromString("k = \"v\"; n = 1;", "k"));
    EXPECT_EQ(1, log_.count("return isv", google::GLOG_INFO));
    EXPECT_EQ("", info()->getConfigFromString("k = \"v\"; n = 1;", "n"));
    EXPECT_EQ("", info()->getConfigFromString(NULL, "k"));
    EXPECT_THROW(info()->getConfigFromString("k = ", "k"), libconfig::ParseException);
}

TEST_F(ConfigFilesTest, ListFromFileReadsArraysOnly) {
    writeFile("/cfg/lists.cfg", "macs = [\"aa:bb\", \"cc:dd\"];\nnumbers = [1, 22];\n"
                                "flags = [true, false];\nmixed = (\"a\", 1);\nscalar = \"a\";\n");
    const std::string file = path("/cfg/lists.cfg");
    EXPECT_EQ(std::vector<std::string>({"aa:bb", "cc:dd"}), info()->getListFromFile(file, "macs"));
    EXPECT_EQ(std::vector<std::string>({"1", "22"}), info()->getListFromFile(file, "numbers"));
    EXPECT_EQ(std::vector<std::string>({"true", "false"}), info()->getListFromFile(file, "flags"));
    EXPECT_TRUE(info()->getListFromFile(file, "mixed").empty());
    EXPECT_TRUE(info()->getListFromFile(file, "scalar").empty());
    EXPECT_TRUE(info()->getListFromFile(path("/cfg/missing.cfg"), "macs").empty());
}

}  // namespace
