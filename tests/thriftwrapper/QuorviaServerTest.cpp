#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "thriftwrapper/QuorviaServer.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_test::RawConnection;
using quorvia_test::WireMessage;
using quorvia_test::WireReply;

// Echoes the request; a request "slow" waits until released, noting the most
// that waited at once.
class SlowHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "slow") {
            std::unique_lock<std::mutex> lock(mutex_);
            mostAtOnce_ = std::max(mostAtOnce_, ++running_);
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
            --running_;
        }
        result = parameter;
    }
    virtual void notify(std::string&, const int32_t, const std::string&) {}

    // The most that ran at once, after up to two seconds for count to run
    // and a little longer for any beyond them.
    int mostAtOnceAfter(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(2),
                          [this, count] { return running_ >= count; });
        changed_.wait_for(lock, std::chrono::milliseconds(300), [] { return false; });
        return mostAtOnce_;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int running_ = 0;
    int mostAtOnce_ = 0;
    bool released_ = false;
};

class QuorviaServerTest : public ::testing::Test {
protected:
    virtual void SetUp() {
        handler_ = std::make_shared<SlowHandler>();
        server_.reset(new QuorviaServer(handler_, 0));
        thread_ = boost::thread([this] { server_->serve(); });
        for (int i = 0; i < 500 && server_->listenPort() == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        port_ = server_->listenPort();
        ASSERT_TRUE(quorvia_test::waitForListener(port_));
    }
    virtual void TearDown() {
        handler_->release();
        server_->stop();
        thread_.join();
    }

    // One request on a connection of its own; the reply's text, or "(none)".
    std::string call(const std::string& parameter) {
        RawConnection connection(port_);
        WireReply reply;
        const bool answered =
            connection.send(WireMessage::requestCall(parameter)) && connection.readReply(reply);
        return answered ? reply.text : "(none)";
    }

    std::shared_ptr<SlowHandler> handler_;
    std::unique_ptr<QuorviaServer> server_;
    boost::thread thread_;
    int port_ = 0;
};

TEST_F(QuorviaServerTest, FourSlowRequestsRunThreeAtATimeAndTheFourthIsServed) {
    std::vector<std::string> replies(4);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([this, &replies, i] { replies[i] = call("slow"); });
    }
    EXPECT_EQ(static_cast<int>(QuorviaServer::WORKER_COUNT_), handler_->mostAtOnceAfter(3));
    handler_->release();
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(std::vector<std::string>(4, "slow"), replies);
}

TEST_F(QuorviaServerTest, BytesBeyondTheFrameOrTheProtocolCloseOnlyTheirConnection) {
    const size_t overhead = WireMessage::requestCall("").size() - 4;
    const std::string largest(QuorviaServer::MAX_FRAME_SIZE_ - overhead, 'x');
    EXPECT_EQ(largest, call(largest));
    const std::string args = WireMessage::stringArgs("x");
    const std::string cases[] = {
        WireMessage::requestCall(largest + "x"),
        // A declared gigabyte is refused before anything is read.
        WireMessage::i32(1 << 30) + "abc",
        WireMessage::frame(std::string(64, '\xff')),
        // A string longer than its frame.
        WireMessage::frame(WireMessage::head("request", 1, 0) + WireMessage::field('\x0b', 1) +
                           WireMessage::i32(1 << 20) + "ab"),
        // A reply sent to the server.
        WireMessage::frame(WireMessage::head("request", 2, 1) + args),
    };
    for (const std::string& bytes : cases) {
        SCOPED_TRACE(bytes.substr(0, 40));
        RawConnection connection(port_);
        connection.send(bytes);
        EXPECT_TRUE(connection.closedByPeer());
        EXPECT_EQ("still", call("still"));
    }
}

TEST_F(QuorviaServerTest, ConnectionsBeyondTheLimitAreClosedAtAccept) {
    std::vector<std::unique_ptr<RawConnection>> idle;
    // Half a frame stalls nobody else.
    idle.emplace_back(new RawConnection(port_));
    const std::string half = WireMessage::requestCall("never finished");
    ASSERT_TRUE(idle.back()->send(half.substr(0, half.size() / 2)));
    // The last connection within the limit is served, the next one closed.
    while (idle.size() < QuorviaServer::MAX_CONNECTIONS_ - 1) {
        idle.emplace_back(new RawConnection(port_));
    }
    EXPECT_EQ("busy", call("busy"));
    idle.emplace_back(new RawConnection(port_));
    RawConnection refused(port_, 2);
    EXPECT_TRUE(refused.closedByPeer());
    idle.clear();
    // The overload ends once the idle peers have gone.
    std::string reply;
    for (int i = 0; i < 50 && reply != "back"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reply = call("back");
    }
    EXPECT_EQ("back", reply);
}

}  // namespace
