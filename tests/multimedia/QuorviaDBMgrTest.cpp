#include "multimedia/QuorviaDBMgr.h"

#include <sqlite3.h>

#include <boost/thread/thread.hpp>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"

using quorvia::QuorviaContext;
using quorvia::QuorviaDBMgr;
using talvern::metadata_s;

namespace {

typedef std::vector<std::string> Texts;
typedef std::set<std::string> Paths;

// A second connection on the store's file, to see and shape what is stored
// without going through the class under test.
class RawDb {
public:
    explicit RawDb(const std::string& path) : db_(NULL) { sqlite3_open(path.c_str(), &db_); }
    ~RawDb() { sqlite3_close(db_); }
    void exec(const std::string& sql) {
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db_, sql.c_str(), NULL, NULL, NULL)) << sql;
    }
    // One column of every row, in order, "NULL" for NULL.
    Texts column(const std::string& sql, int index = 0) {
        Texts values;
        sqlite3_stmt* stmt = NULL;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL)) << sql;
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(stmt, index);
            values.push_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        sqlite3_finalize(stmt);
        return values;
    }
    Paths paths() {
        const Texts all = column("SELECT PATH FROM quorvia");
        return Paths(all.begin(), all.end());
    }

private:
    sqlite3* db_;
};

class QuorviaDBMgrTest : public quorvia_test::DeviceRootTest {
protected:
    std::string dbPath() const { return root() + "/quorvia.db"; }
    static QuorviaContext row(const std::string& hash, const std::string& path,
                              const std::string& title = "t") {
        QuorviaContext context;
        context.hash = hash;
        context.path = path;
        context.metadata.title = title;
        return context;
    }
    // Inserts one row per path, hashes h0, h1, ...
    static void fill(QuorviaDBMgr& store, const Texts& paths) {
        for (size_t i = 0; i < paths.size(); ++i) {
            ASSERT_TRUE(store.insertToDB(row("h" + std::to_string(i), paths[i])));
        }
    }
};

TEST_F(QuorviaDBMgrTest, FreshFileGetsBothTablesThePathIndexAndNoVersionRow) {
    QuorviaDBMgr store(dbPath());
    RawDb raw(dbPath());
    EXPECT_EQ((Texts{"keyvalue_pairs", "quorvia", "quorvia_path"}),
              raw.column("SELECT name FROM sqlite_master WHERE sql IS NOT NULL ORDER BY name"));
    EXPECT_TRUE(raw.column("SELECT VALUE FROM keyvalue_pairs").empty());
    EXPECT_EQ(0u, store.getDBVersion());
    EXPECT_EQ(Texts{"CREATE TABLE quorvia(HASH VARCHAR(40) PRIMARY KEY, PATH VARCHAR(40), TITLE "
                    "VARCHAR(40), DATE INTEGER, MIME VARCHAR(40), DURATION VARCHAR(40), ARTIST "
                    "VARCHAR(40), ALBUM VARCHAR(40))"},
              raw.column("SELECT sql FROM sqlite_master WHERE name='quorvia'"));
    // Lookups by path walk the PATH index rather than the whole table.
    std::string plan;
    for (const std::string& step : raw.column("EXPLAIN QUERY PLAN SELECT rowid, Path FROM quorvia "
                                              "WHERE Path = 'a' OR (Path >= 'a/' AND Path < 'a0')",
                                              3)) {
        plan += step + ";";
    }
    EXPECT_NE(std::string::npos, plan.find("INDEX quorvia_path")) << plan;
    EXPECT_EQ(std::string::npos, plan.find("SCAN")) << plan;
    // The hit path reads without the store's lock only on a serialized
    // connection, which this platform's SQLite gives.
    EXPECT_TRUE(store.isSerialized());
}

