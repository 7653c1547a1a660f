#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "sdk/utils/ThriftClient.h"
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

std::string audioRequest(const std::string& hash) {
    return "{\"api\":1,\"path\":\"/p/" + hash + ".mp3\",\"name\":\"" + hash + ".mp3\",\"hash\":\"" +
           hash + "\"}";
}
std::string audioAnswer(const std::string& title) {
    return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title +
           "\", \"mime\": \"\", \"album\": \"\", \"artist\": \"\", \"duration\": \"\", \"date\": 0 "
           "}";
}

// The real daemon on a private device root, spoken to as peers do.
class QuorviaDaemonTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void TearDown() {
        daemon_.stop();
        DeviceRootTest::TearDown();
    }

    // Starts build/bin/quorvia with args, its output and glog's files under
    // the root, and waits for the port.
    void startDaemon(const std::vector<std::string>& args) {
        ASSERT_EQ(0, shell("mkdir -p " + quoted(path("/glog"))));
        setenv("GLOG_log_dir", path("/glog").c_str(), 1);
        ASSERT_TRUE(daemon_.start(path(""), args));
        ASSERT_TRUE(quorvia_test::waitForListener(PORT)) << slurp(path("/daemon.err"));
    }

    // The daemon still answers a good request.
    void expectAlive(const std::string& context) {
        EXPECT_EQ(audioAnswer("alive.mp3"), ThriftClient::sCallQuorvia(audioRequest("alive")))
            << context;
    }

    quorvia_test::DaemonProcess daemon_;
};

TEST_F(QuorviaDaemonTest, StartsWithItsLinesAndListensOnLoopbackOnly) {
    startDaemon({"-d"});
    EXPECT_EQ("argc is 2, argv is NULL? 0\n", slurp(path("/daemon.out")));
    const std::string err = slurp(path("/daemon.err"));
    EXPECT_EQ(0u, err.find('W')) << err;
    EXPECT_NE(std::string::npos, err.find("quorvia daemon started.")) << err;
    // 127.0.0.1:9088 listening (state 0A) in the kernel's table, and no other
    // address of the device carrying the port.
    const std::string table = slurp("/proc/" + std::to_string(daemon_.pid()) + "/net/tcp");
    EXPECT_NE(std::string::npos, table.find("0100007F:2380 00000000:0000 0A")) << table;
    EXPECT_EQ(std::string::npos, table.find("00000000:2380 00000000:0000 0A")) << table;
    expectAlive("start");

    // A second daemon finds the port taken and ends with a line.
    ASSERT_EQ(0, shell("mkdir -p " + quoted(path("/second"))));
    quorvia_test::DaemonProcess second;
    ASSERT_TRUE(second.start(path("/second"), {"-d"}));
    EXPECT_EQ(1, second.waitForExit(20));
    const std::string secondErr = slurp(path("/second/daemon.err"));
    EXPECT_NE(std::string::npos, secondErr.find("quorvia daemon can't serve on 127.0.0.1:9088"))
        << secondErr;
}

TEST_F(QuorviaDaemonTest, OnlyTheFirstArgumentSendsTheLogToStandardError) {
    startDaemon({"-x", "-d"});
    EXPECT_EQ("argc is 3, argv is NULL? 0\n", slurp(path("/daemon.out")));
    EXPECT_EQ(std::string::npos, slurp(path("/daemon.err")).find("quorvia daemon started."));
    int status = 0;
    EXPECT_NE("",
              capture("grep -l 'quorvia daemon started.' " + quoted(path("/glog")) + "/*", status));
}

TEST_F(QuorviaDaemonTest, CliAsksForMediaAndTellsRepliesApart) {
    const std::string data = path("/userdisk/data");
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data) + " && cd " + quoted(data) +
                       " && convert -size 16x16 xc:red photo.jpg"
                       " && exiftool -q -overwrite_original"
                       " '-DateTimeOriginal=2021:05:06 07:08:09' photo.jpg"
                       " && ffmpeg -v error -y -f lavfi -i testsrc=duration=3:size=64x64:rate=10"
                       " -metadata creation_time=2022-03-04T10:20:30Z -c:v mpeg4 clip.mp4"));
    startDaemon({"-d"});
    int status = -1;
    const std::string imageDate =
        capture("date -d '2021-05-06 07:08:09' +%s | tr -d '\\n'", status);
    const std::string videoDate =
        capture("date -d '2022-03-04 10:20:30' +%s | tr -d '\\n'", status);
    struct Case {
        std::string argument;
        std::string output;
        int status;
    };
    const Case cases[] = {
        {"{\"api\":0,\"path\":\"" + data +
             "/photo.jpg\",\"name\":\"photo.jpg\",\"hash\":\"p1\",\"defaultModifyTime\":0}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"photo.jpg\", \"mime\": \"image\\/jpeg\", "
         "\"date\": " +
             imageDate + " }\n",
         0},
        {"{\"api\":2,\"path\":\"" + data +
             "/clip.mp4\",\"name\":\"clip.mp4\",\"hash\":\"v1\",\"defaultModifyTime\":0}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"clip.mp4\", \"duration\": \"3\", \"date\": " +
             videoDate + " }\n",
         0},
        {"not json", "\n", 1},
        {"--notify 5 hello", "\n", 0},
    };
    for (const Case& c : cases) {
        const std::string argument = c.argument[0] == '-' ? c.argument : quoted(c.argument);
        EXPECT_EQ(c.output,
                  capture(binary("quorvia-cli") + " " + argument + " 2>/dev/null", status));
        EXPECT_EQ(c.status, status) << c.argument;
    }
}

