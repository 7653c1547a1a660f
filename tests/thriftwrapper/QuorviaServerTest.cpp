#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <thrift/TOutput.h>
#include <vector>

#include "support/DeviceRootTest.h"
#include "support/LogCapture.h"
#include "support/PeakMemory.h"
#include "thriftwrapper/QuorviaServer.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_test::RawConnection;
using namespace quorvia_test::wire;
using ::testing::Contains;
using ::testing::Field;
using ::testing::StartsWith;

// mallinfo2 counts the main arena only: every thread allocates there, so that
// the buffers that a worker grows are counted too.
const int kOneArena = mallopt(M_ARENA_MAX, 1);

// Bytes allocated, in the heap and in blocks of their own.
size_t allocated() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Echoes the request; a request "slow" takes half a second, and the handler
// notes the most that ran at once; "stack" answers with the size of the
// worker's stack; "big" answers after 50 ms with 512 KiB.
class SlowHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        if (parameter == "stack") {
            result = std::to_string(quorvia_test::currentStackSize());
            return;
        }
        if (parameter == "big") {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            result.assign(512 * 1024, 'x');
            ++bigAnswered_;
            return;
        }
        if (parameter == "slow") {
            const int now = ++running_;
            int most = mostAtOnce_;
            while (now > most && !mostAtOnce_.compare_exchange_weak(most, now)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            --running_;
        }
        result = parameter;
    }
    virtual void notify(std::string&, const int32_t, const std::string&) {}

    std::atomic<int> running_{0};
    std::atomic<int> mostAtOnce_{0};
    std::atomic<size_t> bigAnswered_{0};
};

