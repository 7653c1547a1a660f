#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/SqliteFileStatus.h"
#include "multimedia/SqliteOwnFiles.h"
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
    // One column of every row, in order.
    Texts column(const std::string& sql) {
        Texts values;
        sqlite3_stmt* stmt = NULL;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, NULL)) << sql;
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            values.push_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
        }
        sqlite3_finalize(stmt);
        return values;
    }
    Paths paths() {
        const Texts all = column("SELECT PATH FROM quorvia");
        return Paths(all.begin(), all.end());
    }
    // Takes the file for ms milliseconds from now.
    boost::thread lockFor(int ms) {
        exec("BEGIN EXCLUSIVE");
        return boost::thread([this, ms] {
            boost::this_thread::sleep_for(boost::chrono::milliseconds(ms));
            exec("COMMIT");
        });
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

TEST_F(QuorviaDBMgrTest, FreshFileGetsBothTablesAndThePathIndex) {
    QuorviaDBMgr store(dbPath());
    RawDb raw(dbPath());
    EXPECT_EQ((Texts{"keyvalue_pairs", "quorvia", "quorvia_path"}),
              raw.column("SELECT name FROM sqlite_master WHERE sql IS NOT NULL ORDER BY name"));
    // The hit path reads without the store's lock only on a serialized
    // connection, which this platform's SQLite gives.
    EXPECT_TRUE(store.isSerialized());
}

TEST_F(QuorviaDBMgrTest, OtherVersionDropsAllRowsOnceNonNumericVersionKeepsThem) {
    // The version stored by an earlier run, and whether its rows survive.
    const std::pair<std::string, bool> cases[] = {{"1", false}, {"abc", true}, {"0", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const std::string file = root() + "/v" + c.first + ".db";
        {
            QuorviaDBMgr store(file);
            ASSERT_TRUE(store.insertToDB(row("h", "/p")));
            ASSERT_TRUE(store.insertKeyvaluePairs("db_version", c.first));
        }
        QuorviaDBMgr store(file);
        RawDb raw(file);
        EXPECT_EQ(c.second ? 1u : 0u, raw.paths().size());
        EXPECT_EQ(Texts{c.second ? c.first : "0"}, raw.column("SELECT VALUE FROM keyvalue_pairs"));
    }
}

// So does one whose path leads through a link planted on the disk, or one
// whose files include a second name of a file elsewhere: once, it made or
// overwrote a database wherever they led (regressions).
TEST_F(QuorviaDBMgrTest, StoreThatCannotOpenOrWasClosedFailsEveryOperationQuietly) {
    QuorviaDBMgr missing(root() + "/missing/dir/quorvia.db");
    EXPECT_TRUE(log_.contains("Can't open database: " + root(), google::GLOG_ERROR));
    QuorviaDBMgr closed(dbPath());
    closed.closeDB();
    closed.closeDB();
    EXPECT_EQ(1, log_.count("sqlite3_close return 0", google::GLOG_INFO));
    for (const char* folder : {"/disk", "/disk/linked", "/disk/named", "/elsewhere"}) {
        ASSERT_EQ(0, mkdir(path(folder).c_str(), 0755));
    }
    ASSERT_EQ(0, symlink("../../elsewhere", path("/disk/linked/folder").c_str()));
    ASSERT_EQ(0, symlink(path("/elsewhere/db").c_str(), path("/disk/linked/quorvia.db").c_str()));
    writeFile("/elsewhere/precious", "kept");
    ASSERT_EQ(
        0, link(path("/elsewhere/precious").c_str(), path("/disk/named/quorvia.db-shm").c_str()));
    QuorviaDBMgr linkedFolder(path("/disk/linked/folder/quorvia.db"), path("/disk"));
    QuorviaDBMgr linkedFile(path("/disk/linked/quorvia.db"), path("/disk"));
    QuorviaDBMgr secondName(path("/disk/named/quorvia.db"), path("/disk"));
    for (QuorviaDBMgr* store : {&missing, &closed, &linkedFolder, &linkedFile, &secondName}) {
        EXPECT_FALSE(store->insertToDB(row("h", "/p")));
        metadata_s metadata;
        metadata.title = "kept";
        EXPECT_TRUE(store->getMetadataByHash("h", metadata));
        EXPECT_EQ("kept", metadata.title);
        EXPECT_FALSE(store->deleteMetadataByPath("/p"));
        EXPECT_FALSE(store->deleteMetadataByRootPath("/mnt/usb1"));
        EXPECT_FALSE(store->updateFilePath("/p", "/q"));
        store->updateDirPaths("/a/", "/b/");
        EXPECT_EQ("", store->doGetFileHash("/p"));
        EXPECT_FALSE(store->isExistsFileByHash("h"));
    }
    EXPECT_EQ("precious\n", quorvia_test::capture("ls -A " + path("/elsewhere")));
    EXPECT_EQ("kept", readFile("/elsewhere/precious"));
}

// SQLite's lstat, wrapped so that the first look SQLite takes at the file
// system, after the store's own checks, swaps its folder for a link.
sqlite3_syscall_ptr gLstat = NULL;
std::function<void()> gSwap;

int swappingLstat(const char* path, struct stat* out) {
    if (gSwap) {
        const std::function<void()> swap = gSwap;
        gSwap = nullptr;
        swap();
    }
    return reinterpret_cast<int (*)(const char*, struct stat*)>(gLstat)(path, out);
}

// The store's folder lies on the disk: swapped for a link once the store has
// checked it, or planted where it was missing, it leads none of SQLite's
// files elsewhere (regressions: the store was made where the link led).
TEST_F(QuorviaDBMgrTest, AFolderSwappedForALinkAfterTheCheckLeadsNothingElsewhereRegression) {
    for (const char* folder : {"/disk", "/elsewhere"}) {
        ASSERT_EQ(0, mkdir(path(folder).c_str(), 0755));
    }
    quorvia::SqliteFileStatus::sInstall();
    sqlite3_vfs* vfs = sqlite3_vfs_find(NULL);
    gLstat = vfs->xGetSystemCall(vfs, "lstat");
    ASSERT_EQ(SQLITE_OK, vfs->xSetSystemCall(
                             vfs, "lstat", reinterpret_cast<sqlite3_syscall_ptr>(&swappingLstat)));
    for (const bool missing : {false, true}) {
        if (!missing) {
            ASSERT_EQ(0, mkdir(path("/disk/db").c_str(), 0755));
        }
        gSwap = [this] {
            rename(path("/disk/db").c_str(), path("/disk/moved").c_str());
            EXPECT_EQ(0, symlink("../elsewhere", path("/disk/db").c_str()));
        };
        {
            QuorviaDBMgr store(path("/disk/db/quorvia.db"), path("/disk"));
            EXPECT_EQ(!missing, store.insertToDB(row("h", "/p")));
        }
        gSwap = nullptr;
        EXPECT_EQ("", quorvia_test::capture("ls -A " + path("/elsewhere"))) << missing;
        unlink(path("/disk/db").c_str());
    }
    vfs->xSetSystemCall(vfs, "lstat", gLstat);
    EXPECT_EQ(1u, RawDb(path("/disk/moved/quorvia.db")).paths().size());
}

// SQLite opens a store's journal by name at each write. A hard link planted
// there once the store was open got the journal, pages of rows included,
// written into the file it named (regression); nor may a symbolic link or a
// FIFO take it. Each write fails while the plant stays, and no more.
TEST_F(QuorviaDBMgrTest, FilesPlantedBesideAnOpenStoreAreNeverWrittenThroughRegression) {
    quorvia::SqliteOwnFiles::sInstall();
    RawDb raw(dbPath());
    raw.exec("PRAGMA journal_mode=DELETE; CREATE TABLE t(x); INSERT INTO t VALUES(0)");
    // SQLite's source of random numbers is still read (it was refused).
    raw.exec("SELECT randomblob(16)");
    EXPECT_FALSE(log_.contains("/dev/urandom"));
    writeFile("/victim", "");
    const std::string journal = quorvia_test::quoted(dbPath() + "-journal");
    for (const std::string& plant :
         {"ln " + quorvia_test::quoted(path("/victim")),
          "ln -s " + quorvia_test::quoted(path("/victim")), std::string("mkfifo")}) {
        SCOPED_TRACE(plant);
        ASSERT_EQ(0, shell(plant + " " + journal));
        sqlite3* db = NULL;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(dbPath().c_str(), &db));
        EXPECT_NE(SQLITE_OK, sqlite3_exec(db, "INSERT INTO t VALUES(1)", NULL, NULL, NULL));
        sqlite3_close(db);
        EXPECT_EQ("", quorvia_test::slurp(path("/victim")));
        ASSERT_EQ(0, shell("rm " + journal));
    }
    raw.exec("INSERT INTO t VALUES(2)");
    EXPECT_EQ((Texts{"0", "2"}), raw.column("SELECT x FROM t"));
}

// A disk remounted read-only (the router's answer to a file system error)
// is still read, also when the last client to close the store took the
// write-ahead log's index file with it (regression: every lookup failed);
// but not past a journal that an interrupted write left, whose torn rows
// it would read, nor through a read-only view of a disk that others still
// write (regressions); and whatever its path (regression: "//").
TEST_F(QuorviaDBMgrTest, AStoreOnAReadOnlyDiskIsStillReadRegression) {
    // Mounts for this thread alone, in a namespace of its own.
    if (unshare(CLONE_NEWNS) != 0) {
        GTEST_SKIP() << "no mount namespace: " << strerror(errno);
    }
    const std::string disk = root() + "/disk ?#%41", view = root() + "/view";
    const std::string file = disk + "/quorvia.db", torn = disk + "/torn.db";
    ASSERT_EQ(0, mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL));
    for (const std::string& folder : {disk, view}) {
        ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    }
    ASSERT_EQ(0, mount("tmpfs", disk.c_str(), "tmpfs", 0, NULL));
    for (const std::string& store : {file, torn}) {
        ASSERT_TRUE(QuorviaDBMgr(store).insertToDB(row("h", "/p", "stored")));
    }
    quorvia_test::writeAll(torn + "-journal", std::string(4096, 'j'));
    ASSERT_NE(0, access((file + "-shm").c_str(), F_OK));
    ASSERT_EQ(0, mount(disk.c_str(), view.c_str(), NULL, MS_BIND, NULL));
    ASSERT_EQ(0, mount(NULL, view.c_str(), NULL, MS_REMOUNT | MS_BIND | MS_RDONLY, NULL));
    const auto lookup = [this](const std::string& store) {
        writeFile("/proc/self/mountinfo", quorvia_test::slurp("/proc/self/mountinfo"));
        metadata_s metadata;
        QuorviaDBMgr opened(store);
        EXPECT_TRUE(opened.getMetadataByHash("h", metadata));
        EXPECT_FALSE(opened.insertToDB(row("g", "/q"))) << store;
        return metadata.title;
    };
    EXPECT_EQ("", lookup(view + "/quorvia.db"));
    ASSERT_EQ(0, mount(NULL, disk.c_str(), NULL, MS_REMOUNT | MS_RDONLY, NULL));
    EXPECT_EQ("stored", lookup(file));
    EXPECT_EQ("stored", lookup("/" + file));
    EXPECT_EQ("", lookup(torn));
    EXPECT_TRUE(log_.contains("is on a read-only disk", google::GLOG_WARNING));
    EXPECT_EQ(0, umount2(view.c_str(), MNT_DETACH) + umount2(disk.c_str(), MNT_DETACH));
}

