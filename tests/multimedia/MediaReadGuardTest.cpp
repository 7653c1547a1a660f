#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "multimedia/MediaReadGuard.h"
#include "support/DeviceRootTest.h"

namespace {

using talvern::MediaReadGuard;

class MediaReadGuardTest : public quorvia_test::DeviceRootTest {
protected:
    MediaReadGuard::Folder folder(const std::string& fixedPath) {
        return [this, fixedPath](std::string& named) {
            named = path(fixedPath);
            return open(named.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        };
    }
};

std::string record(int strikes, const std::string& path) {
    return std::to_string(strikes) + '\t' + path + '\0';
}

// sRecover runs once a process: each ctest case has its own.
TEST_F(MediaReadGuardTest, CrashesListAFileAtOnceOtherEndsAtTheSecondTime) {
    std::string list;
    for (int i = 0; i < 40; ++i) {
        list += record(2, "/old/" + std::to_string(i));
    }
    list += record(1, "/d/suspect.mp4");
    // A suspect of an earlier end that was not being read at this one is
    // cleared: it was kept, and a second end while it was read, however much
    // later, listed it (regression).
    list += record(1, "/d/read-since.mp4");
    writeFile("/db/unreadable-media", list);
    writeFile("/db/reading-0", "/d/suspect.mp4");
    writeFile("/db/reading-1", "/d/first.mp4");
    writeFile("/db/crashed-2", "/d/crash.jpg");
    // Read by another thread too: the crash counts (regression: it was a
    // suspect only, and read again).
    writeFile("/db/reading-3", "/d/crash.jpg");
    MediaReadGuard::sRecover(folder("/db"));

    EXPECT_FALSE(MediaReadGuard("/d/suspect.mp4").admitted());
    EXPECT_FALSE(MediaReadGuard("/d/crash.jpg").admitted());
    EXPECT_TRUE(MediaReadGuard("/d/first.mp4").admitted());
    // The list keeps its newest entries.
    EXPECT_FALSE(MediaReadGuard("/old/39").admitted());
    EXPECT_TRUE(MediaReadGuard("/old/10").admitted());
    EXPECT_TRUE(log_.contains("media file /d/crash.jpg crashed the daemon while it was read"));
    EXPECT_TRUE(log_.contains("media file /d/first.mp4 was being read when the daemon ended"));
    EXPECT_TRUE(log_.contains("media file /d/suspect.mp4 was being read at each of the daemon's "
                              "last 2 ends; it is not read again"));
    const std::string stored = readFile("/db/unreadable-media");
    EXPECT_EQ(32 * 1u, std::count(stored.begin(), stored.end(), '\0'));
    EXPECT_NE(std::string::npos, stored.find(record(1, "/d/first.mp4")));
    EXPECT_EQ(std::string::npos, stored.find("/d/read-since.mp4"));
    EXPECT_EQ("", readFile("/db/reading-0"));
    EXPECT_FALSE(std::ifstream(path("/db/crashed-2").c_str()).good());

    // This run's marker names the file while it is read, and only then.
    {
        MediaReadGuard guard("/d/now.mp4");
        EXPECT_EQ("/d/now.mp4", readFile("/db/reading-0"));
    }
    EXPECT_EQ("", readFile("/db/reading-0"));
}

// An orderly stop during a read was a strike against the file: two
// restarts at the wrong moment, and an ordinary file was never read again.
// A read that starts while the stop is under way (the handlers after the
// guard's take their time) leaves no marker either: here the stop goes on
// to an ignoring handler, and the process reads once more before it ends.
TEST_F(MediaReadGuardTest, AnOrderlyStopIsNoStrikeRegression) {
    writeFile("/db/reading-0", "");
    EXPECT_EXIT(
        {
            signal(SIGTERM, SIG_IGN);
            MediaReadGuard::sRecover(folder("/db"));
            MediaReadGuard guard("/d/read-at-the-stop.mp4");
            raise(SIGTERM);
            MediaReadGuard late("/d/read-during-the-stop.mp4");
            _exit(3);
        },
        ::testing::ExitedWithCode(3), "");
    EXPECT_EQ("", readFile("/db/reading-0") + readFile("/db/reading-1"));
}

// The list lies on the user's disk. A FIFO planted at its name held the
// first read for ever; a folder there made the list unstorable, and the
// markers went all the same, and with them the crash record; then reads
// went unmarked (regressions).
TEST_F(MediaReadGuardTest, AListThatIsNoFileNeitherHoldsTheReadNorLosesARecordRegression) {
    ASSERT_EQ(0, mkdir(path("/fifo").c_str(), 0755));
    ASSERT_EQ(0, mkfifo(path("/fifo/unreadable-media").c_str(), 0644));
    EXPECT_EXIT(
        {
            alarm(10);
            MediaReadGuard::sRecover(folder("/fifo"));
            _exit(MediaReadGuard("/d/any.mp4").admitted() ? 3 : 4);
        },
        ::testing::ExitedWithCode(3), "");

    writeFile("/db/unreadable-media/in-the-way", "");
    writeFile("/db/crashed-0", "/d/crash.mp4");
    MediaReadGuard::sRecover(folder("/db"));
    EXPECT_FALSE(MediaReadGuard("/d/crash.mp4").admitted());
    EXPECT_EQ("/d/crash.mp4", readFile("/db/crashed-0"));
    // This run's reads are marked in the slots left free (regression: read
    // unmarked, a second crashing file crashed every start).
    MediaReadGuard next("/d/next.mp4");
    EXPECT_EQ("/d/next.mp4", readFile("/db/reading-1"));
}

// The folder lies on the user's disk: swapped for a link once the guard has
// it, it leads no marker, list or removal elsewhere (regression: markers were
// removed and made, and the list stored, where the link led).
TEST_F(MediaReadGuardTest, AFolderSwappedForALinkLeadsNothingElsewhereRegression) {
    writeFile("/db/crashed-0", "/d/crash.mp4");
    writeFile("/outside/crashed-1", "/d/keep.mp4");
    MediaReadGuard::sRecover([this](std::string& named) {
        named = path("/db");
        const int fd = open(named.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_EQ(0, rename(named.c_str(), path("/moved").c_str()));
        EXPECT_EQ(0, symlink(path("/outside").c_str(), named.c_str()));
        return fd;
    });
    EXPECT_FALSE(MediaReadGuard("/d/crash.mp4").admitted());
    {
        MediaReadGuard guard("/d/now.mp4");
        EXPECT_EQ("/d/now.mp4", readFile("/moved/reading-0"));
    }
    EXPECT_EQ("crashed-1\n",
              quorvia_test::capture("ls -A " + quorvia_test::quoted(path("/outside"))));
    EXPECT_NE(std::string::npos, readFile("/moved/unreadable-media").find("/d/crash.mp4"));
}

}  // namespace
