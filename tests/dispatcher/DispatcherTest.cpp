#include "dispatcher/Dispatcher.h"

#include <gtest/gtest.h>

#include <boost/chrono.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace {

// What the tasks did, in order, shared between the worker and the test.
class Journal {
public:
    void note(const std::string& entry) {
        boost::lock_guard<boost::mutex> lock(mutex_);
        entries_.push_back(entry);
        changed_.notify_all();
    }
    // Waits (bounded) until count entries are there; returns what is there.
    std::vector<std::string> waitFor(std::size_t count) {
        boost::unique_lock<boost::mutex> lock(mutex_);
        const boost::chrono::steady_clock::time_point deadline =
            boost::chrono::steady_clock::now() + boost::chrono::seconds(5);
        while (entries_.size() < count) {
            if (changed_.wait_until(lock, deadline) == boost::cv_status::timeout) {
                break;
            }
        }
        return entries_;
    }
    std::vector<std::string> entries() {
        boost::lock_guard<boost::mutex> lock(mutex_);
        return entries_;
    }

private:
    boost::mutex mutex_;
    boost::condition_variable changed_;
    std::vector<std::string> entries_;
};

// A one-shot latch that a task can wait on, so the test decides when it ends.
class Gate {
public:
    Gate() : open_(false) {}
    void open() {
        boost::lock_guard<boost::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void wait() {
        boost::unique_lock<boost::mutex> lock(mutex_);
        while (!open_) {
            changed_.wait(lock);
        }
    }

private:
    boost::mutex mutex_;
    boost::condition_variable changed_;
    bool open_;
};

class NoteTask : public Dispatchable {
public:
    NoteTask(Journal& journal, const std::string& name, int turns = 1, bool execute = true)
        : journal_(journal), name_(name), turns_(turns), execute_(execute), gate_(NULL),
          dispatcher_(NULL), throws_(false) {}

    virtual void run() {
        journal_.note(name_);
        if (gate_) {
            gate_->wait();
            journal_.note(name_ + "-end");
        }
        if (dispatcher_) {
            dispatcher_->stop();
        }
        if (throws_) {
            throw std::runtime_error("disk vanished");
        }
    }
    virtual bool isRecurring() {
        if (!execute_) {
            journal_.note(name_ + "-skipped");
        }
        return --turns_ > 0;
    }
    virtual bool shouldExecute() { return execute_; }

