#include <gtest/gtest.h>

#include <glog/logging.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/Log.h"
#include "system/LogQueue.h"

namespace {

using talvern::Log;
using talvern::LogQueue;
using talvern::LogRecord;

LogRecord recordOf(const std::string& text) {
    return LogRecord{google::GLOG_INFO, __FILE__, __LINE__, {0, 0}, 0, text};
}

// Lines of four threads at once: each thread's lines arrive whole and in its
// order.
TEST(LogThreadTest, EachThreadsLinesArriveInItsOrder) {
    const int threads = 4, lines = 5000;
    std::vector<std::string> written;
    LogQueue queue([&](const std::deque<LogRecord>& batch) {
        for (const LogRecord& record : batch) {
            written.push_back(record.text);
        }
    });
    std::vector<std::thread> sayers;
    for (int t = 0; t < threads; ++t) {
        sayers.emplace_back([&queue, t] {
            for (int i = 0; i < lines; ++i) {
                queue.push(recordOf(std::to_string(t) + " " + std::to_string(i)));
            }
        });
    }
    for (std::thread& sayer : sayers) {
        sayer.join();
    }
    queue.flush();
    std::vector<int> next(threads, 0);
    for (const std::string& text : written) {
        const int t = atoi(text.c_str());
        ASSERT_EQ(std::to_string(t) + " " + std::to_string(next[t]++), text);
    }
    EXPECT_EQ(std::vector<int>(threads, lines), next);
}

// The writer sleeps while nothing is queued, and a line said after a pause
// is written without anyone asking.
TEST(LogThreadTest, AnIdleWriterSleepsAndWakesForTheNextLine) {
    std::atomic<int> written(0);
    LogQueue queue([&](const std::deque<LogRecord>& batch) { written += batch.size(); });
    const double before = quorvia_test::processCpuMillis();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(quorvia_test::processCpuMillis() - before, 50);
    queue.push(recordOf("after the pause"));
    for (int i = 0; i < 1000 && written == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(1, written);
}

// A stuck writer fills the queue; the next line waits, and is written once
// the writer goes on: nothing is dropped or reordered.
TEST(LogThreadTest, AFullQueueMakesTheCallerWait) {
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::atomic<bool> entered(false);
    std::vector<std::string> written;
    LogQueue queue([&](const std::deque<LogRecord>& batch) {
        entered = true;
        opened.wait();
        for (const LogRecord& record : batch) {
            written.push_back(record.text);
        }
    });
    std::vector<std::string> expected = {"taken by the stuck writer"};
    queue.push(recordOf(expected.back()));
    while (!entered) {
        std::this_thread::yield();
    }
    for (size_t i = 0; i < LogQueue::kMaxLines; ++i) {
        expected.push_back(std::to_string(i));
        queue.push(recordOf(expected.back()));
    }
    std::atomic<bool> pushed(false);
    std::thread late([&] {
        queue.push(recordOf("late"));
        pushed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(pushed);
    gate.set_value();
    late.join();
    queue.flush();
    expected.push_back("late");
    EXPECT_EQ(expected, written);
}

// A thread that goes on saying lines while a crash waits for the queue (here
// the writer itself, at each batch): the wait ends once the lines said
// before it are written (once, the crashed process served on for the whole
// wait: regression).
TEST(LogThreadTest, ACrashWaitsOnlyForTheLinesSaidBeforeItRegression) {
    std::atomic<bool> saying(true);
    LogQueue* self = nullptr;
    LogQueue queue([&](const std::deque<LogRecord>&) {
        if (saying) {
            self->push(recordOf("more"));
        }
    });
    self = &queue;
    queue.push(recordOf("before the crash"));
    EXPECT_TRUE(queue.flushWithin(1000));
    saying = false;
}

// Which thread wrote each line, and its length.
struct ThreadSink : google::LogSink {
    void send(google::LogSeverity, const char*, const char*, int, const google::LogMessageTime&,
              const char*, size_t length) override {
        std::lock_guard<std::mutex> lock(mutex);
        writers.push_back(std::this_thread::get_id());
        lengths.push_back(length);
    }
    std::mutex mutex;
    std::vector<std::thread::id> writers;
    std::vector<size_t> lengths;
};

// A text longer than a line may be is cut: what a line queues is bounded.
TEST(LogThreadTest, OnceStartedTheLoggingThreadWritesTheLines) {
    ThreadSink sink;
    Log::sAddSink(&sink);
    QLOG(WARNING) << "written by the thread that says it";
    Log::sStartThread();
    QLOG(WARNING) << "written by the logging thread";
    QLOG(WARNING) << std::string(3 * talvern::LogLine::kMaxTextBytes, 'x');
    Log::sFlush();
    Log::sRemoveSink(&sink);
    ASSERT_EQ(3u, sink.writers.size());
    EXPECT_EQ(std::this_thread::get_id(), sink.writers[0]);
    EXPECT_NE(std::this_thread::get_id(), sink.writers[1]);
    EXPECT_EQ(talvern::LogLine::kMaxTextBytes, sink.lengths[2]);
}

// A sink that takes a millisecond a line keeps lines queued when the
// process ends: 200 lines through the logging thread, then end().
struct SlowSink : google::LogSink {
    void send(google::LogSeverity, const char*, const char*, int, const google::LogMessageTime&,
              const char*, size_t) override {
        usleep(1000);
    }
};

void logThenEnd(void (*end)()) {
    google::InitGoogleLogging("log-thread-test");
    FLAGS_logtostderr = true;
    google::InstallFailureSignalHandler();
    Log::sStartThread();
    SlowSink sink;
    Log::sAddSink(&sink);
    for (int i = 0; i < 200; ++i) {
        QLOG(INFO) << "queued " << i;
    }
    end();
}

// glog's handler sends the signal again at its default: it may reach another
// thread of the child, so this one waits for it.
void crash() {
    raise(SIGSEGV);
    for (;;) {
        pause();
    }
}

void leave() { exit(0); }

TEST(LogThreadTest, QueuedLinesAreWrittenBeforeACrashTakesItsCourseAndAtExit) {
    EXPECT_EXIT(logThenEnd(&crash), ::testing::KilledBySignal(SIGSEGV),
                "] queued 199\n.*\\*\\*\\* SIGSEGV");
    EXPECT_EXIT(logThenEnd(&leave), ::testing::ExitedWithCode(0), "] queued 199\n");
}

}  // namespace
