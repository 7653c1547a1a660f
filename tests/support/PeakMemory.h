#ifndef QUORVIA_TESTS_SUPPORT_PEAKMEMORY_H
#define QUORVIA_TESTS_SUPPORT_PEAKMEMORY_H

#include <stdlib.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

namespace quorvia_test {

// The most resident memory this process has held so far, in KiB (VmHWM);
// -1 when it can't be read.
inline long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            return atol(line.c_str() + 6);
        }
    }
    return -1;
}

// The most resident memory any child this process reaped has held, in KiB;
// it counts what the child shared with this process at the fork.
inline long peakChildResidentKiB() {
    struct rusage usage;
    return getrusage(RUSAGE_CHILDREN, &usage) == 0 ? usage.ru_maxrss : -1;
}

}  // namespace quorvia_test

#endif
