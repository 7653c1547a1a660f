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

// Echoes the request; a request "slow" waits until released, counting how
// many wait at once.
class SlowHandler : virtual public talvern::TalvernIf {
public:
    SlowHandler() : running_(0), mostAtOnce_(0), released_(false) {}

    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "slow") {
            std::unique_lock<std::mutex> lock(mutex_);
            ++running_;
            mostAtOnce_ = std::max(mostAtOnce_, running_);
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
            --running_;
        }
        result = parameter;
    }
    virtual void notify(std::string&, const int32_t, const std::string&) {}

    // Waits up to two seconds for count requests to be running at once.
    bool waitRunning(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(2),
                                 [this, count] { return running_ >= count; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    int mostAtOnce() {
        std::lock_guard<std::mutex> lock(mutex_);
        return mostAtOnce_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int running_;
    int mostAtOnce_;
    bool released_;
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
        server_.reset();
    }

    // One request on a connection of its own; the reply's text, or "(none)".
    std::string call(const std::string& parameter) {
        RawConnection connection(port_);
        WireReply reply;
        if (!connection.send(WireMessage::requestCall(parameter)) || !connection.readReply(reply)) {
            return "(none)";
        }
        return reply.text;
    }

    std::shared_ptr<SlowHandler> handler_;
    std::unique_ptr<QuorviaServer> server_;
    boost::thread thread_;
    int port_;
};

TEST_F(QuorviaServerTest, FourSlowRequestsRunThreeAtATimeAndTheFourthIsServed) {
    std::vector<std::string> replies(4);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([this, &replies, i] { replies[i] = call("slow"); });
    }
    ASSERT_TRUE(handler_->waitRunning(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(static_cast<int>(QuorviaServer::WORKER_COUNT_), handler_->mostAtOnce());
    handler_->release();
    for (std::thread& caller : callers) {
        caller.join();
    }
    for (const std::string& reply : replies) {
        EXPECT_EQ("slow", reply);
    }
    EXPECT_EQ(3, handler_->mostAtOnce());
}

TEST_F(QuorviaServerTest, AFrameBeyondTheLimitClosesOnlyItsConnection) {
    // A request just inside the limit is served whole.
    const size_t overhead = WireMessage::requestCall("").size() - 4;
    const std::string largest(QuorviaServer::MAX_FRAME_SIZE_ - overhead, 'x');
    EXPECT_EQ(largest, call(largest));

    RawConnection tooLarge(port_);
    ASSERT_TRUE(tooLarge.send(WireMessage::requestCall(largest + "x")));
    EXPECT_TRUE(tooLarge.closedByPeer());

    // A frame that declares a gigabyte is refused before anything is read.
    RawConnection huge(port_);
    ASSERT_TRUE(huge.send(WireMessage::i32(1 << 30) + "abc"));
    EXPECT_TRUE(huge.closedByPeer());
    EXPECT_EQ("still", call("still"));
}

TEST_F(QuorviaServerTest, HalfAFrameStallsNobodyElse) {
    RawConnection stalled(port_);
    const std::string call = WireMessage::requestCall("never finished");
    ASSERT_TRUE(stalled.send(call.substr(0, call.size() / 2)));
    EXPECT_EQ("others", this->call("others"));
}

TEST_F(QuorviaServerTest, ConnectionsBeyondTheLimitAreClosedAtAccept) {
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (size_t i = 0; i < 300; ++i) {
        idle.emplace_back(new RawConnection(port_));
    }
    // Hundreds of idle peers leave room for a busy one.
    EXPECT_EQ("busy", call("busy"));
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
