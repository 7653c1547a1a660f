#ifndef QUORVIA_DISPATCHER_DISPATCHABLE_H
#define QUORVIA_DISPATCHER_DISPATCHABLE_H

// A unit of work for the Dispatcher. All three operations run on the
// dispatcher's worker thread, one task at a time.
class Dispatchable {
public:
    virtual ~Dispatchable() {}

    // Does the task's work. An exception other than boost::thread_interrupted
    // is logged by the worker and the task counts as done.
    virtual void run() = 0;
    // Asked after every turn: true queues the task again behind the others.
    virtual bool isRecurring() = 0;
    // Asked before every turn: false skips run() for this turn.
    virtual bool shouldExecute() = 0;
};

#endif
