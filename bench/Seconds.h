#ifndef QUORVIA_BENCH_SECONDS_H
#define QUORVIA_BENCH_SECONDS_H

#include <chrono>

namespace quorvia_bench {

typedef std::chrono::steady_clock Clock;

// Seconds from start until now, on the monotonic clock.
inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace quorvia_bench

#endif
