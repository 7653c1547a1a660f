#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "Talvern.h"
#include "support/DaemonProcess.h"
#include "support/DeviceRootTest.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_test::binary;
using quorvia_test::capture;
using quorvia_test::quoted;
using quorvia_test::RawConnection;
using quorvia_test::slurp;
using quorvia_test::WireMessage;
using quorvia_test::WireReply;

const int PORT = 9088;

time_t localTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm broken = {};
    broken.tm_year = year - 1900;
    broken.tm_mon = month - 1;
    broken.tm_mday = day;
    broken.tm_hour = hour;
    broken.tm_min = minute;
    broken.tm_sec = second;
    broken.tm_isdst = -1;
    return mktime(&broken);
}

// The real daemon on a private device root, spoken to as peers do.
class QuorviaDaemonTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void TearDown() {
        stopDaemon();
        DeviceRootTest::TearDown();
    }

    // Starts build/bin/quorvia with args; its output goes to files under the
    // root. Glog's files, when it writes any, go there too.
    void startDaemon(const std::vector<std::string>& args, bool waitForPort = true) {
        const std::string logDir = path("/glog");
        ASSERT_EQ(0, shell("mkdir -p " + quoted(logDir)));
        setenv("GLOG_log_dir", logDir.c_str(), 1);
        ASSERT_TRUE(daemon_.start(path(""), args));
        if (waitForPort) {
            ASSERT_TRUE(quorvia_test::waitForListener(PORT)) << slurp(path("/daemon.err"));
        }
    }

    void stopDaemon() { daemon_.stop(); }

    // Exit status of a daemon that ends by itself within timeoutSeconds; -1
    // when it is still running.
    int waitForExit(int timeoutSeconds) { return daemon_.waitForExit(timeoutSeconds); }

    std::string daemonErr() const { return slurp(path("/daemon.err")); }

    // One request through the generated C++ client, on a connection of its own.
    static std::string call(const std::string& parameter) {
        using namespace apache::thrift;
        std::shared_ptr<transport::TTransport> socket(new transport::TSocket("127.0.0.1", PORT));
        std::shared_ptr<transport::TTransport> framed(new transport::TFramedTransport(socket));
        talvern::TalvernClient client(std::make_shared<protocol::TBinaryProtocol>(framed));
        framed->open();
        std::string result;
        client.request(result, parameter);
        framed->close();
        return result;
    }

    static std::string audioRequest(const std::string& hash) {
        return "{\"api\":1,\"path\":\"/p/" + hash + ".mp3\",\"name\":\"" + hash +
               ".mp3\",\"hash\":\"" + hash + "\"}";
    }
    static std::string audioAnswer(const std::string& title) {
        return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title +
               "\", \"mime\": \"\", \"album\": \"\", \"artist\": \"\", \"duration\": \"\", "
               "\"date\": 0 }";
    }

    // The daemon still answers a good request.
    void expectAlive(const std::string& context) {
        EXPECT_EQ(audioAnswer("alive.mp3"), call(audioRequest("alive"))) << context;
    }

    quorvia_test::DaemonProcess daemon_;
};

TEST_F(QuorviaDaemonTest, StartsWithItsLinesAndListensOnLoopbackOnly) {
    startDaemon({"-d"});
    EXPECT_EQ("argc is 2, argv is NULL? 0\n", slurp(path("/daemon.out")));
    const std::string err = daemonErr();
    EXPECT_EQ('W', err[0]) << err;
    EXPECT_NE(std::string::npos, err.find("quorvia daemon started.")) << err;
    // 127.0.0.1:9088 in the kernel's table, listening (state 0A); no other
    // address of the device carries the port.
    const std::string table = slurp("/proc/" + std::to_string(daemon_.pid()) + "/net/tcp");
    EXPECT_NE(std::string::npos, table.find("0100007F:2380 00000000:0000 0A")) << table;
    EXPECT_EQ(std::string::npos, table.find("00000000:2380 00000000:0000 0A")) << table;
    expectAlive("start");
}

TEST_F(QuorviaDaemonTest, OnlyTheFirstArgumentSendsTheLogToStandardError) {
    startDaemon({"-x", "-d"});
    EXPECT_EQ("argc is 3, argv is NULL? 0\n", slurp(path("/daemon.out")));
    EXPECT_EQ(std::string::npos, daemonErr().find("quorvia daemon started."));
    int status = 0;
    EXPECT_NE("", capture("grep -l 'quorvia daemon started.' " + quoted(path("/glog")) + "/*", status));
}