TEST_F(QuorviaDBMgrTest, OtherVersionDropsAllRowsOnceNonNumericVersionKeepsThem) {
    struct Case {
        const char* stored;
        bool rowsSurvive;
    } cases[] = {{"1", false}, {"7", false}, {"abc", true}, {"0", true}};
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        SCOPED_TRACE(cases[i].stored);
        const std::string file = root() + "/v" + std::to_string(i) + ".db";
        {
            QuorviaDBMgr store(file);
            ASSERT_TRUE(store.insertToDB(row("h", "/p")));
            ASSERT_TRUE(store.insertKeyvaluePairs("db_version", cases[i].stored));
        }
        log_.clear();
        {
            QuorviaDBMgr store(file);
            RawDb raw(file);
            EXPECT_EQ(cases[i].rowsSurvive ? 1u : 0u, raw.paths().size());
            EXPECT_EQ(0u, store.getDBVersion());
            if (!cases[i].rowsSurvive) {
                EXPECT_EQ(1, log_.count(std::string("QuorviaDBMgr::upgradeDB,  version : ") +
                                            cases[i].stored + " , sDBVersion_ : 0",
                                        google::GLOG_WARNING));
                EXPECT_EQ(Texts{"0"},
                          raw.column("SELECT VALUE FROM keyvalue_pairs WHERE KEY='db_version'"));
                EXPECT_EQ(1u, raw.column("SELECT name FROM sqlite_master WHERE "
                                         "name='quorvia_path'").size());
            }
        }
        log_.clear();
        QuorviaDBMgr again(file);
        EXPECT_FALSE(log_.contains("upgradeDB"));
    }
}

TEST_F(QuorviaDBMgrTest, StoreThatCannotOpenOrWasClosedFailsEveryOperationQuietly) {
    QuorviaDBMgr store(root() + "/missing/dir/quorvia.db");
    EXPECT_EQ(1, log_.count("Can't open database: " + root() + "/missing/dir/quorvia.db",
                            google::GLOG_ERROR));
    EXPECT_FALSE(store.insertToDB(row("h", "/p")));
    metadata_s metadata;
    metadata.title = "kept";
    EXPECT_TRUE(store.getMetadataByHash("h", metadata));
    EXPECT_EQ("kept", metadata.title);
    EXPECT_FALSE(store.deleteMetadataByPath("/p"));
    EXPECT_FALSE(store.deleteMetadataByRootPath("/mnt/usb1"));
    EXPECT_FALSE(store.updateFilePath("/p", "/q"));
    store.updateDirPaths("/a/", "/b/");
    EXPECT_TRUE(log_.contains("prepare updateFilePath error: ", google::GLOG_ERROR));
    EXPECT_TRUE(log_.contains("QuorviaDBMgr::getFileByDir error : ", google::GLOG_ERROR));
    EXPECT_EQ("", store.doGetFileHash("/p"));
    EXPECT_FALSE(store.isExistsFileByHash("h"));
    store.closeDB();
    EXPECT_FALSE(log_.contains("sqlite3_close return"));

    QuorviaDBMgr closed(dbPath());
    closed.closeDB();
    closed.closeDB();
    EXPECT_EQ(1, log_.count("sqlite3_close return 0", google::GLOG_INFO));
    EXPECT_FALSE(closed.insertToDB(row("h", "/p")));
}

