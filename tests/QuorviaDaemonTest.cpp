#include <gtest/gtest.h>

#include <ctype.h>
#include <signal.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sdk/utils/ThriftClient.h"
#include "support/DaemonTest.h"
#include "support/SyslogListener.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using namespace quorvia_test;
using namespace quorvia_test::wire;

// A request every daemon answers the same: the unmount of a root it never saw.
const std::string UNMOUNT = "{\"api\":3,\"root\":\"/mnt/none\"}";
const std::string DONE = "{ \"code\": 0, \"msg\": \"\" }";

class QuorviaDaemonTest : public DaemonTest {
protected:
    // The daemons started next carry the test preload that makes faults.
    void preloadFaults() {
        setenv("LD_PRELOAD",
               (std::string(QUORVIA_BINARY_DIR) + "/tests/libcrash_on_open.so").c_str(), 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    }

    void crashOnOpen(const std::string& file) {
        preloadFaults();
        setenv("QUORVIA_CRASH_ON_OPEN", file.c_str(), 1);
    }
};

TEST_F(QuorviaDaemonTest, StartsWithItsLinesListensOnLoopbackOnlyAndHoldsThePort) {
    ASSERT_EQ(0, shell("mkdir -p " + quoted(path("/dev"))));
    SyslogListener syslog(path("/dev/log"));
    startDaemon();
    EXPECT_EQ("argc is 2, argv is NULL? 0\n", slurp(path("/daemon.out")));
    // The daemon's first line (its tools' own output may come before it).
    const std::string err = slurpHolding(path("/daemon.err"), "quorvia daemon started.");
    std::istringstream lines(err);
    std::string line;
    while (std::getline(lines, line) && !(line.size() > 1 && isdigit(line[1]))) {
    }
    EXPECT_EQ(0u, line.find('W')) << err;
    EXPECT_NE(std::string::npos, line.find("] quorvia daemon started.")) << err;
    // Under its own name whatever the executable is called.
    const std::string sent = syslog.next();
    EXPECT_EQ(0u, sent.find("<12>")) << sent;
    EXPECT_NE(std::string::npos,
              sent.find(" quorvia[" + std::to_string(daemon_.pid()) + "]: quorvia daemon started."))
        << sent;
    // 127.0.0.1:9088 listening (state 0A) in the kernel's table, and no other
    // address of the device carrying the port.
    const std::string table = slurp("/proc/" + std::to_string(daemon_.pid()) + "/net/tcp");
    EXPECT_NE(std::string::npos, table.find("0100007F:2380 00000000:0000 0A")) << table;
    EXPECT_EQ(std::string::npos, table.find("00000000:2380 00000000:0000 0A")) << table;

    // Nothing is made in the store's folder before a request: the disk may
    // not be mounted yet (regression).
    EXPECT_NE(0, access(database_.c_str(), F_OK));

    // A second daemon finds the port taken and ends with a line while its
    // monitor places watches over a large tree (the threads' descriptors and
    // the store once went under them: SIGSEGV). Its "-d" is no first
    // argument, so it logs to glog's files, and to standard error only what
    // glog copies there itself (errors). It leaves the first one's marker of
    // a media read alone (once, it took it for a death: regression).
    writeFile("/userdisk/data/.systemconfig/DataBase/reading-0", "/a/video/being/read.mp4");
    ASSERT_EQ(0, shell("mkdir -p " + quoted(path("/second")) + " && cd " +
                       quoted(data_) + " && bash -c 'mkdir -p d{1..20}/s{1..100}'"));
    for (int i = 0; i < 3; ++i) {
        DaemonProcess second;
        ASSERT_TRUE(second.start(path("/second"), {"-x", "-d"}));
        EXPECT_EQ(1, second.waitForExit(20));
    }
    EXPECT_EQ(std::string::npos, slurp(path("/second/daemon.err")).find("daemon started."));
    EXPECT_EQ("/a/video/being/read.mp4", slurp(database_ + "/reading-0"));
    const std::string logs = slurp(path("/quorvia.ERROR"));
    EXPECT_NE(std::string::npos, logs.find("quorvia daemon can't serve on 127.0.0.1:9088")) << logs;
}

// quorvia-cli tells replies apart by its exit status; a Python peer uses
// code generated from the service definition.
TEST_F(QuorviaDaemonTest, CliAndPythonPeersAreServed) {
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data_) + " && cd " + quoted(data_) +
                       " && convert -size 16x16 xc:red photo.jpg && exiftool -q -overwrite_original"
                       " '-DateTimeOriginal=2021:05:06 07:08:09' photo.jpg"));
    startDaemon();
    const std::string cli = binary("quorvia-cli") + " ";
    const std::string request =
        R"({"api":0,"path":")" + data_ +
        R"(/photo.jpg","name":"photo.jpg","hash":"p1","defaultModifyTime":0})";
    // The date is the photo's own, read in local time.
    int status = -1;
    const std::string answer =
        R"({ "code": 0, "msg": "", "title": "photo.jpg", "mime": "image\/jpeg", "date": )" +
        capture("date -d '2021-05-06 07:08:09' '+%s }'", status);
    EXPECT_EQ(answer, capture(cli + quoted(request), status));
    EXPECT_EQ(0, status);
    EXPECT_EQ("\n", capture(cli + "'not json' 2>" + quoted(path("/cli.err")), status));
    EXPECT_EQ(1, status);
    EXPECT_EQ(0u, slurp(path("/cli.err")).find("quorvia-cli: empty reply"));
    EXPECT_EQ("\n", capture(cli + "--notify 5 hello", status));
    EXPECT_EQ(0, status);

    // The Python peer's stubs are generated from the IDL by the build.
    ASSERT_EQ(0, shell(cli + quoted(R"({"api":0,"path":"/x/a.jpg","name":")"
                                    "\xff"
                                    R"(.jpg","hash":"latin1","defaultModifyTime":1})") +
                       " >/dev/null"));
    const std::string peer = std::string(QUORVIA_SOURCE_DIR) + "/tests/thriftwrapper/talvern_peer.py";
    const std::string output =
        capture("PYTHONPATH=" + quoted(std::string(QUORVIA_BINARY_DIR) + "/gen-py") +
                    " /usr/bin/python3 " + quoted(peer) + " " + quoted(data_) + " 2>&1",
                status);
    EXPECT_EQ(0, status) << output;
    EXPECT_EQ(R"({ "code": 0, "msg": "", "title": "фото.jpg", "mime": "image\/jpeg", "date": 5 }
{ "code": 0, "msg": "", "title": "歌.mp3", "mime": "", "album": "", "artist": "", "duration": "", "date": 0 }
{ "code": 0, "msg": "", "title": "片.mp4", "duration": "", "date": 6 }
{ "code": 0, "msg": "" }
{ "code": 1, "msg": "parameter missing" }
{ "code": 2, "msg": "parameter empty" }
''
''
UnicodeDecodeError
b'{ "code": 0, "msg": "", "title": "\xff.jpg", "mime": "image\\/jpeg", "date": 1 }'
)",
              output);
}

