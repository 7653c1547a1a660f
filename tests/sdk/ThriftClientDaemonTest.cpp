#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread.hpp>
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

class ThriftClientDaemonTest : public ::testing::Test {
protected:
    virtual void TearDown() {
        if (server_) {
            server_->stop();
            thread_.join();
        }
    }

    int runCli(const std::vector<std::string>& args) {
        err_.str("");
        return QuorviaCli::sRun(args, out_, err_);
    }

    quorvia_test::LogCapture log_;
    std::unique_ptr<QuorviaServer> server_;
    boost::thread thread_;
    std::ostringstream out_;
    std::ostringstream err_;
};

TEST_F(ThriftClientDaemonTest, WithoutADaemonTheCallAnswersEmptyAndTheCliSaysWhy) {
    EXPECT_EQ("", ThriftClient::sCallQuorvia("{\"api\":1}"));
    EXPECT_TRUE(log_.contains("sCallQuorvia thrift request exception error: ", google::GLOG_ERROR));
    EXPECT_EQ(QuorviaCli::EXIT_UNREACHABLE_, runCli({"{\"api\":1}"}));
    EXPECT_EQ(0u, err_.str().find("quorvia-cli: can't reach the quorvia daemon on localhost:9088"));
    EXPECT_EQ("", out_.str());
}

TEST_F(ThriftClientDaemonTest, RepliesComeBackWholeToEveryThreadAndExceptionsAsEmpty) {
    server_.reset(new QuorviaServer(std::make_shared<EchoHandler>(), ThriftClient::PORT_));
    thread_ = boost::thread([this] { server_->serve(); });
    ASSERT_TRUE(quorvia_test::waitForListener(ThriftClient::PORT_));
    std::atomic<int> wrong(0);
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t) {
        callers.emplace_back([&wrong, t] {
            for (int i = 0; i < 20; ++i) {
                const std::string text = std::to_string(t * 100 + i) + "x";
                wrong += ThriftClient::sCallQuorvia(text) == text ? 0 : 1;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(std::string(1 << 20, 'b'), ThriftClient::sCallQuorvia("big"));
    EXPECT_EQ("", ThriftClient::sCallQuorvia("throw"));
    EXPECT_EQ(1,
              log_.count("sCallQuorvia thrift request exception error: boom", google::GLOG_ERROR));
}

TEST_F(ThriftClientDaemonTest, CliRefusesMalformedArguments) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--help"},
        {"{}", "extra"},
        {"--notify", "1"},
        {"--notify", "one", "text"},
        {"--notify", "99999999999", "text"},
        {"--notify", "1", "text", "more"},
    };
    for (const std::vector<std::string>& args : cases) {
        EXPECT_EQ(QuorviaCli::EXIT_USAGE_, runCli(args)) << args.size();
        EXPECT_EQ(0u, err_.str().find("usage: quorvia-cli JSON"));
    }
}

}  // namespace
