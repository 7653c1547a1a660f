#include "system/RateLimitedCount.h"

RateLimitedCount::RateLimitedCount(std::chrono::steady_clock::duration period)
    : period_(period), lastLine_(), sinceLine_(0) {}

RateLimitedCount::~RateLimitedCount() {}

unsigned long RateLimitedCount::count() {
    ++sinceLine_;
    const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
    if (now - lastLine_ < period_) {
        return 0;
    }
    const unsigned long events = sinceLine_;
    lastLine_ = now;
    sinceLine_ = 0;
    return events;
}
