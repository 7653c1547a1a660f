#ifndef QUORVIA_BENCH_TARGETS_H
#define QUORVIA_BENCH_TARGETS_H

#include <stdio.h>

#include <string>

namespace quorvia_bench {

// Prints whether a figure meets its target; false when it does not.
inline bool target(const std::string& what, double figure, const char* relation, double bound) {
    const bool met = std::string(relation) == "<=" ? figure <= bound : figure >= bound;
    printf("target: %-64s %10.2f %s %-8.2f %s\n", what.c_str(), figure, relation, bound,
           met ? "met" : "MISSED");
    fflush(stdout);
    return met;
}

}  // namespace quorvia_bench

#endif