// Where time_t has 32 bits, SQLite's own stat() failed for a store, or a
// folder above it, dated past 2038: the store never opened (regression).
TEST_F(QuorviaDBMgrTest, AStoreDatedPast2038OpensLikeAnyOtherRegression) {
    { QuorviaDBMgr made(dbPath()); }
    ASSERT_EQ(0, shell("touch -d 2040-01-01 " + quorvia_test::quoted(root()) + " " +
                       quorvia_test::quoted(dbPath())));
    QuorviaDBMgr store(dbPath());
    ASSERT_TRUE(store.insertToDB(row("h", "/p", "stored")));
    metadata_s metadata;
    store.getMetadataByHash("h", metadata);
    EXPECT_EQ("stored", metadata.title);
}

TEST_F(QuorviaDBMgrTest, RecordsRoundTripWholeAndAMissLeavesTheCallersRecord) {
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
    EXPECT_EQ(context.metadata.title + "|-5|image/jpeg|90|ärtist|album",
              read.title + "|" + std::to_string(read.date) + "|" + read.mime + "|" + read.duration +
                  "|" + read.artist + "|" + read.album);
    EXPECT_EQ(Paths{context.path}, RawDb(dbPath()).paths());
    EXPECT_TRUE(store.getMetadataByHash("absent", read));
    EXPECT_EQ(context.metadata.title, read.title);
    // Its folder, held open and named through /proc, is no planted link.
    EXPECT_FALSE(log_.contains("the store's file"));
}