// Each connection is still served after the reply to its odd call.
TEST_F(QuorviaDaemonTest, WireCasesFromRawBytes) {
    startDaemon();
    const std::pair<std::string, std::string> cases[] = {
        {requestCall(UNMOUNT, 7), reply(DONE, 7)},
        // Without the version word; the reply has it.
        {frame(str("request") + '\x01' + i32(3) + stringStruct(1, UNMOUNT)), reply(DONE, 3)},
        // A missing field 1 reaches the handler as the empty string.
        {frame(head("request", 1, 5) + '\0'), reply("", 5)},
        // An unknown method gets the application exception of type 1.
        {frame(head("lookup", 1, 9) + stringStruct(1, "x")),
         head("lookup", 3, 9) + field('\x0b', 1) + str("Invalid method name: 'lookup'") +
             field('\x08', 2) + i32(1) + '\0'},
    };
    for (const std::pair<std::string, std::string>& c : cases) {
        SCOPED_TRACE(&c - cases);
        RawConnection connection(ThriftClient::PORT_);
        ASSERT_TRUE(connection.send(c.first));
        EXPECT_EQ(c.second, connection.readFrame());
        ASSERT_TRUE(connection.send(requestCall(UNMOUNT, 10)));
        EXPECT_EQ(reply(DONE, 10), connection.readFrame());
    }

    // A message of type reply closes the connection without an answer; the
    // daemon serves the next one.
    RawConnection closing(ThriftClient::PORT_);
    ASSERT_TRUE(closing.send(frame(head("request", 2, 1) + stringStruct(1, UNMOUNT))));
    EXPECT_TRUE(closing.closedByPeer());
    EXPECT_EQ(DONE, ThriftClient::sCallQuorvia(UNMOUNT));
    // Thrift's note of it is in the daemon's log, as a line of its own.
    EXPECT_TRUE(daemonSaid("] received invalid message type 2 from client"));
}

// Whichever thread can't start (a process limit, no memory for its stack),
// the daemon ends with a line and status 1. Once, a worker that could not
// start left it neither serving nor ending, and a logging thread that could
// not start aborted it without a word (regressions).
TEST_F(QuorviaDaemonTest, AThreadThatCantStartEndsTheDaemonWithALine) {
    preloadFaults();
    int failing = 1;
    for (;; ++failing) {
        setenv("QUORVIA_FAIL_THREAD", std::to_string(failing).c_str(), 1);
        DaemonProcess daemon;
        ASSERT_TRUE(daemon.start(path(""), {"-d"}));
        int status = -1;
        ASSERT_TRUE(waitUntil([&] {
            return (status = daemon.waitForExit(0)) != -1 ||
                   RawConnection(ThriftClient::PORT_).connected();
        })) << "thread "
            << failing << " failed: the daemon neither serves nor ends";
        if (status == -1) {
            break;  // every thread it needs has started
        }
        EXPECT_EQ(1, status) << failing;
        EXPECT_TRUE(daemonSaid("quorvia daemon can't")) << failing;
    }
    // The logging thread, the dispatcher's worker, the monitor thread and
    // the three request workers.
    EXPECT_EQ(7, failing);
}

