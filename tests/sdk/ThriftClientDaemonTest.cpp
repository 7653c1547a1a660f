#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>
#include <chrono>
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
// itself reversed.
class EchoHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "throw") {
            throw std::runtime_error("boom");
        }
        result = parameter == "big" ? std::string(1 << 20, 'b')
                                    : std::string(parameter.rbegin(), parameter.rend());
    }
    virtual void notify(std::string& result, const int32_t, const std::string&) {
        result = "ignored by the client test";
        result.clear();
    }
};

class ThriftClientDaemonTest : public ::testing::Test {
protected:
    void startServer() {
        server_.reset(new QuorviaServer(std::make_shared<EchoHandler>(), ThriftClient::PORT_));
        thread_ = boost::thread([this] { server_->serve(); });
        ASSERT_TRUE(quorvia_test::waitForListener(ThriftClient::PORT_));
    }
    virtual void TearDown() {
        if (server_) {
            server_->stop();
            thread_.join();
        }
    }

    int runCli(const std::vector<std::string>& args) {
        out_.str("");
        err_.str("");
        return QuorviaCli::sRun(args, out_, err_);
    }

    quorvia_test::LogCapture log_;
    std::unique_ptr<QuorviaServer> server_;
    boost::thread thread_;
    std::ostringstream out_;
    std::ostringstream err_;
};

TEST_F(ThriftClientDaemonTest, WithoutADaemonTheCallLogsAndAnswersEmpty) {
    EXPECT_EQ("", ThriftClient::sCallQuorvia("{\"api\":1}"));
    EXPECT_TRUE(log_.contains("sCallQuorvia thrift request exception error: ", google::GLOG_ERROR));
    EXPECT_EQ(QuorviaCli::EXIT_UNREACHABLE_, runCli({"{\"api\":1}"}));
    EXPECT_NE(std::string::npos,
              err_.str().find("quorvia-cli: can't reach the quorvia daemon on localhost:9088"));
    EXPECT_EQ("", out_.str());
}

TEST_F(ThriftClientDaemonTest, RepliesComeBackWholeAndExceptionsAsEmpty) {
    startServer();
    EXPECT_EQ("cba", ThriftClient::sCallQuorvia("abc"));
    EXPECT_EQ(std::string(1 << 20, 'b'), ThriftClient::sCallQuorvia("big"));
    EXPECT_EQ("", ThriftClient::sNotifyQuorvia(3, "text"));
    log_.clear();
    EXPECT_EQ("", ThriftClient::sCallQuorvia("throw"));
    EXPECT_EQ(1, log_.count("sCallQuorvia thrift request exception error: boom", google::GLOG_ERROR));
}

TEST_F(ThriftClientDaemonTest, ThreadsCallAtTheSameTime) {
    startServer();
    std::vector<int> wrong(8, 0);
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t) {
        callers.emplace_back([&wrong, t] {
            for (int i = 0; i < 20; ++i) {
                const std::string text = std::to_string(t * 100 + i) + "x";
                if (ThriftClient::sCallQuorvia(text) != std::string(text.rbegin(), text.rend())) {
                    ++wrong[t];
                }
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
}

TEST_F(ThriftClientDaemonTest, CliPrintsTheReplyAndTellsAnEmptyOneApart) {
    startServer();
    EXPECT_EQ(QuorviaCli::EXIT_REPLY_, runCli({"{}ab"}));
    EXPECT_EQ("ba}{\n", out_.str());
    EXPECT_EQ(QuorviaCli::EXIT_EMPTY_REPLY_, runCli({""}));
    EXPECT_EQ("\n", out_.str());
    EXPECT_NE(std::string::npos, err_.str().find("empty reply"));
    EXPECT_EQ(QuorviaCli::EXIT_REPLY_, runCli({"--notify", "-4", "text"}));
    EXPECT_EQ("\n", out_.str());
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
        EXPECT_NE(std::string::npos, err_.str().find("usage: quorvia-cli JSON"));
    }
}

}  // namespace