TEST_F(QuorviaDBMgrTest, RecordsRoundTripWholeAndTheSecondOfOneHashWins) {
    QuorviaDBMgr store(dbPath());
    QuorviaContext context = row("", "/it's \"here\"/a.jpg", std::string(200, 'x') + "'\";--");
    context.metadata.date = -5;
    context.metadata.mime = "image/jpeg";
    context.metadata.duration = "90";
    context.metadata.artist = "ärtist";
    context.metadata.album = "album";
    ASSERT_TRUE(store.insertToDB(context));
    metadata_s read;
    EXPECT_TRUE(store.getMetadataByHash("", read));
    EXPECT_EQ(context.metadata.title, read.title);
    EXPECT_EQ(-5, read.date);
    EXPECT_EQ("image/jpeg|90|ärtist|album",
              read.mime + "|" + read.duration + "|" + read.artist + "|" + read.album);
    EXPECT_EQ(Paths{"/it's \"here\"/a.jpg"}, RawDb(dbPath()).paths());
    metadata_s miss;
    miss.title = "caller";
    EXPECT_TRUE(store.getMetadataByHash("absent", miss));
    EXPECT_EQ("caller", miss.title);

    ASSERT_TRUE(store.insertToDB(row("h", "/first", "one")));
    ASSERT_TRUE(store.insertToDB(row("h", "/second", "two")));
    store.getMetadataByHash("h", read);
    EXPECT_EQ("two", read.title);
    EXPECT_EQ(1u, RawDb(dbPath()).paths().count("/second"));
    EXPECT_EQ(0u, RawDb(dbPath()).paths().count("/first"));
}

TEST_F(QuorviaDBMgrTest, DeleteAndUpdateByPathTakeTheExactPathOnly) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a.jpg", "/d/a.jpg", "/d/a.jpg/below", "/d/A.JPG", "/", "/a/x.jpg",
                 "/a/x.jpg", "/a/x.jpg.bak"});
    EXPECT_TRUE(store.deleteMetadataByPath("/d/a.jpg/"));
    EXPECT_TRUE(store.deleteMetadataByPath("/"));
    EXPECT_TRUE(store.deleteMetadataByPath("/nothing"));
    EXPECT_TRUE(store.updateFilePath("/a/x.jpg/", "/b/y.jpg/"));
    EXPECT_TRUE(store.updateFilePath("/nothing", "/else"));
    EXPECT_EQ((Texts{"/d/a.jpg/below", "/d/A.JPG", "/b/y.jpg", "/b/y.jpg", "/a/x.jpg.bak"}),
              RawDb(dbPath()).column("SELECT PATH FROM quorvia ORDER BY HASH"));
}

TEST_F(QuorviaDBMgrTest, UnmountMatchesWholeComponentsIgnoringAsciiCase) {
    const Texts paths = {"/mnt/usb1",        "/mnt/usb1/a.jpg", "/MNT/USB1/b.jpg",
                         "/mnt/usb10/a.jpg", "/mnt/usb1x",      "/mnt/usb%/c.jpg",
                         "/mnt/usb_/d.jpg",  "/mnt/usbX/e.jpg", "/mnt/us\\b/f.jpg",
                         "/mnt/usb\\/g",     "/mnt/ÄUSB/h",     "/mnt/äusb/i"};
    struct Case {
        const char* root;
        bool ran;
        Paths gone;
    } cases[] = {
        {"/mnt/usb1", true, {"/mnt/usb1", "/mnt/usb1/a.jpg", "/MNT/USB1/b.jpg"}},
        {"/mnt/usb1/", true, {"/mnt/usb1", "/mnt/usb1/a.jpg", "/MNT/USB1/b.jpg"}},
        {"/mnt/usb%", true, {"/mnt/usb%/c.jpg"}},
        {"/mnt/usb_", true, {"/mnt/usb_/d.jpg"}},
        {"/mnt/us\\b", true, {"/mnt/us\\b/f.jpg"}},
        {"/mnt/usb\\", true, {"/mnt/usb\\/g"}},
        {"/mnt/äusb", true, {"/mnt/äusb/i"}},  // only ASCII letters fold
        {"", false, {}},
        {"/", false, {}},
        {"//", false, {}},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        SCOPED_TRACE(cases[i].root);
        const std::string file = root() + "/u" + std::to_string(i) + ".db";
        QuorviaDBMgr store(file);
        fill(store, paths);
        EXPECT_EQ(cases[i].ran, store.deleteMetadataByRootPath(cases[i].root));
        Paths expected(paths.begin(), paths.end());
        for (const std::string& path : cases[i].gone) {
            expected.erase(path);
        }
        EXPECT_EQ(expected, RawDb(file).paths());
    }
    EXPECT_EQ(1, log_.count("QuorviaDBMgr::deleteMetadataByRootPath refuses root : //",
                            google::GLOG_WARNING));
}