TEST_F(QuorviaDaemonTest, BadInputGetsANeutralAnswerAndTheDaemonGoesOn) {
    const std::string fifo = path("/pipe");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    startDaemon({"-d"});
    // A writer holds the FIFO open, so a read from it would never end.
    const int writer = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);
    struct Case {
        std::string request;
        std::string answerStart;
    };
    const Case cases[] = {
        // Deep nesting on a worker thread's stack.
        {std::string(10000, '{') + std::string(10000, '}'), ""},
        {"{\"api\":" + std::string(10000, '[') + std::string(10000, ']') + "}", ""},
        {"{\"api\":0,\"path\":\"" + fifo +
             "\",\"name\":\"x.jpg\",\"hash\":\"f1\",\"defaultModifyTime\":1}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"x.jpg\""},
        {"{\"api\":2,\"path\":\"" + fifo +
             "\",\"name\":\"x.mp4\",\"hash\":\"f2\",\"defaultModifyTime\":1}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"x.mp4\""},
        {"{\"api\":2,\"path\":\"/dev/"
         "zero\",\"name\":\"z.mp4\",\"hash\":\"z\",\"defaultModifyTime\":1}",
         "{ \"code\": 0, \"msg\": \"\", \"title\": \"z.mp4\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 60));
        EXPECT_EQ(0u, ThriftClient::sCallQuorvia(c.request).find(c.answerStart));
        expectAlive("");
    }
    close(writer);
}

TEST_F(QuorviaDaemonTest, WireCasesFromRawBytes) {
    startDaemon({"-d"});
    const std::string request = audioRequest("wire");
    WireReply reply;
    RawConnection seven(PORT);
    ASSERT_TRUE(seven.send(WireMessage::requestCall(request, 7)));
    ASSERT_TRUE(seven.readReply(reply));
    EXPECT_EQ(2, reply.type);
    EXPECT_EQ("request", reply.name);
    EXPECT_EQ(7, reply.sequenceId);
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // A call without the version word is served; the reply has it.
    RawConnection old(PORT);
    ASSERT_TRUE(
        old.send(WireMessage::frame(WireMessage::str("request") + '\x01' + WireMessage::i32(3) +
                                    WireMessage::stringArgs(request))));
    ASSERT_TRUE(old.readReply(reply));
    EXPECT_EQ(3, reply.sequenceId);
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // An unknown method gets the application exception; the connection stays.
    RawConnection unknown(PORT);
    ASSERT_TRUE(unknown.send(
        WireMessage::frame(WireMessage::head("lookup", 1, 9) + WireMessage::stringArgs("x"))));
    ASSERT_TRUE(unknown.readReply(reply));
    EXPECT_EQ(3, reply.type);
    EXPECT_EQ(9, reply.sequenceId);
    EXPECT_EQ("Invalid method name: 'lookup'", reply.text);
    ASSERT_TRUE(unknown.send(WireMessage::requestCall(request, 10)));
    ASSERT_TRUE(unknown.readReply(reply));
    EXPECT_EQ(audioAnswer("wire.mp3"), reply.text);

    // A missing field 1 reaches the handler as the empty string; notify
    // answers empty too. Field 0 is there in both.
    const std::string bodies[] = {
        WireMessage::head("request", 1, 0) + '\0',
        WireMessage::head("notify", 1, 4) + WireMessage::field('\x08', 1) + WireMessage::i32(-3) +
            '\0',
    };
    for (const std::string& body : bodies) {
        RawConnection connection(PORT);
        ASSERT_TRUE(connection.send(WireMessage::frame(body)));
        ASSERT_TRUE(connection.readReply(reply));
        EXPECT_EQ(2, reply.type);
        EXPECT_EQ("", reply.text);
    }

    // A message of type reply closes the connection, without an answer.
    RawConnection wrongType(PORT);
    ASSERT_TRUE(wrongType.send(
        WireMessage::frame(WireMessage::head("request", 2, 1) + WireMessage::stringArgs(request))));
    EXPECT_TRUE(wrongType.closedByPeer());
    expectAlive("message type 2");
}

TEST_F(QuorviaDaemonTest, PythonPeerWithTheIdl) {
    startDaemon({"-d"});
    const std::string gen = path("/gen-py");
    ASSERT_EQ(0,
              shell("mkdir -p " + quoted(gen) + " && thrift --gen py -out " + quoted(gen) + " " +
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
           "print(client.request('{\"api\":1,\"path\":\"/p/"
           "s.ogg\",\"name\":\"s.ogg\",\"hash\":\"py\"}'))\n"
           "print(repr(client.request('[1,2]')))\n"
           "print(repr(client.notify(12, 'anything')))\n"
           "print(client.request('{\"api\":0,\"path\":\"/"
           "p\",\"name\":\"a.png\",\"hash\":\"h\"}'))\n"
           "transport.close()\n";
    int status = -1;
    const std::string output =
        capture("/usr/bin/python3 " + quoted(script) + " " + quoted(gen) + " 2>&1", status);
    EXPECT_EQ(0, status) << output;
    EXPECT_EQ(audioAnswer("s.ogg") + "\n''\n''\n{ \"code\": 1, \"msg\": \"parameter missing\" }\n",
              output);
}

}  // namespace
