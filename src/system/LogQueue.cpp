#include "system/LogQueue.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <boost/chrono.hpp>


namespace talvern {

LogQueue::LogQueue(const Output& output)
    : output_(output),
      queuedBytes_(0),
      pushedCount_(0),
      writtenCount_(0),
      flushWaiters_(0),
      writerIdle_(false),
      stopping_(false),
      thread_(&LogQueue::run, this) {}

LogQueue::~LogQueue() {
    {
        boost::unique_lock<boost::mutex> lock(mutex_);
        stopping_ = true;
    }
    queued_.notify_one();
    thread_.join();
}

void LogQueue::push(LogRecord&& record) {
    boost::unique_lock<boost::mutex> lock(mutex_);
    while (full()) {
        written_.wait(lock);
    }
    queuedBytes_ += record.text.size();
    queue_.push_back(std::move(record));
    ++pushedCount_;
    // The writer is woken only by the first line after a pause and when half
    // the queue is taken: a caller rarely makes a system call.
    if (writerIdle_ || halfFull()) {
        writerIdle_ = false;
        queued_.notify_one();
    }
}

// An empty queue takes any line, however long.
bool LogQueue::full() const {
    return !queue_.empty() && (queue_.size() >= kMaxLines || queuedBytes_ >= kMaxBytes);
}

bool LogQueue::halfFull() const {
    return queue_.size() >= kMaxLines / 2 || queuedBytes_ >= kMaxBytes / 2;
}

void LogQueue::flush() {
    boost::unique_lock<boost::mutex> lock(mutex_);
    const uint64_t target = pushedCount_;
    ++flushWaiters_;
    queued_.notify_one();
    while (writtenCount_ < target) {
        written_.wait(lock);
    }
    --flushWaiters_;
}

// The lines to wait for are those pushed by the first look: the threads that
// go on serving may say more for as long as the wait lasts, and the crashed
// process must not linger for them.
bool LogQueue::flushWithin(int millis) {
    const struct timespec pause = {0, 1000 * 1000};
    bool looked = false;
    uint64_t target = 0;
    for (int waited = 0; waited <= millis; ++waited) {
        {
            boost::unique_lock<boost::mutex> lock(mutex_, boost::try_to_lock);
            if (lock.owns_lock()) {
                if (!looked) {
                    looked = true;
                    target = pushedCount_;
                }
                if (writtenCount_ >= target) {
                    return true;
                }
            }
        }
        nanosleep(&pause, NULL);
    }
    return false;
}

// Lets lines come for up to kGatherMillis after the first, unless the queue
// fills, someone flushes or the queue ends.
void LogQueue::gather(boost::unique_lock<boost::mutex>& lock) {
    const boost::chrono::steady_clock::time_point until =
        boost::chrono::steady_clock::now() + boost::chrono::milliseconds(kGatherMillis);
    while (!stopping_ && flushWaiters_ == 0 && !halfFull()) {
        if (queued_.wait_until(lock, until) == boost::cv_status::timeout) {
            return;
        }
    }
}

// Takes the whole queue at once and writes it outside the lock, so that
// callers queue while the batch is written; a full queue frees at the end of
// the batch.
void LogQueue::run() {
    // Batch scheduling: a writer woken with lines does not preempt the threads
    // that serve requests, and still gets its fair share of the processor.
    const sched_param priority = {0};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &priority);
    std::deque<LogRecord> batch;
    boost::unique_lock<boost::mutex> lock(mutex_);
    for (;;) {
        while (queue_.empty() && !stopping_) {
            writerIdle_ = true;
            queued_.wait(lock);
        }
        writerIdle_ = false;
        gather(lock);
        if (queue_.empty()) {
            return;
        }
        batch.swap(queue_);
        const size_t batchBytes = queuedBytes_;
        lock.unlock();
        output_(batch);
        lock.lock();
        writtenCount_ += batch.size();
        queuedBytes_ -= batchBytes;
        batch.clear();
        written_.notify_all();
    }
}

}  // namespace talvern
