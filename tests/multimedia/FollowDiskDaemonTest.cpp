#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "sdk/utils/ThriftClient.h"
#include "support/DaemonTest.h"

namespace {

using namespace quorvia_test;

typedef std::vector<std::string> Files;

// The real daemon following $QUORVIA_ROOT/userdisk/data.
class FollowDiskDaemonTest : public quorvia_test::DaemonTest {
protected:
    // Makes the files (below the data folder), starts the daemon and returns
    // once it watches at least `folders` folders.
    void startFollowing(const Files& files, int folders) {
        for (const std::string& file : files) {
            const std::string full = quoted(data_ + "/" + file);
            ASSERT_EQ(0, shell("mkdir -p \"$(dirname " + full + ")\" && touch " + full));
        }
        startDaemon();
        ASSERT_TRUE(waitUntil([&] { return watches() >= folders; })) << watches();
    }

    int watches() {
        return atoi(capture("cat /proc/" + std::to_string(daemon_.pid()) +
                            "/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'")
                        .c_str());
    }

    // Asks for file i of files under hash "h<i+1>", which makes its row.
    std::string ask(const Files& files, std::size_t i) {
        const std::string hash = "h" + std::to_string(i + 1);
        return ThriftClient::sCallQuorvia("{\"api\":1,\"path\":\"" + data_ + "/" + files[i] +
                                          "\",\"name\":\"" + hash + "\",\"hash\":\"" + hash +
                                          "\"}");
    }

    // "HASH PATH" lines, the data folder written as "~".
    std::string rows() {
        return sql("SELECT HASH || ' ' || REPLACE(PATH, '" + data_ + "', '~') FROM quorvia "
                   "ORDER BY HASH");
    }

    // Changes the tree with the shell, then polls the store until rows()
    // reads expected or the wait runs out.
    void expectRowsFollow(const std::string& shellCommand, const std::string& expected) {
        ASSERT_EQ(0, shell("cd " + quoted(data_) + " && " + shellCommand));
        waitUntil([&] { return rows() == expected; });
        EXPECT_EQ(expected, rows());
    }
};

TEST_F(FollowDiskDaemonTest, RowsFollowFilesAndFoldersChangedWithTheShell) {
    const Files files = {"a/one.mp3",  "a/two.mp3",    "a/three.mp3", "c/sub/four.mp3",
                         "c/five.mp3", "keep.mp3",     "cc/seven.mp3", "gone/eight.mp3",
                         "b/x.txt",    "e/x.txt"};
    startFollowing(files, 8);
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
    // A folder and a file renamed, and others of their old names made and
    // removed, within one quiet second: the rows once went with the deletes.
    expectRowsFollow(
        "mv a z && mkdir a && rmdir a && mv kept.mp3 k.mp3 && touch kept.mp3"
        " && rm kept.mp3",
        "h2 ~/z/deux.mp3\nh3 ~/b/three.mp3\nh4 ~/f/d/under/four.mp3\n"
        "h6 ~/k.mp3\nh7 ~/cc/sieben.mp3\n");
    // A file renamed while another takes its old name through a temporary
    // one (both rows once ended on the new name); a file removed just before
    // its folder is renamed; one removed and another moved onto its name
    // (both rows stayed).
    expectRowsFollow(
        "mv cc/sieben.mp3 t.mp3 && mv k.mp3 k2.mp3 && mv t.mp3 k.mp3 && "
        "rm f/d/under/four.mp3 && mv f g && rm b/three.mp3 && "
        "mv z/deux.mp3 b/three.mp3",
        "h2 ~/b/three.mp3\nh6 ~/k2.mp3\nh7 ~/k.mp3\n");
}

}  // namespace
