// Faults of the device, each met by the real daemon on a device root of its
// own: killed in the middle of a folder move, a database that is garbage or
// lies on a full disk, a data folder that went away and came back. Requests
// keep being answered, the store stays whole, and rows follow again without
// a restart.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "multimedia/QuorviaDBMgr.h"
#include "sdk/utils/ThriftClient.h"
#include "support/DaemonTest.h"

namespace {

using namespace quorvia_test;

class DeviceFaultsDaemonTest : public DaemonTest {
protected:
    virtual void SetUp() {
        DaemonTest::SetUp();
        ASSERT_EQ(0, shell("mkdir -p " + quoted(database_)));
    }

    // An audio request: its row carries the hash and path given.
    static std::string audio(const std::string& hash, const std::string& path) {
        return ThriftClient::sCallQuorvia(R"({"api":1,"path":")" + path + R"(","name":")" + hash +
                                          R"(.mp3","hash":")" + hash + R"("})");
    }
    // The answer to audio(hash, ...) when the file has no row yet.
    static std::string record(const std::string& hash) {
        return R"({ "code": 0, "msg": "", "title": ")" + hash +
               R"(.mp3", "mime": "", "album": "", "artist": "", "duration": "", "date": 0 })";
    }

    std::string count(const std::string& folder) {
        return sql("SELECT count(*) FROM quorvia WHERE PATH LIKE '" + data_ + "/" + folder + "/%'");
    }
};

// Killed at several moments after the quiet second of a move of 20,000
// indexed files, while peers insert: every answer until the kill is right,
// the store is whole, every answered insert has its row, and the folder's
// rows have moved in whole slices.
TEST_F(DeviceFaultsDaemonTest, KilledDuringAFolderMoveLeavesAWholeStore) {
    const std::string files = "20000";
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data_ + "/a") + " && cd " +
                       quoted(data_ + "/a") + " && seq 1 " + files +
                       " | sed 's/$/.mp3/' | xargs touch"));
    startDaemon();
    ASSERT_EQ(record("x"), audio("x", data_ + "/x.mp3"));
    sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + files +
        ") INSERT INTO quorvia(HASH, PATH, TITLE, DATE) SELECT 'f' || i, '" + data_ +
        "/a/' || i || '.mp3', 't', 0 FROM n");
    std::string from = "a", to = "b";
    for (int millis : {1000, 1150, 1400}) {
        SCOPED_TRACE(millis);
        std::atomic<bool> stop(false);
        std::vector<std::string> answered[4];
        std::vector<std::thread> peers;
        for (int p = 0; p < 4; ++p) {
            peers.emplace_back([&, p] {
                for (int n = 0; !stop; ++n) {
                    const std::string hash = "p" + std::to_string(millis) + "-" +
                                             std::to_string(p) + "-" + std::to_string(n);
                    const std::string answer = audio(hash, data_ + "/" + hash + ".mp3");
                    if (!answer.empty()) {
                        EXPECT_EQ(record(hash), answer);
                        answered[p].push_back(hash);
                    }
                }
            });
        }
        ASSERT_EQ(0, shell("mv " + quoted(data_ + "/" + from) + " " +
                           quoted(data_ + "/" + to)));
        usleep(millis * 1000);
        daemon_.stop();
        stop = true;
        for (std::thread& peer : peers) {
            peer.join();
        }
        EXPECT_EQ("ok\n", sql("PRAGMA integrity_check"));
        const std::string before = count(from), after = count(to);
        EXPECT_EQ(std::stoul(files), std::stoul(before) + std::stoul(after));
        EXPECT_EQ(0u, std::stoul(after) % quorvia::QuorviaDBMgr::kMoveSliceRows) << after;
        std::string list;
        std::size_t total = 0;
        for (const std::vector<std::string>& hashes : answered) {
            for (const std::string& hash : hashes) {
                list += (list.empty() ? "'" : ",'") + hash + "'";
                ++total;
            }
        }
        EXPECT_EQ(std::to_string(total) + "\n",
                  sql("SELECT count(*) FROM quorvia WHERE HASH IN (" + list + ")"));
        // The next move starts where the rows are.
        if (after == files + "\n") {
            std::swap(from, to);
        } else {
            ASSERT_EQ(0, shell("mv " + quoted(data_ + "/" + to) + " " +
                               quoted(data_ + "/" + from)));
        }
        startDaemon();
    }
}

