#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "multimedia/QuorviaContext.h"
#include "multimedia/QuorviaDBMgr.h"
#include "support/DeviceRootTest.h"
#include "thriftwrapper/QuorviaHandler.h"

namespace {

using quorvia::QuorviaContext;
using quorvia::QuorviaDBMgr;

// JSON written with ' for ".
std::string json(std::string text) {
    std::replace(text.begin(), text.end(), '\'', '"');
    return text;
}
// A successful answer with these fields after code and message; json-c
// writes "/" as "\/".
std::string ok(const std::string& fields) {
    return json("{ 'code': 0, 'msg': '', " + fields + " }");
}

// A code table out of order would hide codes from the binary search; the
// answers below pin the texts of the codes the router uses.
const std::string MISSING = json("{ 'code': 1, 'msg': 'parameter missing' }");
const std::string EMPTY = json("{ 'code': 2, 'msg': 'parameter empty' }");
const std::string AUDIO_REST = "'mime': '', 'album': '', 'artist': '', 'duration': '', 'date': 0";

void storeRow(const std::string& path, const std::string& hash, const std::string& title) {
    QuorviaContext context;
    context.path = path;
    context.hash = hash;
    context.metadata.title = title;
    ASSERT_TRUE(QuorviaDBMgr::sGetInstance().insertToDB(context));
}

class QuorviaAPIMappingTest : public quorvia_test::DeviceRootTest {};

// Requests run in order against one store, through the handler that the
// server calls. Missing keys are checked before empty values, a refused
// request stores or drops nothing, and values are read the way json-c reads
// them. No request is logged.
TEST_F(QuorviaAPIMappingTest, RequestsAreRoutedByTheirKeysAndValues) {
    // The daemon's store once closed standard input, taking it for its folder.
    struct stat input;
    ASSERT_EQ(0, fstat(0, &input));
    storeRow("/old/path", "untitled", "");
    struct stat after;
    ASSERT_EQ(0, fstat(0, &after));
    EXPECT_TRUE(after.st_dev == input.st_dev && after.st_ino == input.st_ino);
    storeRow("/mnt/usb1/d/b.jpg", "inside", "b.jpg");
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {std::string(10000, '[') + std::string(10000, ']'), ""},
        {"[1,2,3]", ""},
        {"{'api':-1,'root':'/mnt'}", ""},
        {"{'api':4,'root':'/mnt'}", ""},
        {"{'api':4294967296,'root':'/mnt'}", ""},
        {"{'api':0,'path':null,'name':'a.png','hash':'h','defaultModifyTime':1}", MISSING},
        {"{'api':0,'path':'','name':'a.png','hash':'h'}", MISSING},
        {"{'api':1,'path':'/a','name':'a.mp3'}", MISSING},
        {"{'api':2,'path':'/a','name':'a.mp4','hash':'h'}", MISSING},
        {"{'api':0,'path':'','name':'a.png','hash':'h','defaultModifyTime':1}", EMPTY},
        // Roots that would match every disk's rows.
        {"{'api':3,'root':''}", EMPTY},
        {"{'api':3,'root':'///'}", EMPTY},
        // No root at all makes the router throw; the handler answers empty.
        {"{'api':3}", ""},
        // A fraction selects the video operation; a time out of range is
        // clamped, NaN reads as 0, a number for a string key as its text.
        {"{'api':2.5,'path':'/none/w','name':'w.mp4','hash':'v2','defaultModifyTime':4}",
         ok("'title': 'w.mp4', 'duration': '', 'date': 4")},
        {"{'api':0,'path':'/none/b','name':'b.gif','hash':'i2','defaultModifyTime':99999999999}",
         ok("'title': 'b.gif', 'mime': 'image\\/gif', 'date': 2147483647")},
        {"{'api':0,'path':'/none/d','name':'d.png','hash':'i4','defaultModifyTime':NaN}",
         ok("'title': 'd.png', 'mime': 'image\\/png', 'date': 0")},
        {"{'api':0,'path':5,'name':6,'hash':7,'defaultModifyTime':0}",
         ok("'title': '6', 'mime': 'image\\/null', 'date': 0")},
        // A hit answers from the store whatever path and name say; the video
        // answer of an image row leaves its MIME type out.
        {"{'api':2,'path':'/x','name':'x.mp4','hash':'i2','defaultModifyTime':1}",
         ok("'title': 'b.gif', 'duration': '', 'date': 2147483647")},
        // A row without title is read again and replaced.
        {"{'api':1,'path':'/new/path','name':'n.mp3','hash':'untitled'}",
         ok("'title': 'n.mp3', " + AUDIO_REST)},
        // Which rows a root matches is the store's business; here, that the
        // root reaches it.
        {"{'api':3,'root':'/mnt/usb1/'}", json("{ 'code': 0, 'msg': '' }")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first.substr(0, 60));
        std::string answer;
        QuorviaHandler().request(answer, json(c.first));
        EXPECT_EQ(c.second, answer);
    }
    EXPECT_FALSE(log_.contains("{\"api\""));
    QuorviaDBMgr& store = QuorviaDBMgr::sGetInstance();
    EXPECT_FALSE(store.isExistsFileByHash("h"));
    EXPECT_EQ("untitled", store.doGetFileHash("/new/path"));
    EXPECT_FALSE(store.isExistsFileByHash("inside"));
}

}  // namespace
