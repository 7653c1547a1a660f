#ifndef QUORVIA_FUZZ_FUZZINPUTFILE_H
#define QUORVIA_FUZZ_FUZZINPUTFILE_H

#include <glog/logging.h>
#include <stdint.h>
#include <stdlib.h>

#include <cstdio>
#include <string>

namespace quorvia_fuzz {

// A private folder for targets that read their input from a file: in.SUFFIX
// holds each input, out.jpg is where the code under test may write. Logging
// is silenced so that the fuzzer's own output stays readable.
class FuzzInputFile {
public:
    virtual ~FuzzInputFile() {}

    // Once, from LLVMFuzzerInitialize; aborts when /tmp is unusable.
    void create(const char* name, const char* suffix = "jpg") {
        FLAGS_minloglevel = google::GLOG_FATAL;
        std::string pattern = std::string("/tmp/quorvia-fuzz-") + name + "-XXXXXX";
        if (mkdtemp(&pattern[0]) == NULL) {
            abort();
        }
        source_ = pattern + "/in." + suffix;
        target_ = pattern + "/out.jpg";
    }

    // Writes one input to source(); false when it could not.
    bool write(const uint8_t* data, size_t size) const {
        FILE* file = fopen(source_.c_str(), "wb");
        if (file == NULL) {
            return false;
        }
        const bool written = fwrite(data, 1, size, file) == size;
        return fclose(file) == 0 && written;
    }

    const std::string& source() const { return source_; }
    const std::string& target() const { return target_; }

private:
    std::string source_;
    std::string target_;
};

}  // namespace quorvia_fuzz

#endif