TEST_F(QuorviaDBMgrTest, UpdateDirPathsRewritesRowsBelowTheDirectoryOnly) {
    const Texts paths = {"/d/a/x.jpg",  "/d/a/sub/y.jpg", "/d/ab/z.jpg", "/D/A/case.jpg",
                         "/d/a",        "/d/a%/w.jpg",    "/d/a_/v.jpg", "/e/d/a/u.jpg",
                         "/d/a0"};  // the first path past every "/d/a/..."
    struct Case {
        const char* oldDir;
        const char* newDir;
        std::map<size_t, std::string> changed;  // by index into paths
    } cases[] = {
        {"/d/a/", "/n/", {{0, "/n/x.jpg"}, {1, "/n/sub/y.jpg"}}},
        // Without the trailing "/" the directory's own path is a row too.
        {"/d/a", "/n", {{0, "/n/x.jpg"}, {1, "/n/sub/y.jpg"}, {4, "/n"}}},
        // A new place below the old one: each row is rewritten once.
        {"/d/a/", "/d/a/sub/", {{0, "/d/a/sub/x.jpg"}, {1, "/d/a/sub/sub/y.jpg"}}},
        {"/d/a%/", "/m/", {{5, "/m/w.jpg"}}},
        {"/d/a_/", "/m/", {{6, "/m/v.jpg"}}},
        {"/nothing/", "/m/", {}},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        SCOPED_TRACE(cases[i].oldDir + std::string(" -> ") + cases[i].newDir);
        const std::string file = root() + "/m" + std::to_string(i) + ".db";
        QuorviaDBMgr store(file);
        fill(store, paths);
        store.updateDirPaths(cases[i].oldDir, cases[i].newDir);
        Texts after(paths);
        for (const auto& change : cases[i].changed) {
            after[change.first] = change.second;
        }
        EXPECT_EQ(after, RawDb(file).column("SELECT PATH FROM quorvia ORDER BY "
                                            "CAST(substr(HASH,2) AS INTEGER)"));
    }
    // Rows sharing a path move together.
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a/x.jpg", "/d/a/x.jpg"});
    store.updateDirPaths("/d/a/", "/n/");
    EXPECT_EQ(Paths{"/n/x.jpg"}, RawDb(dbPath()).paths());

    // Failing half way moves nothing, and the store stays usable. (The rows
    // take the hashes of those above, so they replace them.)
    fill(store, {"/d/a/1.jpg", "/d/a/2.jpg", "/d/a/3.jpg"});
    RawDb raw(dbPath());
    raw.exec("CREATE TRIGGER refuse BEFORE UPDATE ON quorvia WHEN NEW.PATH='/n/3.jpg' "
             "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    store.updateDirPaths("/d/a/", "/n/");
    EXPECT_TRUE(log_.contains("QuorviaDBMgr::updateDirPaths rolled back", google::GLOG_ERROR));
    EXPECT_EQ((Paths{"/d/a/1.jpg", "/d/a/2.jpg", "/d/a/3.jpg"}), raw.paths());
    EXPECT_TRUE(store.updateFilePath("/d/a/1.jpg", "/z.jpg"));
    EXPECT_EQ(1u, raw.column("SELECT PATH FROM quorvia WHERE PATH='/z.jpg'").size());
}

TEST_F(QuorviaDBMgrTest, FileHashIsCachedByPath) {
    QuorviaDBMgr store(dbPath());
    const std::string abc = "a9993e364706816aba3e25717850c26c9cd0d89d";
    // What cannot be hashed is stored under the empty hash and retried.
    EXPECT_EQ("", store.getFileHash(path("/data/late.bin")));
    EXPECT_TRUE(store.isExistsFileByHash(""));
    writeFile("/data/late.bin", "abc");
    EXPECT_EQ(abc, store.getFileHash(path("/data/late.bin")));
    ASSERT_TRUE(store.deleteMetadataByPath(path("/data/late.bin")));
    writeFile("/data/a.bin", "abc");
    const std::string file = path("/data/a.bin");
    EXPECT_EQ(abc, store.getFileHash(file));
    EXPECT_TRUE(store.isExistsFileByHash(abc));
    EXPECT_FALSE(store.isExistsFileByHash("0000"));
    // Answered from the row, also after the file changed or went.
    writeFile("/data/a.bin", "changed");
    EXPECT_EQ(abc, store.getFileHash(file));
    ASSERT_EQ(0, shell("rm '" + file + "'"));
    EXPECT_EQ(abc, store.getFileHash(file + "/"));
    // A copy at a new path takes the row over and loses its record.
    store.insertToDB(row(abc, file, "title"));
    writeFile("/data/copy.bin", "abc");
    EXPECT_EQ(abc, store.getFileHash(path("/data/copy.bin")));
    EXPECT_EQ(Paths{path("/data/copy.bin")}, RawDb(dbPath()).paths());
    metadata_s metadata;
    store.getMetadataByHash(abc, metadata);
    EXPECT_EQ("", metadata.title);
}

// Another process holding the file for less than kBusyTimeoutMillis delays a
// delete; it does not make it fail and leave the row.
TEST_F(QuorviaDBMgrTest, AnotherProcessLockDelaysAWriteWithinTheBusyTimeout) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a.mp3"});
    RawDb raw(dbPath());
    raw.exec("BEGIN EXCLUSIVE");
    boost::thread release([&raw] {
        boost::this_thread::sleep_for(
            boost::chrono::milliseconds(QuorviaDBMgr::kBusyTimeoutMillis / 10));
        raw.exec("COMMIT");
    });
    EXPECT_TRUE(store.deleteMetadataByPath("/d/a.mp3"));
    release.join();
    EXPECT_TRUE(raw.paths().empty());
}

