#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "api/QuorviaAPIMapping.h"
#include "multimedia/QuorviaContext.h"
#include "multimedia/QuorviaDBMgr.h"
#include "support/DeviceRootTest.h"

namespace {

using quorvia::QuorviaContext;
using quorvia::QuorviaDBMgr;

const std::string MISSING = "{ \"code\": 1, \"msg\": \"parameter missing\" }";
const std::string EMPTY = "{ \"code\": 2, \"msg\": \"parameter empty\" }";
const std::string DONE = "{ \"code\": 0, \"msg\": \"\" }";
const std::string PARSE = "QuorviaAPIMapping::parse";

// Answers of the three metadata operations; json-c writes "/" as "\/".
std::string image(const std::string& title, const std::string& mime, const std::string& date) {
    return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title + "\", \"mime\": \"image\\/" +
           mime + "\", \"date\": " + date + " }";
}
std::string video(const std::string& title, const std::string& date) {
    return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title +
           "\", \"duration\": \"\", \"date\": " + date + " }";
}
std::string audio(const std::string& title) {
    return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title +
           "\", \"mime\": \"\", \"album\": \"\", \"artist\": \"\", \"duration\": \"\", "
           "\"date\": 0 }";
}

class QuorviaAPIMappingTest : public quorvia_test::DeviceRootTest {
protected:
    // request is JSON written with ' for ", which none of the cases needs.
    std::string route(std::string request) const {
        std::replace(request.begin(), request.end(), '\'', '"');
        return QuorviaAPIMapping().redirectRequest(request);
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

// Missing keys are checked before empty values, a refused request stores or
// drops nothing, and values are read the way json-c reads them.
TEST_F(QuorviaAPIMappingTest, RequestsAreRoutedByTheirKeysAndValues) {
    storeRow("/mnt/usb1/a.jpg", "kept", "a.jpg");
    struct Case {
        std::string request;
        std::string answer;
        std::string logLine;
    };
    const Case cases[] = {
        {"", "", "QuorviaAPIMapping, jobj is null? 1"},
        {std::string(10000, '[') + std::string(10000, ']'), "",
         "QuorviaAPIMapping, jobj is null? 1"},
        {"[1,2,3]", "", "QuorviaAPIMapping, jobj is null? 0"},
        {"{'api':-1,'root':'/mnt'}", "", ""},
        {"{'api':4,'root':'/mnt'}", "", ""},
        {"{'api':4294967296,'root':'/mnt'}", "", ""},
        // An "api" that is no number reads as 0: the image operation.
        {"{'api':'x3','root':'/mnt'}", MISSING, PARSE + "GetImageMetadata api parameter missing"},
        {"{'api':0,'path':null,'name':'a.png','hash':'h','defaultModifyTime':1}", MISSING, ""},
        {"{'api':0,'path':'/a','name':'a.png','hash':'h'}", MISSING, ""},
        {"{'api':0,'path':'','name':'a.png','defaultModifyTime':1}", MISSING, ""},
        {"{'api':1,'path':'/a','name':'a.mp3'}", MISSING,
         PARSE + "GetAudioMetadata api parameter missing"},
        {"{'api':2,'path':'/a','name':'a.mp4','hash':'h'}", MISSING,
         PARSE + "GetVedioMetadata api parameter missing"},
        {"{'api':0,'path':'','name':'a.png','hash':'h','defaultModifyTime':1}", EMPTY,
         PARSE + "GetImageMetadata api parameter empty"},
        {"{'api':1,'path':'/a','name':'','hash':'h'}", EMPTY,
         PARSE + "GetAudioMetadata api parameter empty"},
        {"{'api':2,'path':'/a','name':'a.mp4','hash':'','defaultModifyTime':0}", EMPTY,
         PARSE + "GetVedioMetadata api parameter empty"},
        // A root that would match every disk's rows.
        {"{'api':3,'root':''}", EMPTY, PARSE + "UmountDevice api parameter empty"},
        {"{'api':3,'root':'///'}", EMPTY, ""},
        // "api" as a numeric string and as a fraction select the video operation.
        {"{'api':'2','path':'/none/v','name':'v.mp4','hash':'v1','defaultModifyTime':4}",
         video("v.mp4", "4"), ""},
        {"{'api':2.5,'path':'/none/w','name':'w.mp4','hash':'v2','defaultModifyTime':4}",
         video("w.mp4", "4"), ""},
        // A time that is no number reads as 0; out of range it is clamped.
        {"{'api':0,'path':'/none/a','name':'a.png','hash':'i1','defaultModifyTime':'soon'}",
         image("a.png", "png", "0"), ""},
        {"{'api':0,'path':'/none/b','name':'b.gif','hash':'i2','defaultModifyTime':99999999999}",
         image("b.gif", "gif", "2147483647"), ""},
        {"{'api':0,'path':'/none/d','name':'d.png','hash':'i4','defaultModifyTime':NaN}",
         image("d.png", "png", "0"), ""},
        // A number for a string key reads as its text.
        {"{'api':0,'path':5,'name':6,'hash':7,'defaultModifyTime':0}", image("6", "null", "0"), ""},
        // Bytes that are not UTF-8 pass through as the caller sent them.
        {"{'api':1,'path':'/none/\xff\xfe.mp3','name':'\xff\xfe.mp3','hash':'a1'}",
         audio("\xff\xfe.mp3"), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 60));
        log_.clear();
        EXPECT_EQ(c.answer, route(c.request));
        if (!c.logLine.empty()) {
            EXPECT_EQ(1, log_.count(c.logLine, google::GLOG_INFO));
        }
    }
    EXPECT_TRUE(hasRow("kept"));
    EXPECT_FALSE(hasRow("h"));
}

TEST_F(QuorviaAPIMappingTest, AHitAnswersFromTheStoreWhateverPathAndNameSay) {
    const std::string first =
        route("{'api':0,'path':'/none/a','name':'a.png','hash':'same','defaultModifyTime':5}");
    EXPECT_EQ(image("a.png", "png", "5"), first);
    EXPECT_EQ(
        first,
        route("{'api':0,'path':'/other/b','name':'b.gif','hash':'same','defaultModifyTime':1}"));
    // The video answer of the same row leaves its MIME type out.
    EXPECT_EQ(video("a.png", "5"),
              route("{'api':2,'path':'/x','name':'x.mp4','hash':'same','defaultModifyTime':1}"));
}

TEST_F(QuorviaAPIMappingTest, ARowWithoutTitleIsReadAgainAndReplaced) {
    storeRow("/old/path", "untitled", "");
    EXPECT_EQ(audio("n.mp3"),
              route("{'api':1,'path':'/new/path','name':'n.mp3','hash':'untitled'}"));
    EXPECT_EQ("untitled", QuorviaDBMgr::sGetInstance().doGetFileHash("/new/path"));
}

// Which rows a root matches is the store's business; here, that the root
// reaches it.
TEST_F(QuorviaAPIMappingTest, UnmountDropsTheRowsOfItsRootOnly) {
    storeRow("/mnt/usb1/d/b.jpg", "inside", "b.jpg");
    storeRow("/mnt/usb10/c.jpg", "sibling", "c.jpg");
    EXPECT_EQ(DONE, route("{'api':3,'root':'/mnt/usb1/'}"));
    EXPECT_FALSE(hasRow("inside"));
    EXPECT_TRUE(hasRow("sibling"));
    EXPECT_EQ(DONE, route("{'api':3,'root':'/mnt/nothing'}"));
}

}  // namespace
