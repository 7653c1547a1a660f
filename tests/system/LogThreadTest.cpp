#include <gtest/gtest.h>

#include <glog/logging.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <string>
#include <thread>
#include <vector>

#include "system/Log.h"
#include "system/LogQueue.h"

namespace {

using talvern::Log;
using talvern::LogQueue;
using talvern::LogRecord;

LogRecord recordOf(const std::string& text) {
    LogRecord record = {google::GLOG_INFO, __FILE__, __LINE__, {0, 0}, 0, text};
    return record;
}

// What the queue's thread wrote; it holds at the first line until opened.
class Written {
public:
    explicit Written(bool open) : open_(open), entered_(false) {}

    void write(const LogRecord& record) {
        boost::unique_lock<boost::mutex> lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        while (!open_) {
            changed_.wait(lock);
        }
        texts_.push_back(record.text);
    }
    void waitForTheWriter() {
        boost::unique_lock<boost::mutex> lock(mutex_);
        while (!entered_) {
            changed_.wait(lock);
        }
    }
    void open() {
        boost::lock_guard<boost::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    std::vector<std::string> texts() {
        boost::lock_guard<boost::mutex> lock(mutex_);
        return texts_;
    }

private:
    boost::mutex mutex_;
    boost::condition_variable changed_;
    bool open_;
    bool entered_;
    std::vector<std::string> texts_;
};

LogQueue::Output into(Written& written) {
    return [&written](const std::deque<LogRecord>& batch) {
        for (const LogRecord& record : batch) {
            written.write(record);
        }
    };
}

TEST(LogThreadTest, EachThreadsLinesArriveInItsOrder) {
    Written written(true);
    {
        LogQueue queue(into(written));
        const int threads = 4, lines = 5000;
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
        for (const std::string& text : written.texts()) {
            const int t = atoi(text.c_str());
            ASSERT_EQ(std::to_string(t) + " " + std::to_string(next[t]), text);
            ++next[t];
        }
        EXPECT_EQ(std::vector<int>(threads, lines), next);
    }
}

// A writer that is stuck fills the queue; the next line waits, and is
// written once the writer goes on: nothing is dropped.
TEST(LogThreadTest, AFullQueueMakesTheCallerWait) {
    Written written(false);
    LogQueue queue(into(written));
    queue.push(recordOf("taken by the stuck writer"));
    written.waitForTheWriter();
    for (size_t i = 0; i < LogQueue::kMaxLines; ++i) {
        queue.push(recordOf(std::to_string(i)));
    }
    std::atomic<bool> pushed(false);
    std::thread late([&] {
        queue.push(recordOf("late"));
        pushed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(pushed);
    written.open();
    late.join();
    queue.flush();
    const std::vector<std::string> texts = written.texts();
    ASSERT_EQ(LogQueue::kMaxLines + 2, texts.size());
    EXPECT_EQ("late", texts.back());
}

// Which thread wrote each line.
class ThreadSink : public google::LogSink {
public:
    virtual void send(google::LogSeverity, const char*, const char*, int,
                      const google::LogMessageTime&, const char*, size_t) {
        boost::lock_guard<boost::mutex> lock(mutex_);
        writers.push_back(std::this_thread::get_id());
    }
    boost::mutex mutex_;
    std::vector<std::thread::id> writers;
};

TEST(LogThreadTest, OnceStartedTheLoggingThreadWritesTheLines) {
    ThreadSink sink;
    Log::sAddSink(&sink);
    QLOG(WARNING) << "written by the thread that says it";
    Log::sStartThread();
    QLOG(WARNING) << "written by the logging thread";
    Log::sFlush();
    Log::sRemoveSink(&sink);
    ASSERT_EQ(2u, sink.writers.size());
    EXPECT_EQ(std::this_thread::get_id(), sink.writers[0]);
    EXPECT_NE(std::this_thread::get_id(), sink.writers[1]);
}

// A sink that takes a millisecond a line, so that lines are still queued
// when the process ends.
class SlowSink : public google::LogSink {
public:
    virtual void send(google::LogSeverity, const char*, const char*, int,
                      const google::LogMessageTime&, const char*, size_t) {
        usleep(1000);
    }
};

// Standard error of a child that logs 200 lines through the logging thread
// and then ends as end says; status is how it ended.
std::string childOutput(void (*end)(), int& status) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        return "";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeEnds[1], STDERR_FILENO);
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
        _exit(3);
    }
    close(pipeEnds[1]);
    std::string output;
    char buffer[4096];
    ssize_t got;
    while ((got = read(pipeEnds[0], buffer, sizeof(buffer))) > 0) {
        output.append(buffer, got);
    }
    close(pipeEnds[0]);
    waitpid(pid, &status, 0);
    return output;
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
    int status = 0;
    std::string output = childOutput(&crash, status);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status << output;
    const size_t last = output.find("] queued 199\n");
    EXPECT_NE(std::string::npos, last) << output;
    EXPECT_LT(last, output.find("*** SIGSEGV")) << output;

    output = childOutput(&leave, status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(std::string::npos, output.find("] queued 199\n")) << output;
}

}  // namespace