TEST_F(QuorviaDBMgrTest, DeleteAndUpdateByPathTakeTheExactPathOnly) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a.jpg", "/d/a.jpg", "/d/a.jpg/below", "/d/A.JPG", "/", "/a/x.jpg", "/a/x.jpg",
                 "/a/x.jpg.bak"});
    EXPECT_TRUE(store.deleteMetadataByPath("/d/a.jpg/"));
    EXPECT_TRUE(store.deleteMetadataByPath("/"));
    EXPECT_TRUE(store.deleteMetadataByPath("/nothing"));
    EXPECT_TRUE(store.updateFilePath("/a/x.jpg/", "/b/y.jpg/"));
    EXPECT_TRUE(store.updateFilePath("/nothing", "/else"));
    EXPECT_EQ((Texts{"/d/a.jpg/below", "/d/A.JPG", "/b/y.jpg", "/b/y.jpg", "/a/x.jpg.bak"}),
              RawDb(dbPath()).column("SELECT PATH FROM quorvia ORDER BY HASH"));
}

TEST_F(QuorviaDBMgrTest, UnmountMatchesWholeComponentsIgnoringAsciiCase) {
    const Texts paths = {"/mnt/usb1",
                         "/mnt/usb1/a.jpg",
                         "/MNT/USB1/b.jpg",
                         "/mnt/usb10/a.jpg",
                         "/mnt/usb1x",
                         "/mnt/usb%/c.jpg",
                         "/mnt/usb_/d.jpg",
                         "/mnt/usbX/e.jpg",
                         "/mnt/us\\b/f.jpg",
                         "/mnt/us\xE8"
                         "b/g.jpg"};
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
        // Bytes that are not UTF-8 are not all one character (regression),
        // and a doubled slash still names the disk (regression).
        {"/mnt/us\xE9"
         "b",
         true,
         {}},
        {"/mnt/usb1//", true, {"/mnt/usb1", "/mnt/usb1/a.jpg", "/MNT/USB1/b.jpg"}},
        // Roots that would take every disk's rows are refused.
        {"", false, {}},
        {"/", false, {}},
        {"//", false, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.root);
        const std::string file = root() + "/u" + std::to_string(&c - cases) + ".db";
        QuorviaDBMgr store(file);
        fill(store, paths);
        EXPECT_EQ(c.ran, store.deleteMetadataByRootPath(c.root));
        Paths left(paths.begin(), paths.end());
        for (const std::string& path : c.gone) {
            left.erase(path);
        }
        EXPECT_EQ(left, RawDb(file).paths());
    }
}

