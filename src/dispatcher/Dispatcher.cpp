#include "dispatcher/Dispatcher.h"

#include <pthread.h>

#include <atomic>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>
#include <deque>
#include <exception>
#include <functional>

#include "system/Log.h"

class Dispatcher::Impl {
public:
    explicit Impl(bool waitWhenIdle)
        : stop_(false), waitWhenIdle_(waitWhenIdle) {}

    virtual ~Impl() { stop(); }

    void start() {
        boost::lock_guard<boost::recursive_mutex> lock(threadMutex_);
        if (!isThreadRunning(thread_)) {
            stop_ = false;
            createWorkerThread();
        } else {
            queueCondition_.notify_all();
        }
    }

    void stop() {
        boost::lock_guard<boost::recursive_mutex> lock(threadMutex_);
        if (!isThreadRunning(thread_)) {
            return;
        }
        stop_ = true;
        // Notify on every try: a worker that tested stop_ just before it went
        // to sleep is woken by a later round.
        do {
            queueCondition_.notify_all();
        } while (!thread_->timed_join(boost::posix_time::milliseconds(10)));
        thread_.reset();
    }

    void dispatch(const boost::shared_ptr<Dispatchable>& task) {
        if (!task) {
            return;
        }
        boost::lock_guard<boost::mutex> lock(queueMutex_);
        queue_.push_back(task);
        queueCondition_.notify_all();
    }

    bool isRunning() {
        boost::lock_guard<boost::recursive_mutex> lock(threadMutex_);
        return isThreadRunning(thread_);
    }

    bool empty() {
        boost::lock_guard<boost::mutex> lock(queueMutex_);
        return queue_.empty();
    }

    std::size_t size() {
        boost::lock_guard<boost::mutex> lock(queueMutex_);
        return queue_.size();
    }

    void clear() {
        boost::lock_guard<boost::mutex> lock(queueMutex_);
        queue_.clear();
    }

private:
    void run() {
        try {
            boost::shared_ptr<Dispatchable> task;
            while (!stop_) {
                boost::this_thread::interruption_point();
                task = popFront();
                if (task) {
                    runTurn(task);
                    task.reset();
                } else if (waitWhenIdle_ && !stop_) {
                    boost::unique_lock<boost::mutex> lock(queueMutex_);
                    if (queue_.empty()) {
                        queueCondition_.wait(lock);
                    }
                }
            }
        } catch (const boost::thread_interrupted&) {
            stop_ = true;
        }
    }

    boost::shared_ptr<Dispatchable> popFront() {
        boost::shared_ptr<Dispatchable> front;
        boost::lock_guard<boost::mutex> lock(queueMutex_);
        if (!queue_.empty()) {
            front = queue_.front();
            queue_.pop_front();
        }
        return front;
    }

    // A task that throws (running, or asked whether it recurs) must not take
    // the worker, and with it every later file task, down: it is logged, and
    // a turn that threw still asks whether the task recurs.
    void runTurn(const boost::shared_ptr<Dispatchable>& task) {
        guarded([&task] {
            if (task->shouldExecute()) {
                task->run();
            }
        });
        guarded([this, &task] {
            if (task->isRecurring()) {
                dispatch(task);
            }
        });
    }

    static void guarded(const std::function<void()>& step) {
        try {
            step();
        } catch (const boost::thread_interrupted&) {
            throw;
        } catch (const std::exception& e) {
            QLOG(ERROR) << "Dispatcher: task raised an exception: " << e.what();
        } catch (...) {
            QLOG(ERROR) << "Dispatcher: task raised an exception: unknown";
        }
    }

    void createWorkerThread() {
        thread_.reset(new boost::thread(&Impl::run, this));
    }

    static bool isThreadRunning(const boost::shared_ptr<boost::thread>& thread) {
        // A worker that was joined once (it ended) is no longer joinable, and
        // joining it again would report it as running for ever.
        if (!thread || !thread->joinable()) {
            return false;
        }
        try {
            if (pthread_equal(thread->native_handle(), pthread_self())) {
                return false;
            }
            return !thread->timed_join(boost::posix_time::milliseconds(0));
        } catch (const boost::thread_interrupted&) {
            return false;
        }
    }

    boost::shared_ptr<boost::thread> thread_;
    boost::recursive_mutex threadMutex_;
    std::atomic<bool> stop_;
    std::deque<boost::shared_ptr<Dispatchable> > queue_;
    boost::mutex queueMutex_;
    boost::condition_variable queueCondition_;
    bool waitWhenIdle_;
};

Dispatcher::Dispatcher() : impl_(new Impl(true)) {}

Dispatcher::Dispatcher(bool autoStart) : impl_(new Impl(true)) {
    if (autoStart) {
        start();
    }
}

Dispatcher::Dispatcher(bool autoStart, bool busyPoll) : impl_(new Impl(!busyPoll)) {
    if (autoStart) {
        start();
    }
}

Dispatcher::~Dispatcher() {}

void Dispatcher::start() { impl_->start(); }

void Dispatcher::stop() { impl_->stop(); }

void Dispatcher::dispatch(boost::shared_ptr<Dispatchable> task) { impl_->dispatch(task); }

bool Dispatcher::isRunning() { return impl_->isRunning(); }

bool Dispatcher::empty() { return impl_->empty(); }

std::size_t Dispatcher::size() { return impl_->size(); }

void Dispatcher::clear() { impl_->clear(); }