// A file that crashes its reader ends the process once; the restarted
// daemon answers for it as for a file it can't read and stays up.
TEST_F(QuorviaDaemonTest, AFileThatCrashedItsReaderIsNotReadAgainAfterTheRestart) {
    const std::string image = path("/userdisk/data/crash.jpg");
    writeFile("/userdisk/data/crash.jpg", "an image that crashes its reader");
    crashOnOpen(image);
    const std::string request = R"({"api":0,"path":")" + image +
                                R"(","name":"crash.jpg","hash":"c1","defaultModifyTime":7})";
    // Started with its standard descriptors closed, it holds them with
    // /dev/null: once, a marker took standard error and every line went
    // into it, to be listed as a file that crashed (regression).
    startDaemon({"-d"}, true);
#ifndef QUORVIA_EMULATED  // qemu-user holds the program's own file at the lowest free one
    for (int fd = 0; fd <= 2; ++fd) {
        EXPECT_EQ("/dev/null", capture("readlink /proc/" + std::to_string(daemon_.pid()) + "/fd/" +
                                       std::to_string(fd) + " | tr -d '\\n'"));
    }
#endif
    EXPECT_EQ("", ThriftClient::sCallQuorvia(request));
    EXPECT_EQ(128 + SIGSEGV, daemon_.waitForExit(20));

    // A death while the restarted daemon made its own markers, after it had
    // taken the crash record, lost the record: the file crashed it once
    // more; and a file only being read at the first death was counted twice
    // and never read again (regressions).
    writeFile("/userdisk/data/.systemconfig/DataBase/reading-5", "/suspect.mp4");
    setenv("QUORVIA_CRASH_ON_CREATE", (database_ + "/reading-3").c_str(), 1);
    startDaemon();
    EXPECT_EQ("", ThriftClient::sCallQuorvia(request));
    EXPECT_EQ(128 + SIGSEGV, daemon_.waitForExit(20));
    EXPECT_TRUE(daemonSaid("media file " + image +
                           " crashed the daemon while it was read; it is not read again"));
    unsetenv("QUORVIA_CRASH_ON_CREATE");

    startDaemon();
    const std::string answer =
        R"({ "code": 0, "msg": "", "title": "crash.jpg", "mime": "image\/jpeg", "date": 7 })";
    EXPECT_EQ(answer, ThriftClient::sCallQuorvia(request));
    EXPECT_EQ(answer, ThriftClient::sCallQuorvia(request));
    EXPECT_EQ(-1, daemon_.waitForExit(0));
    // Struck once, then cleared by the end at which it was not read.
    EXPECT_EQ(std::string::npos, slurp(database_ + "/unreadable-media").find("/suspect.mp4"));
}

// A video is read in a process of its own: a container that crashes its
// reader ends that process, and the daemon answers as for a file it can't
// read. Where no such process can be started, the daemon reads the file.
TEST_F(QuorviaDaemonTest, AVideoThatCrashesItsReaderLeavesTheDaemonServing) {
    const std::string clip = path("/userdisk/data/crash.mp4");
    writeFile("/userdisk/data/crash.mp4", "a container that crashes its reader");
    ASSERT_EQ(0, shell("ffmpeg -nostdin -loglevel error -f lavfi -i color=size=32x32:rate=10 "
                       "-t 2 -c:v mpeg4 " +
                       quoted(path("/userdisk/data/read.mp4"))));
    crashOnOpen(clip);
    // The reader process, the crash's reader, then none.
    setenv("QUORVIA_FAIL_FORK", "3", 1);
    startDaemon();
    const std::string request = R"({"api":2,"defaultModifyTime":7,"path":")";
    EXPECT_EQ(R"({ "code": 0, "msg": "", "title": "crash.mp4", "duration": "", "date": 7 })",
              ThriftClient::sCallQuorvia(request + clip + R"(","name":"crash.mp4","hash":"c"})"));
    EXPECT_EQ(-1, daemon_.waitForExit(0));
    EXPECT_TRUE(daemonSaid("the process reading " + clip + " ended without an answer"));
    const std::string read = path("/userdisk/data/read.mp4");
    EXPECT_NE(std::string::npos,
              ThriftClient::sCallQuorvia(request + read + R"(","name":"read.mp4","hash":"r"})")
                  .find(R"("duration": "2")"));
    EXPECT_TRUE(daemonSaid("no process could be started to read " + read + "; read by the daemon"));
}

}  // namespace
