#ifndef QUORVIA_FUZZ_FUZZINPUTFILE_H
#define QUORVIA_FUZZ_FUZZINPUTFILE_H

#include <stdint.h>

#include <cstdio>
#include <string>

#include "FuzzRoot.h"

namespace quorvia_fuzz {

// A private folder for targets that read their input from a file: in.SUFFIX
// holds each input, out.jpg is where the code under test may write. The
// folder is also the process's device root (the writers reach the device's
// settings), and goes at exit.
class FuzzInputFile {
public:
    virtual ~FuzzInputFile() {}

    // Once, from LLVMFuzzerInitialize.
    void create(const char* name, const char* suffix = "jpg") {
        const std::string& folder = privateRoot(name);
        source_ = folder + "/in." + suffix;
        target_ = folder + "/out.jpg";
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
