#ifndef QUORVIA_SYSTEM_STEADYCLOCK_H
#define QUORVIA_SYSTEM_STEADYCLOCK_H

#include <chrono>

// The monotonic clock behind a seam: tests derive from it to move time on
// without sleeping. Any thread.
class SteadyClock {
public:
    typedef std::chrono::steady_clock::time_point TimePoint;

    virtual ~SteadyClock() {}

    virtual TimePoint now() const { return std::chrono::steady_clock::now(); }
};

#endif
