#include <gtest/gtest.h>

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

// Answers "big" with a MiB, "throw" with an exception, anything else with
// itself.
class EchoHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "throw") {
            throw std::runtime_error("boom");
        }
        result = parameter == "big" ? std::string(1 << 20, 'b') : parameter;
    }
    virtual void notify(std::string&, const int32_t, const std::string&) {}
};

// Arguments are checked before the daemon is looked for.
TEST(ThriftClientDaemonTest, WithoutADaemonTheCallAnswersEmptyAndTheCliSaysWhy) {
    quorvia_test::LogCapture log;
    EXPECT_EQ("", ThriftClient::sCallQuorvia("{\"api\":1}"));
    EXPECT_TRUE(log.contains("sCallQuorvia thrift request exception error: ", google::GLOG_ERROR));
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
    EXPECT_EQ(std::string(1 << 20, 'b'), ThriftClient::sCallQuorvia("big"));
    EXPECT_EQ("", ThriftClient::sCallQuorvia("throw"));
    EXPECT_EQ(1,
              log.count("sCallQuorvia thrift request exception error: boom", google::GLOG_ERROR));
    server.stop();
    serving.join();
}

}  // namespace