// A database that is garbage, deleted while open, or that can't grow on a
// full disk: requests are answered through their failure paths and the log
// says why; once space returns, rows are stored again without a restart.
TEST_F(DeviceFaultsDaemonTest, GarbageDeletedAndFullDatabasesAnswerAndRecover) {
    writeFile("/userdisk/data/.systemconfig/DataBase/quorvia.db", std::string(8192, 'g'));
    startDaemon();
    EXPECT_NE("", audio("g1", data_ + "/g1.mp3"));
    EXPECT_TRUE(daemonSaid("file is not a database"));
    daemon_.stop();

    // A database deleted under the running daemon: answered, and said.
    ASSERT_EQ(0, shell("rm -f " + quoted(database_) + "/quorvia.db*"));
    startDaemon();
    EXPECT_NE("", audio("d0", data_ + "/d0.mp3"));
    ASSERT_EQ(0, shell("rm -f " + quoted(database_) + "/quorvia.db*"));
    EXPECT_NE("", audio("d1", data_ + "/d1.mp3"));
    EXPECT_TRUE(daemonSaid("is not the one open any more"));
    daemon_.stop();

    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) {
        GTEST_SKIP() << "a small file system of the test's own needs root and mount namespaces";
    }
    ASSERT_EQ(0, shell("rm -rf " + quoted(database_) + " && mkdir -p " +
                       quoted(database_)));
    ASSERT_EQ(0, mount("tmpfs", database_.c_str(), "tmpfs", 0, "size=512k"));
    startDaemon();
    EXPECT_NE("", audio("before", data_ + "/before.mp3"));
    ASSERT_NE(0, shell("cat /dev/zero > " + quoted(database_ + "/filler") +
                       " 2>/dev/null"));
    for (int i = 0; i < 50; ++i) {
        EXPECT_NE("", audio("full" + std::to_string(i), data_ + "/f.mp3"));
    }
    EXPECT_TRUE(daemonSaid("full"));
    ASSERT_EQ(0, unlink((database_ + "/filler").c_str()));
    EXPECT_NE("", audio("after", data_ + "/after.mp3"));
    EXPECT_TRUE(waitUntil([&] {
        return sql("SELECT count(*) FROM quorvia WHERE HASH IN ('before','after')") == "2\n";
    })) << sql("SELECT HASH FROM quorvia");
    EXPECT_EQ("ok\n", sql("PRAGMA integrity_check"));
    // The folder it was mounted on can be removed with the rest of the root.
    EXPECT_EQ(0, umount2(database_.c_str(), MNT_DETACH));
}

// A disk replaced by another while followed: moves in the new data folder
// carry their rows again without a restart.
TEST_F(DeviceFaultsDaemonTest, ADataFolderReplacedIsFollowedAgain) {
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data_ + "/new") + " && touch " +
                       quoted(data_ + "/new/one.mp3")));
    startDaemon();
    ASSERT_NE("", audio("r1", data_ + "/new/one.mp3"));
    ASSERT_EQ(0, shell("mv " + quoted(data_) + " " +
                       quoted(path("/userdisk/old")) + " && mkdir -p " +
                       quoted(data_ + "/new") + " && touch " +
                       quoted(data_ + "/new/one.mp3")));
    // The store's open file went along with the old folder.
    database_ = path("/userdisk/old/.systemconfig/DataBase");
    const std::string watched = "add inotify watch " + data_ + "/new";
    ASSERT_TRUE(waitUntil([&] {
        const std::string err = slurp(path("/daemon.err"));
        return err.find(watched) != err.rfind(watched);
    })) << "the new data folder is not watched";
    ASSERT_EQ(0, shell("mv " + quoted(data_ + "/new") + " " +
                       quoted(data_ + "/moved")));
    EXPECT_TRUE(waitUntil([&] {
        return sql("SELECT PATH FROM quorvia WHERE HASH = 'r1'") == data_ + "/moved/one.mp3\n";
    })) << sql("SELECT PATH FROM quorvia WHERE HASH = 'r1'");
}

}  // namespace