TEST_F(QuorviaDaemonTest, APortThatIsTakenEndsStartUpWithALine) {
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    const int reuse = 1;
    setsockopt(taken, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(taken, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(taken, 1));
    startDaemon({"-d"}, false);
    EXPECT_EQ(1, waitForExit(20));
    EXPECT_NE(std::string::npos, daemonErr().find("quorvia daemon can't serve on 127.0.0.1:9088"))
        << daemonErr();
    close(taken);
}

TEST_F(QuorviaDaemonTest, CliAsksForMediaAndNoticesAnAbsentDaemon) {
    const std::string data = path("/userdisk/data");
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data) + " && cd " + quoted(data) +
                       " && convert -size 16x16 xc:red photo.jpg"
                       " && exiftool -q -overwrite_original"
                       " '-DateTimeOriginal=2021:05:06 07:08:09' photo.jpg"
                       " && ffmpeg -v error -y -f lavfi -i testsrc=duration=3:size=64x64:rate=10"
                       " -metadata creation_time=2022-03-04T10:20:30Z -c:v mpeg4 clip.mp4"));
    startDaemon({"-d"});
    int status = -1;
    const std::string image = capture(
        binary("quorvia-cli") + " " +
            quoted("{\"api\":0,\"path\":\"" + data +
                   "/photo.jpg\",\"name\":\"photo.jpg\",\"hash\":\"p1\",\"defaultModifyTime\":0}"),
        status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"photo.jpg\", \"mime\": \"image\\/jpeg\", "
              "\"date\": " +
                  std::to_string(localTime(2021, 5, 6, 7, 8, 9)) + " }\n",
              image);
    const std::string video = capture(
        binary("quorvia-cli") + " " +
            quoted("{\"api\":2,\"path\":\"" + data +
                   "/clip.mp4\",\"name\":\"clip.mp4\",\"hash\":\"v1\",\"defaultModifyTime\":0}"),
        status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"clip.mp4\", \"duration\": \"3\", \"date\": " +
                  std::to_string(localTime(2022, 3, 4, 10, 20, 30)) + " }\n",
              video);
    EXPECT_EQ("\n", capture(binary("quorvia-cli") + " 'not json' 2>/dev/null", status));
    EXPECT_EQ(1, status);
    EXPECT_EQ("\n", capture(binary("quorvia-cli") + " --notify 5 hello", status));
    EXPECT_EQ(0, status);

    stopDaemon();
    const std::string absent =
        capture(binary("quorvia-cli") + " " + quoted(audioRequest("a")) + " 2>&1", status);
    EXPECT_EQ(2, status);
    EXPECT_NE(std::string::npos, absent.find("can't reach the quorvia daemon on localhost:9088"))
        << absent;
}

TEST_F(QuorviaDaemonTest, BadInputGetsANeutralAnswerAndTheDaemonGoesOn) {
    const std::string data = path("/userdisk/data");
    const std::string fifo = data + "/pipe";
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data + "/folder.jpg") + " && mkfifo " + quoted(fifo) +
                       " && head -c 5000 /dev/urandom > " + quoted(data + "/noise") +
                       " && printf '\\377\\330\\377\\341\\377\\377Exif' > " +
                       quoted(data + "/cut.jpg")));
    startDaemon({"-d"});
    // A writer holds the FIFO open, so a read from it would never end.
    const int writer = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);

    struct Case {
        std::string request;
        std::string answerPrefix;
    };
    const std::string noDate = "{ \"code\": 0, \"msg\": \"\", \"title\": \"";
    const std::vector<Case> cases = {
        {"{\"api\":1,\"path\":\"/p/\xc3\x28.mp3\",\"name\":\"\xc3\x28.mp3\",\"hash\":\"u\"}",
         audioAnswer("\xc3\x28.mp3")},
        {std::string(10000, '{') + std::string(10000, '}'), ""},
        {"{\"api\":" + std::string(10000, '[') + std::string(10000, ']') + "}", ""},
        {"{\"api\":99999999999999999999999,\"root\":\"/mnt\"}", ""},
        {"{\"api\":-2147483649,\"root\":\"/mnt\"}", ""},
        {"{\"api\":3,\"root\":\"\"}", "{ \"code\": 2, \"msg\": \"parameter empty\" }"},
        {"{\"api\":3}", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.answerPrefix, call(c.request)) << c.request.substr(0, 60);
        expectAlive(c.request.substr(0, 60));
    }
    const std::vector<std::string> files = {data + "/folder.jpg", "/dev/zero", fifo,
                                            data + "/noise", data + "/cut.jpg", data + "/gone"};
    int hash = 0;
    for (const std::string& file : files) {
        for (const char* name : {"x.jpg", "x.mp4"}) {
            const int api = std::string(name) == "x.jpg" ? 0 : 2;
            const std::string answer =
                call("{\"api\":" + std::to_string(api) + ",\"path\":\"" + file + "\",\"name\":\"" +
                     name + "\",\"hash\":\"bad" + std::to_string(++hash) +
                     "\",\"defaultModifyTime\":1600000000}");
            EXPECT_EQ(0u, answer.find(noDate + name + "\"")) << file << " " << answer;
            expectAlive(file + " as " + name);
        }
    }
    close(writer);
}

