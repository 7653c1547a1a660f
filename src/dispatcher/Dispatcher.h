#ifndef QUORVIA_DISPATCHER_DISPATCHER_H
#define QUORVIA_DISPATCHER_DISPATCHER_H

#include <boost/shared_ptr.hpp>
#include <cstddef>

#include "dispatcher/Dispatchable.h"

// A work queue with one worker thread. Any thread may dispatch; the worker
// runs the tasks one at a time in the order they arrived. The queue owns the
// waiting tasks by shared pointer and has no size limit. All operations may
// be called from any thread.
class Dispatcher {
public:
    class Impl;

    // The worker is not started; it sleeps when the queue is empty.
    Dispatcher();
    // autoStart: start() runs inside the constructor.
    explicit Dispatcher(bool autoStart);
    // busyPoll: an idle worker polls the queue instead of sleeping.
    Dispatcher(bool autoStart, bool busyPoll);
    // Stops the worker (waiting for the task in its turn), then drops the
    // waiting tasks.
    virtual ~Dispatcher();

    // Starts the worker unless it runs already (then only wakes it).
    // Raises boost::thread_resource_error when no thread can be made.
    void start();
    // Lets the task in its turn finish and ends the worker; waiting tasks
    // stay queued for a later start(). Does nothing when called from a task.
    void stop();
    // Queues task at the back; an empty pointer is ignored.
    void dispatch(boost::shared_ptr<Dispatchable> task);
    bool isRunning();
    bool empty();
    // Waiting tasks; the one in its turn doesn't count.
    std::size_t size();
    // Drops every waiting task; the one in its turn goes on.
    void clear();

private:
    boost::shared_ptr<Impl> impl_;
};

#endif
