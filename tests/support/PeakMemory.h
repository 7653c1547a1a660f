#ifndef QUORVIA_TESTS_SUPPORT_PEAKMEMORY_H
#define QUORVIA_TESTS_SUPPORT_PEAKMEMORY_H

#include <stdlib.h>

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

}  // namespace quorvia_test

#endif
