// Figures of the file hash: a 1 GiB file, cold and warm page cache, both forms,
// against sha1sum reading the whole file. Printed, not asserted.
#include <fcntl.h>
#include <glog/logging.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/HashCalculator.h"

namespace {

const size_t kFileSize = size_t(1) << 30;
const size_t kWriteChunk = size_t(1) << 20;

typedef std::chrono::steady_clock Clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void writeFile(const std::string& file) {
    std::vector<char> chunk(kWriteChunk);
    unsigned int state = 1;
    for (size_t i = 0; i < chunk.size(); ++i) {
        state = state * 1103515245u + 12345u;
        chunk[i] = static_cast<char>(state >> 16);
    }
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    for (size_t done = 0; done < kFileSize; done += chunk.size()) {
        chunk[0] = static_cast<char>(done >> 20);
        if (write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) {
            break;
        }
    }
    fsync(fd);
    close(fd);
}

// Drops the file's pages from the page cache (no privilege needed).
void evict(const std::string& file) {
    const int fd = open(file.c_str(), O_RDONLY);
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
}

double timeHash(const std::string& file, bool cold, bool streaming) {
    if (cold) {
        evict(file);
    }
    const Clock::time_point start = Clock::now();
    const std::string digest = streaming ? talvern::HashCalculator::calcFile(file, 128)
                                         : talvern::HashCalculator::calcFile(file);
    const double seconds = secondsSince(start);
    if (digest.size() != 40) {
        std::printf("hash failed\n");
    }
    return seconds;
}

double timeSha1sum(const std::string& file, bool cold) {
    if (cold) {
        evict(file);
    }
    const Clock::time_point start = Clock::now();
    std::system(("sha1sum '" + file + "' >/dev/null").c_str());
    return secondsSince(start);
}

}  // namespace

int main() {
    google::InitGoogleLogging("hash-bench");
    char pattern[] = "/tmp/quorvia-hash-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string file = dir + "/big.bin";
    writeFile(file);
    for (int cold = 1; cold >= 0; --cold) {
        const char* cache = cold ? "cold" : "warm";
        const double sampled = timeHash(file, cold, false);
        const double streamed = timeHash(file, cold, true);
        const double whole = timeSha1sum(file, cold);
        std::printf("1 GiB file, %s cache: calcFile %.4f s, calcFile(128 KiB) %.4f s, "
                    "sha1sum %.3f s (%.0fx / %.0fx faster)\n",
                    cache, sampled, streamed, whole, whole / sampled, whole / streamed);
    }
    std::system(("rm -rf '" + dir + "'").c_str());
    return 0;
}