class QuorviaServerTest : public ::testing::Test {
protected:
    virtual void SetUp() {
        handler_ = std::make_shared<SlowHandler>();
        server_.reset(new QuorviaServer(handler_, 0));
        thread_ = std::thread([this] { server_->serve(); });
        for (int i = 0; i < 500 && server_->listenPort() == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        port_ = server_->listenPort();
        ASSERT_TRUE(quorvia_test::waitForListener(port_));
    }
    virtual void TearDown() {
        server_->stop();
        thread_.join();
    }

    // One request on a connection of its own; the reply frame's body.
    std::string call(const std::string& parameter) {
        RawConnection connection(port_);
        connection.send(requestCall(parameter));
        return connection.readFrame();
    }

    std::shared_ptr<SlowHandler> handler_;
    quorvia_test::LogCapture log_;
    std::unique_ptr<QuorviaServer> server_;
    std::thread thread_;
    int port_ = 0;
};

TEST_F(QuorviaServerTest, FourSlowRequestsRunThreeAtATimeAndTheFourthIsServed) {
    std::vector<std::future<std::string>> calls;
    for (int i = 0; i < 4; ++i) {
        calls.push_back(std::async(std::launch::async, [this] { return call("slow"); }));
    }
    for (std::future<std::string>& slow : calls) {
        EXPECT_EQ(reply("slow"), slow.get());
    }
    EXPECT_EQ(static_cast<int>(QuorviaServer::WORKER_COUNT_), handler_->mostAtOnce_.load());
}

// The workers ran on the system's default stack: 128 KiB with some router C
// libraries. Threads made later get the process's default again.
TEST_F(QuorviaServerTest, WorkersRunOnTheirOwnStackSizeRegression) {
    EXPECT_EQ(reply(std::to_string(QuorviaServer::WORKER_STACK_SIZE_)), call("stack"));
    std::size_t later = 0;
    std::thread([&later] { later = quorvia_test::currentStackSize(); }).join();
    EXPECT_NE(QuorviaServer::WORKER_STACK_SIZE_, later);
}

TEST_F(QuorviaServerTest, FramesAndNamesBeyondTheLimitCloseOnlyTheirConnectionRegression) {
    // The largest parameter whose call fits in one frame.
    const std::string largest(QuorviaServer::MAX_FRAME_SIZE_ - (requestCall("").size() - 4), 'x');
    EXPECT_EQ(reply(largest), call(largest));
    const long before = quorvia_test::peakResidentKiB();
    // One byte more, and a declared gigabyte: refused before anything is
    // read. A call without the version word starts with its name's length: a
    // frame of seven bytes that declared 1.8 GB made a worker allocate and
    // clear it.
    for (const std::string& bytes :
         {requestCall(largest + "x"), i32(1 << 30) + "abc", frame(i32(1862664303) + "abc")}) {
        SCOPED_TRACE(bytes.substr(0, 40));
        RawConnection connection(port_);
        ASSERT_TRUE(connection.send(bytes));
        EXPECT_TRUE(connection.closedByPeer());
        EXPECT_EQ(reply("still"), call("still"));
    }
    EXPECT_LT(quorvia_test::peakResidentKiB() - before, 64 * 1024);
}

// Peers that connected and never called held every place, and no other
// peer was served until they left: a new connection now shuts down the one
// that waited longest for a call, never one whose call waits for a worker,
// and one that calls keeps its place.
TEST_F(QuorviaServerTest, IdleConnectionsMakeRoomForNewOnesRegression) {
    // Both ends of every connection live in this process.
    const rlim_t needed = 2 * QuorviaServer::MAX_CONNECTIONS_ + 64;
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_max < needed) {
        GTEST_SKIP() << "needs " << needed << " descriptors; the hard limit is " << limit.rlim_max;
    }
    limit.rlim_cur = std::max(limit.rlim_cur, needed);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    RawConnection queued(port_), calling(port_), idlest(port_);
    ASSERT_TRUE(calling.send(requestCall("first")));
    ASSERT_EQ(reply("first"), calling.readFrame());
    // Every worker busy, and one more call waiting for them.
    std::list<RawConnection> busy;
    while (busy.size() < QuorviaServer::WORKER_COUNT_) {
        busy.emplace_back(port_);
        ASSERT_TRUE(busy.back().send(requestCall("slow")));
    }
    while (handler_->running_ < static_cast<int>(QuorviaServer::WORKER_COUNT_)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(queued.send(requestCall("slow")));
    std::list<RawConnection> idle;
    while (idle.size() + busy.size() + 3 < QuorviaServer::ROOM_FOR_) {
        idle.emplace_back(port_);
    }
    // A byte now and then is no call.
    ASSERT_TRUE(idlest.send(std::string(1, '\0')));
    EXPECT_EQ(reply("newcomer"), call("newcomer"));
    EXPECT_EQ(reply("slow"), queued.readFrame());
    for (RawConnection& connection : busy) {
        EXPECT_EQ(reply("slow"), connection.readFrame());
    }
    // A worker that has just answered may count as busy for a moment, and
    // none is shut while one does: newcomers call until one is.
    for (int i = 0; i < 100 && !idlest.readableWithin(20); ++i) {
        EXPECT_EQ(reply("later"), call("later"));
    }
    EXPECT_TRUE(idlest.closedByPeer());
    ASSERT_TRUE(calling.send(requestCall("again")));
    EXPECT_EQ(reply("again"), calling.readFrame());
    EXPECT_TRUE(log_.contains(std::to_string(QuorviaServer::ROOM_FOR_) +
                                  " connections open: 1 idle one(s) shut down to make room since "
                                  "the last line",
                              google::GLOG_WARNING));
}

// A peer that sent one big request and went quiet keeps neither the frame it
// sent nor the reply it got: 64 such peers held 8 MiB while the library
// looked at the buffers only every 512 calls.
TEST_F(QuorviaServerTest, IdleConnectionsGiveTheirBigBuffersBackRegression) {
    const std::string big(60 * 1024, 'x');
    const size_t peers = 64, before = mallinfo2().uordblks;
    std::list<RawConnection> idle;
    while (idle.size() < peers) {
        idle.emplace_back(port_);
        idle.back().send(requestCall(big));
        ASSERT_EQ(reply(big), idle.back().readFrame());
    }
    EXPECT_LT(mallinfo2().uordblks - before, peers * (QuorviaServer::IDLE_READ_BUFFER_LIMIT_ +
                                                      QuorviaServer::IDLE_WRITE_BUFFER_LIMIT_));
}

// The library cuts a connection's reply buffer back only after a reply was
// sent whole: peers that reset before their big reply went out left 512 KiB
// each with the connection objects it keeps for later peers.
TEST_F(QuorviaServerTest, PeersThatResetBeforeABigReplyLeaveNoBufferBehindRegression) {
    const size_t peers = 16, before = allocated();
    const size_t bound =
        peers * (QuorviaServer::IDLE_READ_BUFFER_LIMIT_ + QuorviaServer::IDLE_WRITE_BUFFER_LIMIT_);
    std::list<RawConnection> gone;
    for (size_t peer = 0; peer < peers; ++peer) {
        gone.emplace_back(port_);
        ASSERT_TRUE(gone.back().send(requestCall("big")));
        gone.back().reset();
    }
    // Once answered, the replies are written and fail at once; the memory
    // they held is given back then or never.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while ((handler_->bigAnswered_ < peers || allocated() - before >= bound) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(peers, handler_->bigAnswered_.load());
    EXPECT_EQ(reply("still"), call("still"));
    EXPECT_LT(allocated() - before, bound);
}

// A worker still ending a call whose connection it dropped (it reports the
// failure, then tells the I/O thread) when the server is stopped and
// destroyed: the server must wait for it. A slow report holds the worker in
// that window.
TEST_F(QuorviaServerTest, DestroyedWhileAWorkerEndsADroppedCallRegression) {
    apache::thrift::GlobalOutput.setOutputFunction([](const char* line) {
        if (strstr(line, "process() exception") != NULL) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    RawConnection connection(port_);
    ASSERT_TRUE(connection.send(frame(std::string(64, '\xff'))));
    EXPECT_TRUE(connection.closedByPeer());
    TearDown();
    server_.reset();
    SetUp();
}

// The library's stop wakes the loop through a pipe that it makes after the
// port answers: a stop in between was lost and serve never returned (a test
// that restarted its server hung in teardown).
TEST_F(QuorviaServerTest, AStopWhileServeStartsIsNotLostRegression) {
    TearDown();
    apache::thrift::GlobalOutput.setOutputFunction([](const char* line) {
        if (strstr(line, "Serving with") != NULL) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    server_.reset(new QuorviaServer(handler_, 0));
    std::promise<void> served;
    std::future<void> ended = served.get_future();
    thread_ = std::thread([this, &served] {
        server_->serve();
        served.set_value();
    });
    while (server_->listenPort() == 0) {
        std::this_thread::yield();
    }
    server_->stop();
    const bool stopped = ended.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    EXPECT_TRUE(stopped);
    if (!stopped) {
        server_->stop();
    }
    thread_.join();
    apache::thrift::GlobalOutput.setOutputFunction(apache::thrift::TOutput::errorTimeWrapper);
    server_.reset();
    SetUp();
}

// The router's other components share the descriptor table: an accept that
// fails for lack of descriptors ended the process with an uncaught transport
// exception. Now the open connections are served, the failures make one line
// a second, and the waiting peer is taken once descriptors are free again.
TEST_F(QuorviaServerTest, AcceptWithoutDescriptorsKeepsServingRegression) {
#ifdef QUORVIA_UNDEFINED_SANITIZER
    GTEST_SKIP() << "the sanitizer's type check needs a descriptor (a pipe) and reports every "
                    "object as invalid without one";
#endif
    RawConnection first(port_);
    // A call's path is taken a few times while descriptors are plenty, so
    // that a sanitizer's report on it is symbolized then, not in the window.
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(first.send(requestCall("before")));
        ASSERT_EQ(reply("before"), first.readFrame());
    }
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(quorvia_test::openDescriptors() + 1);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    // Every descriptor taken but one, for the waiting peer's socket.
    std::vector<int> fillers;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        fillers.push_back(fd);
    }
    close(fillers.back());
    fillers.pop_back();
    RawConnection waiting(port_);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(first.send(requestCall("during")));
    EXPECT_EQ(reply("during"), first.readFrame());
    for (int fd : fillers) {
        close(fd);
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    ASSERT_TRUE(waiting.send(requestCall("after")));
    EXPECT_EQ(reply("after"), waiting.readFrame());
    EXPECT_THAT(log_.lines(),
                Contains(Field(&quorvia_test::LogCapture::Line::text, StartsWith("accept failed")))
                    .Times(1));
}

}  // namespace