TEST_F(QuorviaDBMgrTest, UpdateDirPathsRewritesRowsBelowTheDirectoryOnly) {
    // "/d/a0" is the first path past every "/d/a/...".
    const Texts paths = {"/d/a/x.jpg", "/d/a/sub/y.jpg", "/d/ab/z.jpg",  "/D/A/case.jpg",
                         "/d/a",       "/d/a%/w.jpg",    "/e/d/a/u.jpg", "/d/a0"};
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
        // Not a pattern: "%" matches itself only.
        {"/d/a%/", "/m/", {{5, "/m/w.jpg"}}},
        {"/nothing/", "/m/", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.oldDir + std::string(" -> ") + c.newDir);
        const std::string file = root() + "/m" + std::to_string(&c - cases) + ".db";
        QuorviaDBMgr store(file);
        fill(store, paths);
        store.updateDirPaths(c.oldDir, c.newDir);
        Texts after(paths);
        for (const auto& change : c.changed) {
            after[change.first] = change.second;
        }
        EXPECT_EQ(after, RawDb(file).column("SELECT PATH FROM quorvia ORDER BY "
                                            "CAST(substr(HASH,2) AS INTEGER)"));
    }
    // A slice that fails moves none of its rows and ends the move; the
    // slices before it stay moved, and the store stays usable.
    QuorviaDBMgr store(dbPath());
    RawDb raw(dbPath());
    const std::size_t slice = QuorviaDBMgr::kMoveSliceRows, rows = slice + 2;
    raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
             std::to_string(rows) +
             ") INSERT INTO quorvia(HASH, PATH) SELECT 'h' || i, '/d/a/' || i "
             "FROM n");
    raw.exec("CREATE TRIGGER refuse BEFORE UPDATE ON quorvia WHEN NEW.PATH='/n/" +
             std::to_string(rows) + "' BEGIN SELECT RAISE(ABORT, 'refused'); END");
    store.updateDirPaths("/d/a/", "/n/");
    const std::string count = "SELECT count(*) FROM quorvia WHERE PATH LIKE ";
    EXPECT_EQ(Texts{std::to_string(slice)}, raw.column(count + "'/n/%'"));
    EXPECT_EQ(Texts{"2"}, raw.column(count + "'/d/a/%'"));
    EXPECT_TRUE(store.updateFilePath("/d/a/1001", "/z.jpg"));
    EXPECT_EQ(Texts{"/z.jpg"}, raw.column("SELECT PATH FROM quorvia WHERE HASH = 'h1001'"));
}

