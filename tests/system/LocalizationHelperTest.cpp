#include <gtest/gtest.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "system/LocalizationHelper.h"

namespace {

using talvern::LocalizationHelper;

// Each test builds its own localisation folder at /loc under the root; the
// device has no country code of its own, so it counts as "CN".
class LocalizationHelperTest : public quorvia_test::DeviceRootTest {
protected:
    void writeLanguage(const std::string& content) {
        writeFile("/loc/country.txt", "CN###lang.txt\n");
        writeFile("/loc/lang.txt", content);
    }
    LocalizationHelper helper() { return LocalizationHelper(path("/loc")); }
};

TEST_F(LocalizationHelperTest, LineRulesAndALineTooLongEndsTheFile) {
    const std::string fits(LocalizationHelper::kMaxLineLength - 7, 'v');
    writeLanguage("three###value###dropped\nsingle#one\n  spaced  ###  text with blanks \r\n"
                  "\ttabbed\t###\tkept\t\nempty###\n\nnoseparator\ndup###first\ndup###second\n"
                  "fits###" + fits + "\nlast###no line end");
    LocalizationHelper loc = helper();
    const struct { std::string key; std::string value; } cases[] = {
        {"three", "value"}, {"single", "one"}, {"spaced", "text with blanks"},
        {"\ttabbed\t", "\tkept\t"}, {"empty", ""}, {"noseparator", ""}, {"dup", "second"},
        {"fits", fits}, {"last", "no line end"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.value, loc.getValue(c.key)) << "key '" << c.key << "'";
    }
    // One byte more than the longest line ends the file there.
    writeLanguage("long###" + fits + "w\nlater###3\n");
    loc = helper();
    EXPECT_EQ("", loc.getValue("long"));
    EXPECT_EQ("", loc.getValue("later"));
    // So does the end of a huge file's head.
    writeLanguage("first###1\n" + std::string(LocalizationHelper::kMaxFileBytes, '\n'));
    EXPECT_EQ("1", helper().getValue("first"));
}

// Without a file of its own nor one for the default country, a device has
// empty values, silently.
TEST_F(LocalizationHelperTest, UnknownCountryUsesTheDefaultCountrysFileIfThereIsOne) {
    writeFile("/tmp/commonutils.config.tmp", "code = \"FR\";\n");
    writeFile("/loc/country.txt", "US###en.txt\nCN###zh.txt\n");
    writeFile("/loc/zh.txt", "key###中文\n");
    EXPECT_EQ("中文", helper().getValue("key"));
    writeFile("/loc/country.txt", "US###zh.txt\n");
    EXPECT_EQ("", helper().getValue("key"));
    EXPECT_FALSE(log_.contains("loc/"));
}

TEST_F(LocalizationHelperTest, DeviceCountryChoosesItsLanguage) {
    writeFile("/tmp/commonutils.config.tmp", "code = \"US\";\n");
    LocalizationHelper loc(path("/etc/talvernconfig/localization"));
    EXPECT_EQ("Photos", loc.getValue("backup_photo_dir_name"));
}

}  // namespace
