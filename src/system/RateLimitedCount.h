#ifndef QUORVIA_SYSTEM_RATELIMITEDCOUNT_H
#define QUORVIA_SYSTEM_RATELIMITEDCOUNT_H

#include <chrono>

// Counts an event that would say a line each time it happens, so that the
// line is said at most once a period, with the number of events it stands
// for. One thread at a time (the caller's lock).
class RateLimitedCount {
public:
    explicit RateLimitedCount(std::chrono::steady_clock::duration period);
    virtual ~RateLimitedCount();

    // Counts one event. When a line is due, returns the events since the last
    // one, this one included; otherwise 0.
    unsigned long count();

private:
    const std::chrono::steady_clock::duration period_;
    std::chrono::steady_clock::time_point lastLine_;
    unsigned long sinceLine_;
};

#endif
