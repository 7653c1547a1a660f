#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sdk/utils/QuorviaCli.h"
#include "sdk/utils/ThriftClient.h"
#include "support/LogCapture.h"
#include "thriftwrapper/QuorviaServer.h"
#include "thriftwrapper/RawConnection.h"

namespace {

// Above the 16 MB a frame that Thrift allows by default.
const size_t kBigReply = 17 * 1000 * 1000;

// Answers "big" with kBigReply bytes, "throw" with an exception, "slow" a
// second late, anything else with itself; a notice with its type and text.
class EchoHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "throw") {
            throw std::runtime_error("boom");
        }
        if (parameter == "slow") {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        result = parameter == "big" ? std::string(kBigReply, 'b') : parameter;
    }
    virtual void notify(std::string& result, const int32_t type, const std::string& parameter) {
        result = std::to_string(type) + parameter;
    }
};

// Arguments are checked before the daemon is looked for.
TEST(ThriftClientDaemonTest, WithoutADaemonTheCallAnswersEmptyAndTheCliSaysWhy) {
    quorvia_test::LogCapture log;
    EXPECT_EQ("", ThriftClient::sCallQuorvia("{\"api\":1}"));
    EXPECT_TRUE(log.contains("sCallQuorvia thrift request exception error: ", google::GLOG_ERROR));
    EXPECT_EQ("", ThriftClient::sNotifyQuorvia(7, "x"));
    EXPECT_TRUE(log.contains("sNotifyQuorvia thrift notify exception error: ", google::GLOG_ERROR));
    std::ostringstream out, err;
    EXPECT_EQ(QuorviaCli::EXIT_UNREACHABLE_, QuorviaCli::sRun({"{\"api\":1}"}, out, err));
    EXPECT_EQ(0u, err.str().find("quorvia-cli: can't reach the quorvia daemon on localhost:9088"));
    EXPECT_EQ(0, QuorviaCli::sRun({"--help"}, out, err));
    EXPECT_EQ(0u, out.str().find("usage: quorvia-cli JSON"));
    out.str("");
    const std::vector<std::vector<std::string>> malformed = {
        {}, {"--help", "extra"}, {"{}", "extra"}, {"--notify", "1"}, {"--notify", "one", "text"},
        {"--notify", "99999999999", "text"}};
    for (const std::vector<std::string>& args : malformed) {
        err.str("");
        EXPECT_EQ(QuorviaCli::EXIT_USAGE_, QuorviaCli::sRun(args, out, err)) << args.size();
        EXPECT_EQ(0u, err.str().find("usage: quorvia-cli JSON"));
    }
    EXPECT_EQ("", out.str());
}

TEST(ThriftClientDaemonTest, RepliesComeBackWholeToEveryThreadAndExceptionsAsEmpty) {
    quorvia_test::LogCapture log;
    QuorviaServer server(std::make_shared<EchoHandler>(), ThriftClient::PORT_);
    std::thread serving([&server] { server.serve(); });
    EXPECT_TRUE(quorvia_test::waitForListener(ThriftClient::PORT_));
    std::vector<std::future<std::string>> calls;
    for (int i = 0; i < 64; ++i) {
        calls.push_back(std::async(std::launch::async,
                                   [i] { return ThriftClient::sCallQuorvia(std::to_string(i)); }));
    }
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(std::to_string(i), calls[i].get());
    }
    EXPECT_EQ(kBigReply, ThriftClient::sCallQuorvia("big").size());
    EXPECT_EQ("7x", ThriftClient::sNotifyQuorvia(7, "x"));
    EXPECT_EQ("", ThriftClient::sCallQuorvia("throw"));
    EXPECT_EQ(1,
              log.count("sCallQuorvia thrift request exception error: boom", google::GLOG_ERROR));

    // The command tells an empty reply from none: a daemon that doesn't answer
    // in time, or refuses the call (a frame above its limit). Once it waited
    // for ever, and took a refusal for an empty reply (regressions).
    std::ostringstream out;
    const auto cli = [&out](const std::string& request, int timeoutMillis) {
        std::ostringstream err;
        const int status = QuorviaCli::sRun({request}, out, err, timeoutMillis);
        // What follows "quorvia-cli: " up to the next colon.
        const std::string said = err.str();
        return std::to_string(status) + " " + said.substr(13, said.find(':', 13) - 13);
    };
    EXPECT_EQ("1 empty reply", cli("", 100));
    std::ostringstream notified, err;
    EXPECT_EQ(QuorviaCli::EXIT_REPLY_, QuorviaCli::sRun({"--notify", "7", "x"}, notified, err));
    EXPECT_EQ("7x\n", notified.str());
    const std::string none = "2 no reply from the quorvia daemon on localhost";
    EXPECT_EQ(none, cli("slow", 100));
    EXPECT_EQ(none, cli(std::string(70000, 'x'), QuorviaCli::kReplyTimeoutMillis));
    server.stop();
    serving.join();
}

}  // namespace
