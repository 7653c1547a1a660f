#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "sdk/utils/ThriftClient.h"
#include "support/DaemonProcess.h"
#include "support/DeviceRootTest.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_test::capture;

const long kFollowMillis = 5000;

// The real daemon following $QUORVIA_ROOT/userdisk/data; the rows it keeps
// are read with the sqlite3 command, as an operator would.
class FollowDiskDaemonTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        database_ = data_ + "/.systemconfig/DataBase/quorvia.db";
        ASSERT_EQ(0, shell("mkdir -p " + quorvia_test::quoted(data_)));
    }

    // Starts the daemon on a tree made beforehand and returns once it listens
    // and watches at least `folders` folders.
    void startDaemon(int folders) {
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

    // Makes the files (relative to the data folder) before the daemon starts;
    // index() then makes a row for each through a request.
    void makeFiles(const std::vector<std::pair<std::string, std::string>>& hashAndFile) {
        for (const auto& item : hashAndFile) {
            const std::string file = data_ + "/" + item.second;
            ASSERT_EQ(0, shell("mkdir -p \"$(dirname " + quorvia_test::quoted(file) + ")\" && touch " + quorvia_test::quoted(file)));
        }
    }

    void index(const std::vector<std::pair<std::string, std::string>>& hashAndFile) {
        for (const auto& item : hashAndFile) {
            ASSERT_NE("", ask(item.first, data_ + "/" + item.second));
        }
    }

    static std::string ask(const std::string& hash, const std::string& file) {
        return ThriftClient::sCallQuorvia("{\"api\":1,\"path\":\"" + file + "\",\"name\":\"" + hash +
                                          "\",\"hash\":\"" + hash + "\"}");
    }

    std::string sql(const std::string& statement) {
        int status = -1;
        return capture("sqlite3 -cmd '.timeout 5000' " + quorvia_test::quoted(database_) + " " + quorvia_test::quoted(statement),
                       status);
    }

    // "HASH PATH" lines, the data folder written as "~".
    std::string rows() {
        return sql("SELECT HASH || ' ' || REPLACE(PATH, '" + data_ + "', '~') FROM quorvia "
                   "WHERE HASH NOT LIKE 'big%' ORDER BY HASH");
    }

    // Polls the store until rows() reads expected, or the wait runs out.
    void expectRowsFollow(const std::string& expected) {
        waitUntil([&] { return rows() == expected; });
        EXPECT_EQ(expected, rows());
    }

    static bool waitUntil(const std::function<bool()>& done) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kFollowMillis);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            usleep(50 * 1000);
        }
        return true;
    }

    void move(const std::string& shellCommand) {
        ASSERT_EQ(0, shell("cd " + quorvia_test::quoted(data_) + " && " + shellCommand));
    }

    quorvia_test::DaemonProcess daemon_;
    std::string data_;
    std::string database_;
};

TEST_F(FollowDiskDaemonTest, RowsFollowFilesAndFoldersChangedWithTheShell) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"h1", "a/one.mp3"},       {"h2", "a/two.mp3"},  {"h3", "a/three.mp3"},
        {"h4", "c/sub/four.mp3"},  {"h5", "c/five.mp3"}, {"h6", "keep.mp3"},
        {"h7", "cc/seven.mp3"},    {"h8", "gone/eight.mp3"}};
    makeFiles(files);
    ASSERT_EQ(0, shell("mkdir -p " + quorvia_test::quoted(data_ + "/b") + " " + quorvia_test::quoted(data_ + "/e")));
    startDaemon(8);
    index(files);
    // Files deleted, renamed and moved between folders; a folder renamed,
    // and a sibling that shares its name's start left alone.
    move("rm a/one.mp3 && mv a/two.mp3 a/deux.mp3 && mv a/three.mp3 b/ && mv c d");
    expectRowsFollow(
        "h2 ~/a/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/d/sub/four.mp3\nh5 ~/d/five.mp3\n"
        "h6 ~/keep.mp3\nh7 ~/cc/seven.mp3\nh8 ~/gone/eight.mp3\n");
    // A whole folder moved into another, one renamed in place, one removed.
    move("mv d e/ && mv e/d/sub e/d/under && rm -rf gone");
    expectRowsFollow(
        "h2 ~/a/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/e/d/under/four.mp3\nh5 ~/e/d/five.mp3\n"
        "h6 ~/keep.mp3\nh7 ~/cc/seven.mp3\n");
    // The moved rows answer the next request from the store.
    EXPECT_EQ(ask("h5", data_ + "/e/d/five.mp3"), ask("h5", data_ + "/e/d/five.mp3"));
}

TEST_F(FollowDiskDaemonTest, RequestsAreAnsweredWhileALargeFolderIsRewritten) {
    const int kRows = 2000;
    makeFiles({{"h1", "keep.mp3"}, {"h2", "big/f.mp3"}});
    startDaemon(2);
    index({{"h1", "keep.mp3"}});
    const std::string hit = ask("h1", data_ + "/keep.mp3");
    sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(kRows) +
        ") INSERT INTO quorvia(HASH, PATH, TITLE, DATE, MIME, DURATION, ARTIST, ALBUM) "
        "SELECT 'big' || i, '" + data_ + "/big/f' || i || '.mp3', 't', 0, '', '', '', '' FROM n");
    const std::string moved = "SELECT COUNT(*) FROM quorvia WHERE PATH LIKE '" + data_ + "/moved/%'";
    ASSERT_EQ(std::to_string(kRows) + "\n",
              sql("SELECT COUNT(*) FROM quorvia WHERE PATH LIKE '" + data_ + "/big/%'"));
    move("mv big moved");
    const bool followed = waitUntil([&] {
        EXPECT_EQ(hit, ask("h1", data_ + "/keep.mp3"));
        return sql(moved) == std::to_string(kRows) + "\n";
    });
    EXPECT_TRUE(followed) << sql(moved);
    EXPECT_EQ("h1 ~/keep.mp3\n", rows());
}

}  // namespace
