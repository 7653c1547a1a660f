#include <gtest/gtest.h>

#include <string>

#include "api/QuorviaAPIMapping.h"
#include "multimedia/QuorviaContext.h"
#include "multimedia/QuorviaDBMgr.h"
#include "support/DeviceRootTest.h"

namespace {

using quorvia::QuorviaContext;
using quorvia::QuorviaDBMgr;

const char* const MISSING = "{ \"code\": 1, \"msg\": \"parameter missing\" }";
const char* const EMPTY = "{ \"code\": 2, \"msg\": \"parameter empty\" }";
const char* const DONE = "{ \"code\": 0, \"msg\": \"\" }";

class QuorviaAPIMappingTest : public quorvia_test::DeviceRootTest {
protected:
    std::string route(const std::string& request) const {
        QuorviaAPIMapping mapping;
        return mapping.redirectRequest(request);
    }

    void storeRow(const std::string& path, const std::string& hash, const std::string& title) {
        QuorviaContext context;
        context.path = path;
        context.hash = hash;
        context.metadata.title = title;
        ASSERT_TRUE(QuorviaDBMgr::sGetInstance().insertToDB(context));
    }

    bool hasRow(const std::string& hash) {
        return QuorviaDBMgr::sGetInstance().isExistsFileByHash(hash);
    }
};

TEST_F(QuorviaAPIMappingTest, RequestsThatSelectNoOperationGetTheEmptyText) {
    struct Case {
        std::string request;
        int nullFlag;
    };
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    const std::string deepObject = "{\"api\":0,\"x\":" + deep + "}";
    const Case cases[] = {
        {"", 1},
        {"not json", 1},
        {"{\"api\":0,\"path\":", 1},
        {deep, 1},
        {deepObject, 1},
        {"[1,2,3]", 0},
        {"5", 0},
        {"\"text\"", 0},
        {"{}", 0},
        {"{\"api\":null}", 0},
        {"{\"api\":-1,\"root\":\"/mnt\"}", 0},
        {"{\"api\":4,\"root\":\"/mnt\"}", 0},
        {"{\"api\":4294967296,\"root\":\"/mnt\"}", 0},
        {"{\"api\":-4294967293,\"root\":\"/mnt\"}", 0},
        {"{\"api\":1e300,\"root\":\"/mnt\"}", 0},
    };
    for (const Case& c : cases) {
        log_.clear();
        EXPECT_EQ("", route(c.request)) << c.request.substr(0, 60);
        EXPECT_EQ(1, log_.count("QuorviaAPIMapping, jobj is null? " + std::to_string(c.nullFlag),
                                google::GLOG_INFO))
            << c.request.substr(0, 60);
    }
}

TEST_F(QuorviaAPIMappingTest, MissingKeysAnswerCodeOneBeforeEmptyOnes) {
    struct Case {
        const char* request;
        const char* logLine;
    };
    const Case cases[] = {
        // An "api" that is no number reads as 0: the image operation.
        {"{\"api\":\"x3\",\"root\":\"/mnt\"}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter missing"},
        {"{\"api\":0,\"name\":\"a.png\",\"hash\":\"h\",\"defaultModifyTime\":1}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter missing"},
        {"{\"api\":0,\"path\":null,\"name\":\"a.png\",\"hash\":\"h\",\"defaultModifyTime\":1}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter missing"},
        {"{\"api\":0,\"path\":\"/a\",\"name\":\"a.png\",\"hash\":\"h\"}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter missing"},
        {"{\"api\":0,\"path\":\"\",\"name\":\"a.png\",\"defaultModifyTime\":1}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter missing"},
        {"{\"api\":1,\"path\":\"/a\",\"name\":\"a.mp3\"}",
         "QuorviaAPIMapping::parseGetAudioMetadata api parameter missing"},
        {"{\"api\":2,\"path\":\"/a\",\"name\":\"a.mp4\",\"hash\":\"h\"}",
         "QuorviaAPIMapping::parseGetVedioMetadata api parameter missing"},
    };
    for (const Case& c : cases) {
        log_.clear();
        EXPECT_EQ(MISSING, route(c.request)) << c.request;
        EXPECT_EQ(1, log_.count(c.logLine, google::GLOG_INFO)) << c.request;
    }
}

TEST_F(QuorviaAPIMappingTest, EmptyValuesAnswerCodeTwoAndTouchNothing) {
    storeRow("/mnt/usb1/a.jpg", "kept", "a.jpg");
    struct Case {
        const char* request;
        const char* logLine;
    };
    const Case cases[] = {
        {"{\"api\":0,\"path\":\"\",\"name\":\"a.png\",\"hash\":\"h\",\"defaultModifyTime\":1}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter empty"},
        {"{\"api\":0,\"path\":\"/a\",\"name\":\"a.png\",\"hash\":\"\",\"defaultModifyTime\":1}",
         "QuorviaAPIMapping::parseGetImageMetadata api parameter empty"},
        {"{\"api\":1,\"path\":\"/a\",\"name\":\"\",\"hash\":\"h\"}",
         "QuorviaAPIMapping::parseGetAudioMetadata api parameter empty"},
        {"{\"api\":2,\"path\":\"/a\",\"name\":\"a.mp4\",\"hash\":\"\",\"defaultModifyTime\":0}",
         "QuorviaAPIMapping::parseGetVedioMetadata api parameter empty"},
        {"{\"api\":3,\"root\":\"\"}", "QuorviaAPIMapping::parseUmountDevice api parameter empty"},
        {"{\"api\":3,\"root\":\"/\"}", "QuorviaAPIMapping::parseUmountDevice api parameter empty"},
        {"{\"api\":3,\"root\":\"///\"}", "QuorviaAPIMapping::parseUmountDevice api parameter empty"},
    };
    for (const Case& c : cases) {
        log_.clear();
        EXPECT_EQ(EMPTY, route(c.request)) << c.request;
        EXPECT_EQ(1, log_.count(c.logLine, google::GLOG_INFO)) << c.request;
    }
    EXPECT_TRUE(hasRow("kept"));
    EXPECT_FALSE(hasRow("h"));
}

TEST_F(QuorviaAPIMappingTest, ValuesAreCoercedTheWayJsonReadsThem) {
    struct Case {
        const char* request;
        const char* response;
    };
    const Case cases[] = {
        // "api" as a numeric string and as a fraction select the video operation.
        {"{\"api\":\"2\",\"path\":\"/none/v.mp4\",\"name\":\"v.mp4\",\"hash\":\"v1\","
         "\"defaultModifyTime\":400000000}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"v.mp4\", \"duration\": \"\", \"date\": "
         "400000000 }"},
        {"{\"api\":2.5,\"path\":\"/none/w.mp4\",\"name\":\"w.mp4\",\"hash\":\"v2\","
         "\"defaultModifyTime\":400000000}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"w.mp4\", \"duration\": \"\", \"date\": "
         "400000000 }"},
        // A time that is no number reads as 0; out of range it is clamped.
        {"{\"api\":0,\"path\":\"/none/a\",\"name\":\"a.png\",\"hash\":\"i1\","
         "\"defaultModifyTime\":\"soon\"}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"a.png\", \"mime\": \"image\\/png\", \"date\": 0 }"},
        {"{\"api\":0,\"path\":\"/none/b\",\"name\":\"b.gif\",\"hash\":\"i2\","
         "\"defaultModifyTime\":99999999999}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"b.gif\", \"mime\": \"image\\/gif\", \"date\": "
         "2147483647 }"},
        {"{\"api\":0,\"path\":\"/none/c\",\"name\":\"c.bmp\",\"hash\":\"i3\","
         "\"defaultModifyTime\":-1e40}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"c.bmp\", \"mime\": \"image\\/bmp\", \"date\": "
         "-2147483648 }"},
        {"{\"api\":0,\"path\":\"/none/d\",\"name\":\"d.png\",\"hash\":\"i4\","
         "\"defaultModifyTime\":NaN}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"d.png\", \"mime\": \"image\\/png\", \"date\": 0 }"},
        // A number for a string key reads as its text.
        {"{\"api\":0,\"path\":5,\"name\":6,\"hash\":7,\"defaultModifyTime\":0}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"6\", \"mime\": \"image\\/null\", \"date\": 0 }"},
        // Bytes that are not UTF-8 pass through as the caller sent them.
        {"{\"api\":1,\"path\":\"/none/\xff\xfe.mp3\",\"name\":\"\xff\xfe.mp3\",\"hash\":\"a1\"}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"\xff\xfe.mp3\", \"mime\": \"\", \"album\": \"\", "
         "\"artist\": \"\", \"duration\": \"\", \"date\": 0 }"},
    };
    // json-c writes "/" as "\/".
    for (const Case& c : cases) {
        EXPECT_EQ(c.response, route(c.request)) << c.request;
    }
}

TEST_F(QuorviaAPIMappingTest, AHitAnswersFromTheStoreWhateverPathAndNameSay) {
    const std::string first =
        route("{\"api\":0,\"path\":\"/none/a\",\"name\":\"a.png\",\"hash\":\"same\","
              "\"defaultModifyTime\":500000000}");
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"a.png\", \"mime\": \"image\\/png\", "
              "\"date\": 500000000 }",
              first);
    EXPECT_EQ(first, route("{\"api\":0,\"path\":\"/other/b\",\"name\":\"b.gif\",\"hash\":\"same\","
                           "\"defaultModifyTime\":1}"));
    // The video answer of the same row leaves its MIME type out.
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"a.png\", \"duration\": \"\", \"date\": "
              "500000000 }",
              route("{\"api\":2,\"path\":\"/x\",\"name\":\"x.mp4\",\"hash\":\"same\","
                    "\"defaultModifyTime\":1}"));
}

