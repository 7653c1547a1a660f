#include <gtest/gtest.h>

#include <boost/thread.hpp>
#include <functional>
#include <future>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "dispatcher/Dispatcher.h"
#include "support/DeviceRootTest.h"
#include "support/LogCapture.h"

namespace {

typedef std::vector<std::string> Names;

// What the tasks did, in order, and a gate the test opens to let a waiting
// task end; shared between the worker and the test.
class Journal {
public:
    void note(const std::string& entry) {
        boost::lock_guard<boost::mutex> lock(mutex_);
        entries_.push_back(entry);
        changed_.notify_all();
    }
    // Waits (bounded) until count entries are there; returns what is there.
    Names waitFor(std::size_t count) {
        boost::unique_lock<boost::mutex> lock(mutex_);
        changed_.wait_for(lock, boost::chrono::seconds(5),
                          [this, count] { return entries_.size() >= count; });
        return entries_;
    }
    void open() { gate_.set_value(); }
    void waitOpen() { opened_.wait(); }

private:
    boost::mutex mutex_;
    boost::condition_variable changed_;
    Names entries_;
    std::promise<void> gate_;
    std::shared_future<void> opened_ = gate_.get_future().share();
};

// Notes its name when run, then does what then says; a task that should not
// execute notes that it was skipped.
class NoteTask : public Dispatchable {
public:
    NoteTask(Journal& journal, const std::string& name, const std::function<void()>& then,
             int turns, bool execute)
        : journal_(journal), name_(name), then_(then), turns_(turns), execute_(execute) {}
    virtual void run() {
        journal_.note(name_);
        then_();
    }
    virtual bool isRecurring() {
        if (!execute_) {
            journal_.note(name_ + "-skipped");
        }
        return --turns_ > 0;
    }
    virtual bool shouldExecute() { return execute_; }

private:
    Journal& journal_;
    std::string name_;
    std::function<void()> then_;
    int turns_;
    bool execute_;
};

boost::shared_ptr<NoteTask> task(Journal& journal, const std::string& name,
                                 const std::function<void()>& then = [] {}, int turns = 1,
                                 bool execute = true) {
    return boost::shared_ptr<NoteTask>(new NoteTask(journal, name, then, turns, execute));
}

// A task that ends only once the test opens the journal.
boost::shared_ptr<NoteTask> gated(Journal& journal, const std::string& name, int turns = 1) {
    const auto end = [&journal, name] {
        journal.waitOpen();
        journal.note(name + "-end");
    };
    return task(journal, name, end, turns);
}

TEST(DispatcherTest, TasksRunInOrderAcrossStartsAndStops) {
    Journal journal;
    Dispatcher dispatcher;
    dispatcher.stop();
    dispatcher.dispatch(task(journal, "a"));
    dispatcher.dispatch(boost::shared_ptr<Dispatchable>());
    dispatcher.dispatch(task(journal, "b"));
    EXPECT_EQ(2u, dispatcher.size());
    EXPECT_FALSE(dispatcher.isRunning());
    dispatcher.start();
    dispatcher.start();
    EXPECT_EQ(Names({"a", "b"}), journal.waitFor(2));
    EXPECT_TRUE(dispatcher.isRunning());
    dispatcher.stop();
    dispatcher.stop();
    EXPECT_FALSE(dispatcher.isRunning());
    dispatcher.dispatch(task(journal, "queued"));
    EXPECT_EQ(1u, dispatcher.size());
    dispatcher.start();
    EXPECT_EQ(Names({"a", "b", "queued"}), journal.waitFor(3));

    Dispatcher busyPoll(true, true);
    busyPoll.dispatch(task(journal, "c"));
    EXPECT_EQ("c", journal.waitFor(4).back());
}

// A worker with nothing to do sleeps: it does not spin on a router's
// processor until the next task.
TEST(DispatcherTest, AnIdleWorkerSleepsUntilTheNextTask) {
    Journal journal;
    Dispatcher dispatcher(true);
    dispatcher.dispatch(task(journal, "a"));
    journal.waitFor(1);
    const double before = quorvia_test::processCpuMillis();
    boost::this_thread::sleep_for(boost::chrono::milliseconds(200));
    EXPECT_LT(quorvia_test::processCpuMillis() - before, 50);
    dispatcher.dispatch(task(journal, "b"));
    EXPECT_EQ(Names({"a", "b"}), journal.waitFor(2));
}

TEST(DispatcherTest, RecurringTaskGoesBehindTasksQueuedDuringItsTurn) {
    Journal journal;
    Dispatcher dispatcher(true);
    dispatcher.dispatch(gated(journal, "r", 2));
    journal.waitFor(1);
    dispatcher.dispatch(task(journal, "x"));
    dispatcher.dispatch(task(journal, "s", [] {}, 3, false));
    journal.open();
    EXPECT_EQ(Names({"r", "r-end", "x", "s-skipped", "r", "r-end", "s-skipped", "s-skipped"}),
              journal.waitFor(8));
}

// clear() drops the waiting tasks, not the one in its turn, and the
// destructor waits for that one to end.
TEST(DispatcherTest, ClearAndDestructorLeaveTheTaskInItsTurnToEnd) {
    Journal journal;
    boost::shared_ptr<NoteTask> slow = gated(journal, "slow");
    {
        Dispatcher dispatcher(true);
        dispatcher.dispatch(slow);
        journal.waitFor(1);
        dispatcher.dispatch(task(journal, "dropped"));
        dispatcher.dispatch(task(journal, "dropped too"));
        EXPECT_EQ(2u, dispatcher.size());
        dispatcher.clear();
        EXPECT_TRUE(dispatcher.empty());
        boost::thread(boost::bind(&Journal::open, &journal)).detach();
    }
    EXPECT_EQ(Names({"slow", "slow-end"}), journal.waitFor(0));
    EXPECT_EQ(1, slow.use_count());
}

// Runs, then fails when asked whether it runs again, as a requeue that
// finds no memory would.
class FailsToRecur : public NoteTask {
public:
    explicit FailsToRecur(Journal& journal)
        : NoteTask(
              journal, "no room", [] {}, 2, true) {}
    virtual bool isRecurring() { throw std::bad_alloc(); }
};

// A task that throws (running, and it still recurs; or asked whether it
// recurs: the process ended then) or stops the dispatcher leaves the worker
// going; one that is interrupted ends it, the queue stays and a new start
// runs it. The tasks are queued before the worker starts: a worker started
// first could run "bad" and queue its second turn ahead of the others.
TEST(DispatcherTest, ThrowingTaskLeavesTheWorkerGoingAnInterruptedOneEndsIt) {
    quorvia_test::LogCapture log;
    Journal journal;
    Dispatcher dispatcher;
    dispatcher.dispatch(task(
        journal, "bad", [] { throw std::runtime_error("disk vanished"); }, 2));
    dispatcher.dispatch(boost::shared_ptr<Dispatchable>(new FailsToRecur(journal)));
    dispatcher.dispatch(task(journal, "stopper", [&dispatcher] { dispatcher.stop(); }));
    dispatcher.dispatch(task(journal, "next"));
    dispatcher.start();
    EXPECT_EQ(Names({"bad", "no room", "stopper", "next", "bad"}), journal.waitFor(5));
    EXPECT_TRUE(log.contains("disk vanished", google::GLOG_ERROR));
    EXPECT_TRUE(dispatcher.isRunning());

    dispatcher.dispatch(task(journal, "interrupted", [] { throw boost::thread_interrupted(); }));
    for (int i = 0; i < 500 && dispatcher.isRunning(); ++i) {
        boost::this_thread::sleep_for(boost::chrono::milliseconds(10));
    }
    EXPECT_FALSE(dispatcher.isRunning());
    dispatcher.dispatch(task(journal, "after restart"));
    dispatcher.start();
    EXPECT_EQ("after restart", journal.waitFor(7).back());
}

}  // namespace