    Journal& journal_;
    std::string name_;
    int turns_;
    bool execute_;
    Gate* gate_;
    Dispatcher* dispatcher_;
    bool throws_;
};

boost::shared_ptr<NoteTask> task(Journal& journal, const std::string& name, int turns = 1) {
    return boost::shared_ptr<NoteTask>(new NoteTask(journal, name, turns));
}

std::vector<std::string> names(const char* a, const char* b = NULL, const char* c = NULL,
                               const char* d = NULL) {
    std::vector<std::string> out;
    const char* all[] = {a, b, c, d};
    for (int i = 0; i < 4 && all[i]; ++i) {
        out.push_back(all[i]);
    }
    return out;
}

TEST(DispatcherTest, TasksQueuedBeforeStartRunInTheirOrder) {
    Journal journal;
    Dispatcher dispatcher;
    dispatcher.dispatch(task(journal, "a"));
    dispatcher.dispatch(boost::shared_ptr<Dispatchable>());
    dispatcher.dispatch(task(journal, "b"));
    dispatcher.dispatch(task(journal, "c"));
    EXPECT_EQ(3u, dispatcher.size());
    EXPECT_FALSE(dispatcher.isRunning());
    dispatcher.start();
    EXPECT_EQ(names("a", "b", "c"), journal.waitFor(3));
    EXPECT_TRUE(dispatcher.isRunning());
}

TEST(DispatcherTest, StartTwiceAndStopTwiceAreHarmless) {
    Journal journal;
    Dispatcher never;
    never.stop();
    never.stop();
    EXPECT_FALSE(never.isRunning());

    Dispatcher dispatcher(true);
    dispatcher.start();
    dispatcher.dispatch(task(journal, "a"));
    EXPECT_EQ(names("a"), journal.waitFor(1));
    dispatcher.stop();
    dispatcher.stop();
    EXPECT_FALSE(dispatcher.isRunning());
}

TEST(DispatcherTest, TaskQueuedWhileStoppedRunsAfterTheNextStart) {
    Journal journal;
    Dispatcher dispatcher(true);
    dispatcher.stop();
    dispatcher.dispatch(task(journal, "queued"));
    EXPECT_EQ(1u, dispatcher.size());
    EXPECT_TRUE(journal.entries().empty());
    dispatcher.start();
    EXPECT_EQ(names("queued"), journal.waitFor(1));
}

TEST(DispatcherTest, RecurringTaskGoesBehindTasksQueuedDuringItsTurn) {
    Journal journal;
    Gate gate;
    Dispatcher dispatcher(true);
    boost::shared_ptr<NoteTask> recurring = task(journal, "r", 2);
    recurring->gate_ = &gate;
    dispatcher.dispatch(recurring);
    journal.waitFor(1);
    dispatcher.dispatch(task(journal, "x"));
    gate.open();
    std::vector<std::string> expected = names("r", "r-end", "x", "r");
    expected.push_back("r-end");
    EXPECT_EQ(expected, journal.waitFor(5));
}

TEST(DispatcherTest, SkippedRecurringTaskIsRequeuedWithoutRunning) {
    Journal journal;
    Dispatcher dispatcher(true);
    dispatcher.dispatch(boost::shared_ptr<Dispatchable>(new NoteTask(journal, "s", 3, false)));
    EXPECT_EQ(names("s-skipped", "s-skipped", "s-skipped"), journal.waitFor(3));
}

TEST(DispatcherTest, ClearDropsWaitingTasksButNotTheRunningOne) {
    Journal journal;
    Gate gate;
    Dispatcher dispatcher(true);
    boost::shared_ptr<NoteTask> slow = task(journal, "slow");
    slow->gate_ = &gate;
    dispatcher.dispatch(slow);
    journal.waitFor(1);
    dispatcher.dispatch(task(journal, "dropped"));
    dispatcher.dispatch(task(journal, "dropped too"));
    EXPECT_EQ(2u, dispatcher.size());
    dispatcher.clear();
    EXPECT_TRUE(dispatcher.empty());
    gate.open();
    dispatcher.dispatch(task(journal, "after"));
    EXPECT_EQ(names("slow", "slow-end", "after"), journal.waitFor(3));
}

TEST(DispatcherTest, ThrowingTaskIsLoggedAndTheWorkerGoesOn) {
    quorvia_test::LogCapture log;
    Journal journal;
    Dispatcher dispatcher(true);
    boost::shared_ptr<NoteTask> bad = task(journal, "bad");
    bad->throws_ = true;
    dispatcher.dispatch(bad);
    dispatcher.dispatch(task(journal, "next"));
    EXPECT_EQ(names("bad", "next"), journal.waitFor(2));
    EXPECT_TRUE(log.contains("disk vanished", google::GLOG_ERROR));
    EXPECT_TRUE(dispatcher.isRunning());
}

TEST(DispatcherTest, StopFromInsideATaskDoesNothing) {
    Journal journal;
    Dispatcher dispatcher(true);
    boost::shared_ptr<NoteTask> stopper = task(journal, "stopper");
    stopper->dispatcher_ = &dispatcher;
    dispatcher.dispatch(stopper);
    dispatcher.dispatch(task(journal, "still runs"));
    EXPECT_EQ(names("stopper", "still runs"), journal.waitFor(2));
}

TEST(DispatcherTest, DestructorWaitsForTheTaskInItsTurn) {
    Journal journal;
    Gate gate;
    boost::shared_ptr<NoteTask> slow = task(journal, "slow");
    slow->gate_ = &gate;
    {
        Dispatcher dispatcher(true);
        dispatcher.dispatch(slow);
        journal.waitFor(1);
        boost::thread opener(boost::bind(&Gate::open, &gate));
        opener.detach();
    }
    EXPECT_EQ(names("slow", "slow-end"), journal.entries());
    EXPECT_EQ(1, slow.use_count());
}

TEST(DispatcherTest, InterruptionEndsTheWorker) {
    Journal journal;
    Dispatcher dispatcher(true);
    // A task that is interrupted ends the worker; the queue stays and a new
    // start runs it.
    class Interrupting : public Dispatchable {
    public:
        virtual void run() { throw boost::thread_interrupted(); }
        virtual bool isRecurring() { return false; }
        virtual bool shouldExecute() { return true; }
    };
    dispatcher.dispatch(boost::shared_ptr<Dispatchable>(new Interrupting));
    for (int i = 0; i < 500 && dispatcher.isRunning(); ++i) {
        boost::this_thread::sleep_for(boost::chrono::milliseconds(10));
    }
    EXPECT_FALSE(dispatcher.isRunning());
    dispatcher.dispatch(task(journal, "after restart"));
    dispatcher.start();
    EXPECT_EQ(names("after restart"), journal.waitFor(1));
}

TEST(DispatcherTest, BusyPollWorkerRunsTasksToo) {
    Journal journal;
    Dispatcher dispatcher(true, true);
    dispatcher.dispatch(task(journal, "a"));
    dispatcher.dispatch(task(journal, "b"));
    EXPECT_EQ(names("a", "b"), journal.waitFor(2));
}

}  // namespace
