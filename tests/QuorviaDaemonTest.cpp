#include <gtest/gtest.h>

#include <stdlib.h>

#include <fstream>
#include <string>
#include <utility>
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
using namespace quorvia_test::wire;

const int PORT = 9088;

std::string audioRequest(const std::string& hash) {
    return "{\"api\":1,\"path\":\"/p/" + hash + ".mp3\",\"name\":\"" + hash + ".mp3\",\"hash\":\"" +
           hash + "\"}";
}
std::string audioAnswer(const std::string& title) {
    return "{ \"code\": 0, \"msg\": \"\", \"title\": \"" + title +
           "\", \"mime\": \"\", \"album\": \"\", \"artist\": \"\", \"duration\": \"\", "
           "\"date\": 0 }";
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
    void expectAlive() {
        EXPECT_EQ(audioAnswer("alive.mp3"), ThriftClient::sCallQuorvia(audioRequest("alive")));
    }

    quorvia_test::DaemonProcess daemon_;
};

TEST_F(QuorviaDaemonTest, StartsWithItsLinesListensOnLoopbackOnlyAndHoldsThePort) {
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
    expectAlive();

    // A second daemon finds the port taken and ends with a line. Its "-d" is
    // no first argument, so it logs to glog's files, and to standard error
    // only what glog copies there itself (errors).
    ASSERT_EQ(0, shell("mkdir -p " + quoted(path("/second"))));
    quorvia_test::DaemonProcess second;
    ASSERT_TRUE(second.start(path("/second"), {"-x", "-d"}));
    EXPECT_EQ(1, second.waitForExit(20));
    EXPECT_EQ("argc is 3, argv is NULL? 0\n", slurp(path("/second/daemon.out")));
    EXPECT_EQ(std::string::npos, slurp(path("/second/daemon.err")).find("daemon started."));
    int status = -1;
    const std::string logs = capture("cat " + quoted(path("/glog")) + "/*", status);
    EXPECT_NE(std::string::npos, logs.find("quorvia daemon started.")) << logs;
    EXPECT_NE(std::string::npos, logs.find("quorvia daemon can't serve on 127.0.0.1:9088")) << logs;
}

TEST_F(QuorviaDaemonTest, CliAsksForMediaAndTellsRepliesApart) {
    const std::string data = path("/userdisk/data");
    ASSERT_EQ(0, shell("mkdir -p " + quoted(data) + " && cd " + quoted(data) +
                       " && convert -size 16x16 xc:red photo.jpg && exiftool -q -overwrite_original"
                       " '-DateTimeOriginal=2021:05:06 07:08:09' photo.jpg"));
    startDaemon({"-d"});
    int status = -1;
    const std::string date = capture("date -d '2021-05-06 07:08:09' +%s | tr -d '\\n'", status);
    const std::string cli = binary("quorvia-cli") + " ";
    const std::string request = "{\"api\":0,\"path\":\"" + data +
                                "/photo.jpg\",\"name\":\"photo.jpg\",\"hash\":\"p1\","
                                "\"defaultModifyTime\":0}";
    const std::string answer =
        "{ \"code\": 0, \"msg\": \"\", \"title\": \"photo.jpg\", "
        "\"mime\": \"image\\/jpeg\", \"date\": " +
        date + " }\n";
    EXPECT_EQ(answer, capture(cli + quoted(request), status));
    EXPECT_EQ(0, status);
    EXPECT_EQ("\n", capture(cli + "'not json' 2>" + quoted(path("/cli.err")), status));
    EXPECT_EQ(1, status);
    EXPECT_EQ(0u, slurp(path("/cli.err")).find("quorvia-cli: empty reply"));
    EXPECT_EQ("\n", capture(cli + "--notify 5 hello", status));
    EXPECT_EQ(0, status);
}

// Each connection is still served after the reply to its odd call.
TEST_F(QuorviaDaemonTest, WireCasesFromRawBytes) {
    startDaemon({"-d"});
    const std::string request = audioRequest("wire");
    const std::string answer = audioAnswer("wire.mp3");
    const std::pair<std::string, std::string> cases[] = {
        {requestCall(request, 7), reply(answer, 7)},
        // Without the version word; the reply has it.
        {frame(str("request") + '\x01' + i32(3) + stringStruct(1, request)), reply(answer, 3)},
        // A missing field 1 reaches the handler as the empty string.
        {frame(head("request", 1, 5) + '\0'), reply("", 5)},
        // An unknown method gets the application exception of type 1.
        {frame(head("lookup", 1, 9) + stringStruct(1, "x")),
         head("lookup", 3, 9) + field('\x0b', 1) + str("Invalid method name: 'lookup'") +
             field('\x08', 2) + i32(1) + '\0'},
    };
    for (const std::pair<std::string, std::string>& c : cases) {
        RawConnection connection(PORT);
        ASSERT_TRUE(connection.send(c.first));
        EXPECT_EQ(c.second, connection.readFrame());
        ASSERT_TRUE(connection.send(requestCall(request, 10)));
        EXPECT_EQ(reply(answer, 10), connection.readFrame());
    }

    // A message of type reply, a bad version word and a string longer than
    // its frame close the connection without an answer.
    const std::string closing[] = {
        frame(head("request", 2, 1) + stringStruct(1, request)),
        frame(std::string(64, '\xff')),
        frame(head("request", 1, 0) + field('\x0b', 1) + i32(1 << 20) + "ab"),
    };
    for (const std::string& bytes : closing) {
        SCOPED_TRACE(&bytes - closing);
        RawConnection connection(PORT);
        ASSERT_TRUE(connection.send(bytes));
        EXPECT_TRUE(connection.closedByPeer());
        expectAlive();
    }
}

TEST_F(QuorviaDaemonTest, PythonPeerWithTheIdl) {
    startDaemon({"-d"});
    const std::string gen = path("/gen-py");
    const std::string idl = std::string(QUORVIA_SOURCE_DIR) + "/src/thriftwrapper/talvern.thrift";
    ASSERT_EQ(0, shell("mkdir -p " + quoted(gen) + " && thrift --gen py -out " + quoted(gen) + " " +
                       quoted(idl)));
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
           "print(client.request(sys.argv[2]))\n"
           "print(repr(client.notify(12, 'anything')))\n"
           "transport.close()\n";
    int status = -1;
    const std::string output = capture("/usr/bin/python3 " + quoted(script) + " " + quoted(gen) +
                                           " " + quoted(audioRequest("py")) + " 2>&1",
                                       status);
    EXPECT_EQ(0, status) << output;
    EXPECT_EQ(audioAnswer("py.mp3") + "\n''\n", output);
}

}  // namespace