TEST_F(QuorviaAPIMappingTest, ARowWithoutTitleIsReadAgainAndReplaced) {
    storeRow("/old/path", "untitled", "");
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"n.mp3\", \"mime\": \"\", \"album\": \"\", "
              "\"artist\": \"\", \"duration\": \"\", \"date\": 0 }",
              route("{\"api\":1,\"path\":\"/new/path\",\"name\":\"n.mp3\",\"hash\":\"untitled\"}"));
    talvern::metadata_s stored;
    QuorviaDBMgr::sGetInstance().getMetadataByHash("untitled", stored);
    EXPECT_EQ("n.mp3", stored.title);
    EXPECT_EQ("untitled", QuorviaDBMgr::sGetInstance().doGetFileHash("/new/path"));
}

TEST_F(QuorviaAPIMappingTest, UnmountDropsTheRowsOfItsRootOnly) {
    storeRow("/mnt/usb1/a.jpg", "inside", "a.jpg");
    storeRow("/mnt/usb1/d/b.jpg", "deeper", "b.jpg");
    storeRow("/mnt/usb10/c.jpg", "sibling", "c.jpg");
    EXPECT_EQ(DONE, route("{\"api\":3,\"root\":\"/mnt/usb1/\"}"));
    EXPECT_FALSE(hasRow("inside"));
    EXPECT_FALSE(hasRow("deeper"));
    EXPECT_TRUE(hasRow("sibling"));
    EXPECT_EQ(DONE, route("{\"api\":3,\"root\":\"/mnt/nothing\"}"));
}

TEST_F(QuorviaAPIMappingTest, UnmountWithoutRootIsALogicError) {
    QuorviaAPIMapping mapping;
    EXPECT_THROW(mapping.redirectRequest("{\"api\":3}"), std::logic_error);
    EXPECT_THROW(mapping.redirectRequest("{\"api\":3,\"root\":null}"), std::logic_error);
}

TEST_F(QuorviaAPIMappingTest, FormatErrorTextHasItsCode) {
    QuorviaAPIMapping mapping;
    EXPECT_EQ("{ \"code\": 3, \"msg\": \"parameter format error\" }",
              mapping.createParameterFormatErrorString());
}

}  // namespace
