#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "sdk/utils/ThriftClient.h"
#include "support/DaemonProcess.h"
#include "support/DeviceRootTest.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_test::capture;

typedef std::vector<std::string> Files;

// The real daemon following $QUORVIA_ROOT/userdisk/data; the rows it keeps
// are read with the sqlite3 command, as an operator would.
class FollowDiskDaemonTest : public quorvia_test::DaemonTest {
protected:
    virtual void SetUp() {
        DaemonTest::SetUp();
        data_ = path("/userdisk/data");
    }

    // Makes the files (below the data folder), starts the daemon and returns
    // once it listens and watches at least `folders` folders.
    void startDaemon(const Files& files, int folders) {
        for (const std::string& file : files) {
            const std::string full = quorvia_test::quoted(data_ + "/" + file);
            ASSERT_EQ(0, shell("mkdir -p \"$(dirname " + full + ")\" && touch " + full));
        }
        ASSERT_TRUE(daemon_.start(path(""), {"-d"}));
        ASSERT_TRUE(quorvia_test::waitForListener(ThriftClient::PORT_))
            << quorvia_test::slurp(path("/daemon.err"));
        ASSERT_TRUE(waitUntil([&] { return watches() >= folders; })) << watches();
    }

    int watches() {
        int status = -1;
        return atoi(capture("cat /proc/" + std::to_string(daemon_.pid()) +
                                "/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'",
                            status)
                        .c_str());
    }

    // Asks for file i of files under hash "h<i+1>", which makes its row.
    std::string ask(const Files& files, std::size_t i) {
        const std::string hash = "h" + std::to_string(i + 1);
        return ThriftClient::sCallQuorvia("{\"api\":1,\"path\":\"" + data_ + "/" + files[i] +
                                          "\",\"name\":\"" + hash + "\",\"hash\":\"" + hash +
                                          "\"}");
    }

    std::string sql(const std::string& statement) {
        int status = -1;
        const std::string database = data_ + "/.systemconfig/DataBase/quorvia.db";
        return capture("sqlite3 -cmd '.timeout 5000' " + quorvia_test::quoted(database) + " " +
                           quorvia_test::quoted(statement),
                       status);
    }

    // "HASH PATH" lines, the data folder written as "~".
    std::string rows() {
        return sql("SELECT HASH || ' ' || REPLACE(PATH, '" + data_ + "', '~') FROM quorvia "
                   "WHERE HASH NOT LIKE 'big%' ORDER BY HASH");
    }

    // Changes the tree with the shell, then polls the store until rows()
    // reads expected or the wait runs out.
    void expectRowsFollow(const std::string& shellCommand, const std::string& expected) {
        ASSERT_EQ(0, shell("cd " + quorvia_test::quoted(data_) + " && " + shellCommand));
        waitUntil([&] { return rows() == expected; });
        EXPECT_EQ(expected, rows());
    }

    static bool waitUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            usleep(50 * 1000);
        }
        return true;
    }

    quorvia_test::DaemonProcess daemon_;
    std::string data_;
};

TEST_F(FollowDiskDaemonTest, RowsFollowFilesAndFoldersChangedWithTheShell) {
    const Files files = {"a/one.mp3",  "a/two.mp3",    "a/three.mp3", "c/sub/four.mp3",
                         "c/five.mp3", "keep.mp3",     "cc/seven.mp3", "gone/eight.mp3",
                         "b/x.txt",    "e/x.txt"};
    startDaemon(files, 8);
    for (std::size_t i = 0; i < 8; ++i) {
        ASSERT_NE("", ask(files, i));
    }
    // Files deleted, renamed and moved between folders; a folder renamed,
    // and a sibling that shares its name's start left alone.
    expectRowsFollow("rm a/one.mp3 && mv a/two.mp3 a/deux.mp3 && mv a/three.mp3 b/ && mv c d",
                     "h2 ~/a/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/d/sub/four.mp3\nh5 ~/d/five.mp3\n"
                     "h6 ~/keep.mp3\nh7 ~/cc/seven.mp3\nh8 ~/gone/eight.mp3\n");
    // A whole folder moved into another, one renamed in place, one removed.
    expectRowsFollow("mv d e/ && mv e/d/sub e/d/under && rm -rf gone",
                     "h2 ~/a/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/e/d/under/four.mp3\n"
                     "h5 ~/e/d/five.mp3\nh6 ~/keep.mp3\nh7 ~/cc/seven.mp3\n");
    // Within one quiet second: a file renamed then written, one renamed twice,
    // and a file removed from a folder just moved (the rows once stayed at the
    // old names, and the subfolder's event was lost with its watch).
    expectRowsFollow("mv keep.mp3 kept.mp3 && echo more >> kept.mp3 && mv cc/seven.mp3 cc/sept.mp3"
                     " && mv cc/sept.mp3 cc/sieben.mp3 && mv e f && rm f/d/five.mp3",
                     "h2 ~/a/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/f/d/under/four.mp3\n"
                     "h6 ~/kept.mp3\nh7 ~/cc/sieben.mp3\n");
}

TEST_F(FollowDiskDaemonTest, RequestsAreAnsweredWhileALargeFolderIsRewritten) {
    const std::string kRows = "2000";
    const Files files = {"keep.mp3", "big/f.mp3"};
    startDaemon(files, 2);
    const std::string hit = ask(files, 0);
    ASSERT_NE("", hit);
    sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + kRows +
        ") INSERT INTO quorvia(HASH, PATH, TITLE, DATE, MIME, DURATION, ARTIST, ALBUM) "
        "SELECT 'big' || i, '" + data_ + "/big/f' || i || '.mp3', 't', 0, '', '', '', '' FROM n");
    const std::string inBig = "SELECT COUNT(*) FROM quorvia WHERE PATH LIKE '" + data_ + "/";
    ASSERT_EQ(kRows + "\n", sql(inBig + "big/%'"));
    ASSERT_EQ(0, shell("cd " + quorvia_test::quoted(data_) + " && mv big moved"));
    const bool followed = waitUntil([&] {
        EXPECT_EQ(hit, ask(files, 0));
        return sql(inBig + "moved/%'") == kRows + "\n";
    });
    EXPECT_TRUE(followed) << sql(inBig + "moved/%'");
    EXPECT_EQ("h1 ~/keep.mp3\n", rows());
}

}  // namespace
