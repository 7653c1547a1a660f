#ifndef QUORVIA_SYSTEM_LOGQUEUE_H
#define QUORVIA_SYSTEM_LOGQUEUE_H

#include <stddef.h>
#include <stdint.h>

#include <boost/function.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <deque>

#include "system/LogRecord.h"

namespace talvern {

// The lines that threads have said and a thread of its own has not written
// yet. Callers hand a finished line over and go on; the queue's thread
// writes lines in batches through the output it was given, in the order in
// which they were pushed, so in each thread's order. The queue is bounded:
// a caller that finds it full waits until the thread has written a batch,
// so no line is dropped and memory stays bounded. Any thread may call any
// operation.
class LogQueue {
public:
    // Room for a burst (a folder of thousands of files arriving at once)
    // without making the monitor wait, and still a few tens of milliseconds
    // of writing: what kill -9 can lose. The bytes of text bound the memory.
    static constexpr size_t kMaxLines = 16384;
    static constexpr size_t kMaxBytes = 2 * 1024 * 1024;
    // How long the thread lets lines gather after the first before it writes
    // them: the delay of a line in the log.
    static constexpr int kGatherMillis = 5;

    typedef boost::function<void(const std::deque<LogRecord>&)> Output;

    // Starts the writing thread; output is called on it only, with each
    // batch in order.
    explicit LogQueue(const Output& output);
    // Writes what is still queued, then ends the thread.
    virtual ~LogQueue();

    // Queues record; waits while the queue is full.
    void push(LogRecord&& record);
    // Returns once every line pushed before the call has been written.
    void flush();
    // For a crashing process: waits up to millis for the lines pushed before
    // the call (counted at its first hold of the queue's lock) to be written,
    // without ever blocking on that lock, which the crashed thread may hold.
    // True when they were written.
    bool flushWithin(int millis);

private:
    void run();
    void gather(boost::unique_lock<boost::mutex>& lock);
    bool full() const;
    bool halfFull() const;

    Output output_;
    mutable boost::mutex mutex_;
    boost::condition_variable queued_;
    boost::condition_variable written_;
    std::deque<LogRecord> queue_;
    size_t queuedBytes_;
    uint64_t pushedCount_;
    uint64_t writtenCount_;
    int flushWaiters_;
    bool writerIdle_;
    bool stopping_;
    boost::thread thread_;
};

}  // namespace talvern

#endif