// A folder move whose transaction could not start within the busy timeout
// was dropped with only "database is locked": its rows stayed behind.
TEST_F(QuorviaDBMgrTest, AFolderMoveWaitsForAStoreLockedLongerThanTheBusyTimeoutRegression) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/old/a.mp3", "/d/old/b.mp3"});
    RawDb raw(dbPath());
    raw.exec("BEGIN EXCLUSIVE");
    boost::thread release([&raw] {
        boost::this_thread::sleep_for(
            boost::chrono::milliseconds(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4));
        raw.exec("COMMIT");
    });
    store.updateDirPaths("/d/old/", "/d/new/");
    release.join();
    EXPECT_EQ((Paths{"/d/new/a.mp3", "/d/new/b.mp3"}), raw.paths());
    EXPECT_EQ(1, log_.count("QuorviaDBMgr::updateDirPaths waits for the store, from /d/old/, to "
                            "/d/new/",
                            google::GLOG_WARNING));
}

// An operator's reader with a transaction open (a backup, the sqlite3 shell)
// neither holds up nor fails the store's writes: they go on in the log while
// the reader keeps its snapshot.
TEST_F(QuorviaDBMgrTest, AnOpenReaderOfAnotherProcessDoesNotHoldUpWrites) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a.mp3", "/d/b.mp3"});
    RawDb reader(dbPath());
    EXPECT_EQ(Texts{"wal"}, reader.column("PRAGMA journal_mode"));
    reader.exec("BEGIN");
    EXPECT_EQ(2u, reader.paths().size());
    // A writer that had to wait for the reader would fail at the busy timeout.
    EXPECT_TRUE(store.deleteMetadataByPath("/d/a.mp3"));
    EXPECT_EQ(2u, reader.paths().size());
    reader.exec("COMMIT");
    EXPECT_EQ(Paths{"/d/b.mp3"}, reader.paths());
}

}  // namespace