// A folder of many files renamed in one transaction grew the write-ahead log
// by megabytes that stayed on the disk for good (regression).
TEST_F(QuorviaDBMgrTest, TheLogShrinksBackAfterABigFolderMoveRegression) {
    QuorviaDBMgr store(dbPath());
    RawDb(dbPath()).exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
        "INSERT INTO quorvia(HASH, PATH) SELECT 'h' || i, '/big/' || i || '" +
        std::string(100, 'x') + "' FROM n");
    store.updateDirPaths("/big/", "/moved/");
    EXPECT_EQ(Texts{"20000"},
              RawDb(dbPath()).column("SELECT count(*) FROM quorvia WHERE PATH LIKE '/moved/%'"));
    ASSERT_TRUE(store.insertToDB(row("small", "/s")));
    struct stat log;
    ASSERT_EQ(0, stat((dbPath() + "-wal").c_str(), &log));
    EXPECT_LE(log.st_size, QuorviaDBMgr::kMaxKeptLogBytes);
}

TEST_F(QuorviaDBMgrTest, FileHashIsCachedByPath) {
    QuorviaDBMgr store(dbPath());
    const std::string abc = "a9993e364706816aba3e25717850c26c9cd0d89d";
    const std::string file = path("/data/a.bin");
    // What cannot be hashed is stored under the empty hash and retried.
    EXPECT_EQ("", store.getFileHash(file));
    writeFile("/data/a.bin", "abc");
    EXPECT_EQ(abc, store.getFileHash(file));
    EXPECT_TRUE(store.isExistsFileByHash(abc));
    // Answered from the row, also after the file changed or went.
    ASSERT_TRUE(store.deleteMetadataByPath(file));
    EXPECT_EQ(abc, store.getFileHash(file));
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

// Another process on the file. One holding it for less than
// kBusyTimeoutMillis delays a delete; it does not make it fail and leave the
// row. A folder or file move that could not write within the busy timeout
// was dropped with only "database is locked": its rows stayed behind.
// An operator's reader with a transaction open (a backup, the sqlite3 shell)
// neither holds up nor fails the writes: they go on in the log while the
// reader keeps its snapshot.
TEST_F(QuorviaDBMgrTest, WritesWaitForAnotherProcessLockAndPassItsOpenReaderRegression) {
    QuorviaDBMgr store(dbPath());
    fill(store, {"/d/a.mp3", "/d/b.mp3", "/d/old/a.mp3", "/d/old/b.mp3"});
    RawDb raw(dbPath());
    boost::thread release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis / 10);
    EXPECT_TRUE(store.deleteMetadataByPath("/d/a.mp3"));
    release.join();
    release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4);
    store.updateDirPaths("/d/old/", "/d/new/");
    release.join();
    EXPECT_EQ((Paths{"/d/b.mp3", "/d/new/a.mp3", "/d/new/b.mp3"}), raw.paths());
    release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4);
    EXPECT_TRUE(store.updateFilePath("/d/new/b.mp3", "/d/new/c.mp3"));
    release.join();
    EXPECT_EQ((Paths{"/d/b.mp3", "/d/new/a.mp3", "/d/new/c.mp3"}), raw.paths());
    // The lock outlasted the busy timeout: the moves were tried again.
    EXPECT_TRUE(log_.contains("updateDirPaths waits for the store", google::GLOG_WARNING));
    EXPECT_TRUE(log_.contains("updateFilePath waits for the store", google::GLOG_WARNING));

    raw.exec("BEGIN");
    EXPECT_EQ(3u, raw.paths().size());
    // A writer that had to wait for the reader would fail at the busy timeout.
    EXPECT_TRUE(store.deleteMetadataByPath("/d/b.mp3"));
    EXPECT_EQ(3u, raw.paths().size());
    raw.exec("COMMIT");
    EXPECT_EQ(2u, raw.paths().size());

    // So does the check against the disk, which removes rows by rowid.
    std::vector<QuorviaDBMgr::StoredPath> left;
    ASSERT_TRUE(store.getRowsBelowAfter("/d/new", 0, 10, left));
    release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4);
    EXPECT_TRUE(store.deleteRowids({left.front().first}));
    release.join();
    EXPECT_EQ(1u, raw.paths().size());
}

// A store that stayed in the old journal mode (held by another process
// while it opened) is held from readers too: a folder move whose listing
// failed took it for an empty folder and ended without a word, its rows
// left behind (regression).
TEST_F(QuorviaDBMgrTest, AFolderMoveWhoseListingFindsTheStoreHeldWaitsRegression) {
    {
        QuorviaDBMgr made(dbPath());
        fill(made, {"/d/old/a.mp3", "/d/old/b.mp3"});
    }
    RawDb raw(dbPath());
    raw.exec("PRAGMA journal_mode=DELETE");
    boost::thread release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4);
    QuorviaDBMgr store(dbPath());
    release.join();
    release = raw.lockFor(QuorviaDBMgr::kBusyTimeoutMillis * 5 / 4);
    store.updateDirPaths("/d/old/", "/d/new/");
    release.join();
    EXPECT_EQ((Paths{"/d/new/a.mp3", "/d/new/b.mp3"}), raw.paths());
}

}  // namespace
