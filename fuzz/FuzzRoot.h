#ifndef QUORVIA_FUZZ_FUZZROOT_H
#define QUORVIA_FUZZ_FUZZROOT_H

#include <glog/logging.h>
#include <stdlib.h>

#include <string>

namespace quorvia_fuzz {

inline std::string& rootPath() {
    static std::string root;
    return root;
}

inline void removeRoot() { system(("rm -rf '" + rootPath() + "'").c_str()); }

// A private device root for targets that reach the store or the device's
// files: made QUORVIA_ROOT of the process and removed at exit. Logging is
// silenced so that the fuzzer's own output stays readable. Once, from
// LLVMFuzzerInitialize; aborts when /tmp is unusable.
inline const std::string& privateRoot(const char* name) {
    FLAGS_minloglevel = google::GLOG_FATAL;
    std::string pattern = std::string("/tmp/quorvia-fuzz-") + name + "-XXXXXX";
    if (mkdtemp(&pattern[0]) == NULL) {
        abort();
    }
    rootPath() = pattern;
    atexit(removeRoot);
    setenv("QUORVIA_ROOT", pattern.c_str(), 1);
    return rootPath();
}

}  // namespace quorvia_fuzz

#endif