TEST_F(QuorviaDaemonTest, WireCasesFromRawBytes) {
    startDaemon({"-d"});
    const std::string request = audioRequest("wire");
    WireReply reply;

    // The sequence id comes back; the reply carries the version word.
    RawConnection seven(PORT);
    ASSERT_TRUE(seven.send(WireMessage::requestCall(request, 7)));
    ASSERT_TRUE(seven.readReply(reply));
    EXPECT_TRUE(reply.strict);
    EXPECT_EQ(2, reply.type);
    EXPECT_EQ("request", reply.name);
    EXPECT_EQ(7, reply.sequenceId);
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // A call in the old form, without the version word, is served.
    RawConnection old(PORT);
    ASSERT_TRUE(old.send(
        WireMessage::frame(WireMessage::head("request", 1, 3, false) + WireMessage::stringArgs(request))));
    ASSERT_TRUE(old.readReply(reply));
    EXPECT_TRUE(reply.strict);
    EXPECT_EQ(3, reply.sequenceId);
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // An unknown method gets the application exception; the connection stays.
    RawConnection unknown(PORT);
    ASSERT_TRUE(unknown.send(
        WireMessage::frame(WireMessage::head("lookup", 1, 9, true) + WireMessage::stringArgs("x"))));
    ASSERT_TRUE(unknown.readReply(reply));
    EXPECT_EQ(3, reply.type);
    EXPECT_EQ("lookup", reply.name);
    EXPECT_EQ(9, reply.sequenceId);
    EXPECT_EQ("Invalid method name: 'lookup'", reply.text);
    EXPECT_EQ(1, reply.exceptionType);
    ASSERT_TRUE(unknown.send(WireMessage::requestCall(request, 10)));
    ASSERT_TRUE(unknown.readReply(reply));
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // A missing field 1 reaches the handler as the empty string: field 0 is
    // there, empty.
    RawConnection noField(PORT);
    ASSERT_TRUE(noField.send(WireMessage::frame(WireMessage::head("request", 1, 0, true) + '\0')));
    ASSERT_TRUE(noField.readReply(reply));
    EXPECT_EQ(2, reply.type);
    EXPECT_TRUE(reply.hasString);
    EXPECT_EQ("", reply.text);

    // notify answers with field 0 present and empty.
    RawConnection notify(PORT);
    ASSERT_TRUE(notify.send(WireMessage::frame(WireMessage::head("notify", 1, 4, true) + '\x08' +
                                               WireMessage::i16(1) + WireMessage::i32(-3) + '\0')));
    ASSERT_TRUE(notify.readReply(reply));
    EXPECT_EQ("notify", reply.name);
    EXPECT_TRUE(reply.hasString);
    EXPECT_EQ("", reply.text);

    // A message of type reply closes the connection, without an answer.
    RawConnection wrongType(PORT);
    ASSERT_TRUE(wrongType.send(
        WireMessage::frame(WireMessage::head("request", 2, 1, true) + WireMessage::stringArgs(request))));
    EXPECT_TRUE(wrongType.closedByPeer());
    expectAlive("message type 2");

    // A frame over the limit, a declared gigabyte, half a frame, garbage.
    // The daemon may close before all of it is sent.
    RawConnection big(PORT);
    big.send(WireMessage::requestCall(std::string(4 << 20, 'a')));
    EXPECT_TRUE(big.closedByPeer());
    RawConnection declared(PORT);
    ASSERT_TRUE(declared.send(WireMessage::i32(1 << 30) + "abc"));
    EXPECT_TRUE(declared.closedByPeer());
    RawConnection half(PORT);
    ASSERT_TRUE(half.send(WireMessage::requestCall(request).substr(0, 20)));
    RawConnection garbage(PORT);
    ASSERT_TRUE(garbage.send(WireMessage::frame(std::string(64, '\xff'))));
    EXPECT_TRUE(garbage.closedByPeer());
    RawConnection lying(PORT);
    ASSERT_TRUE(lying.send(WireMessage::frame(WireMessage::head("request", 1, 0, true) + '\x0b' +
                                              WireMessage::i16(1) + WireMessage::i32(1 << 20) + "ab")));
    EXPECT_TRUE(lying.closedByPeer());
    expectAlive("frames");

    // Hundreds of idle peers don't shut out a busy one.
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 300; ++i) {
        idle.emplace_back(new RawConnection(PORT));
    }
    expectAlive("idle peers");
}

TEST_F(QuorviaDaemonTest, UnmountDropsOneDisksRowsThroughTheService) {
    startDaemon({"-d"});
    const std::string onDisk = "{\"api\":1,\"path\":\"/mnt/usb1/a.mp3\",\"name\":\"first.mp3\",\"hash\":\"d1\"}";
    const std::string onSibling = "{\"api\":1,\"path\":\"/mnt/usb10/b.mp3\",\"name\":\"first.mp3\",\"hash\":\"d2\"}";
    EXPECT_EQ(audioAnswer("first.mp3"), call(onDisk));
    EXPECT_EQ(audioAnswer("first.mp3"), call(onSibling));
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\" }", call("{\"api\":3,\"root\":\"/MNT/usb1\"}"));
    // A row that went is read again and takes the new name; one that stayed
    // answers from the store.
    const std::string renamed = "\"name\":\"second.mp3\"";
    std::string again = onDisk;
    again.replace(again.find("\"name\":\"first.mp3\""), 18, renamed);
    std::string kept = onSibling;
    kept.replace(kept.find("\"name\":\"first.mp3\""), 18, renamed);
    EXPECT_EQ(audioAnswer("second.mp3"), call(again));
    EXPECT_EQ(audioAnswer("first.mp3"), call(kept));
}

TEST_F(QuorviaDaemonTest, PythonPeerWithTheIdl) {
    startDaemon({"-d"});
    const std::string gen = path("/gen-py");
    ASSERT_EQ(0, shell("mkdir -p " + quoted(gen) + " && thrift --gen py -out " + quoted(gen) + " " +
                       quoted(std::string(QUORVIA_SOURCE_DIR) + "/src/thriftwrapper/talvern.thrift")));
    const std::string script = path("/peer.py");
    std::ofstream(script.c_str())
        << "import sys\n"
           "sys.path.insert(0, sys.argv[1])\n"
           "from thrift.transport import TSocket, TTransport\n"
           "from thrift.protocol import TBinaryProtocol\n"
           "from talvern import Talvern\n"
           "transport = TTransport.TFramedTransport(TSocket.TSocket('127.0.0.1', 9088))\n"
           "client = Talvern.Client(TBinaryProtocol.TBinaryProtocol(transport))\n"
           "transport.open()\n"
           "print(client.request('{\"api\":1,\"path\":\"/p/s.ogg\",\"name\":\"s.ogg\",\"hash\":\"py\"}'))\n"
           "print(repr(client.request('[1,2]')))\n"
           "print(repr(client.notify(12, 'anything')))\n"
           "print(client.request('{\"api\":0,\"path\":\"/p\",\"name\":\"a.png\",\"hash\":\"h\"}'))\n"
           "transport.close()\n";
    int status = -1;
    const std::string output =
        capture("/usr/bin/python3 " + quoted(script) + " " + quoted(gen) + " 2>&1", status);
    EXPECT_EQ(0, status) << output;
    EXPECT_EQ(audioAnswer("s.ogg") + "\n''\n''\n{ \"code\": 1, \"msg\": \"parameter missing\" }\n",
              output);
}

}  // namespace
