#include "tools/HashCalculator.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <vector>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/Log.h"
#include "tools/Sha1.h"

// The sampled hash reads at offsets past 2 GiB (a video): on a 32-bit router
// that needs the 64-bit file offsets the whole tree is built with.
static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");

namespace talvern {

namespace {

// Where the bytes of the digest come from, in hashing order.
struct Sample {
    uint64_t offset;
    uint32_t length;
};

std::vector<Sample> samplesOf(uint64_t size) {
    std::vector<Sample> samples;
    if (size <= HashCalculator::kWholeFileLimit) {
        Sample whole = {0, static_cast<uint32_t>(size)};
        samples.push_back(whole);
        return samples;
    }
    const uint64_t offsets[] = {0, size / 4, size / 2, size - HashCalculator::kSampleSize};
    for (size_t i = 0; i < 4; ++i) {
        Sample sample = {offsets[i], HashCalculator::kSampleSize};
        samples.push_back(sample);
    }
    return samples;
}

// Opens without blocking (a FIFO would wait for a writer) and accepts regular
// files only: a directory, a device or a FIFO has no content to key. -1 on
// failure; size receives the file's size.
int openRegularFile(const std::string& path, uint64_t& size) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    FileStatus status;
    if (FileStatus::sOfDescriptor(fd, status) != 0 || !status.isRegular()) {
        close(fd);
        return -1;
    }
    size = status.size;
    return fd;
}

// Reads exactly length bytes at offset; false on a short read or an error.
bool readFully(int fd, uint64_t offset, char* buffer, size_t length) {
    size_t done = 0;
    while (done < length) {
        const ssize_t got = pread(fd, buffer + done, length - done, offset + done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// Closes the descriptor on every route out.
class FdCloser {
public:
    explicit FdCloser(int fd) : fd_(fd) {}
    ~FdCloser() { close(fd_); }

private:
    int fd_;
};

}  // namespace

std::string HashCalculator::calcFile(const std::string& path) {
    if (path.empty()) {
        QLOG(ERROR) << "path is empty when calculate file hash.";
        return std::string();
    }
    if (!File::sExists(path)) {
        QLOG(ERROR) << "file not exist when calculate file hash.";
        return std::string();
    }
    uint64_t size = 0;
    const int fd = openRegularFile(path, size);
    if (fd < 0) {
        QLOG(ERROR) << "open file fail when calc file hash.";
        return std::string();
    }
    FdCloser closer(fd);
    const std::vector<Sample> samples = samplesOf(size);
    std::vector<char> buffer(std::min<uint64_t>(size, kWholeFileLimit));
    size_t filled = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (!readFully(fd, samples[i].offset, buffer.data() + filled, samples[i].length)) {
            QLOG(ERROR) << "read file fail when calc file hash, path : " << path;
            return std::string();
        }
        filled += samples[i].length;
    }
    return sha1::calculate(buffer.data(), static_cast<int>(filled));
}

std::string HashCalculator::calcFile(const std::string& path, unsigned int bufferSizeKiB) {
    if (path.empty()) {
        QLOG(ERROR) << "path is empty when calculate file hash, path : " << path;
        return std::string();
    }
    if (!File::sExists(path)) {
        QLOG(ERROR) << "file not exist when calculate file hash, path : " << path;
        return std::string();
    }
    uint64_t size = 0;
    const int fd = openRegularFile(path, size);
    if (fd < 0) {
        QLOG(ERROR) << "open file fail when calc file hash, path : " << path;
        return std::string();
    }
    FdCloser closer(fd);
    const uint64_t requested = static_cast<uint64_t>(bufferSizeKiB) << 10;
    const uint32_t bufferSize =
        static_cast<uint32_t>(std::min<uint64_t>(requested, kWholeFileLimit));
    char* buffer = bufferSize > 0 ? new (std::nothrow) char[bufferSize] : NULL;
    if (buffer == NULL) {
        QLOG(ERROR) << " memory allocation failure, bufferSize : " << requested;
        return std::string();
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    std::string digest;
    if (context != NULL && EVP_DigestInit_ex(context, EVP_sha1(), NULL) == 1) {
        const std::vector<Sample> samples = samplesOf(size);
        bool complete = true;
        for (size_t i = 0; i < samples.size() && complete; ++i) {
            complete = sha1Update(context, fd, samples[i].offset, samples[i].length, buffer,
                                  bufferSize);
        }
        if (complete) {
            digest = sha1Final(context);
        } else {
            QLOG(ERROR) << "read file fail when calc file hash, path : " << path;
        }
    }
    EVP_MD_CTX_free(context);
    delete[] buffer;
    return digest;
}

bool HashCalculator::sha1Update(EVP_MD_CTX* context, int fd, uint64_t offset, uint32_t length,
                                char* buffer, uint32_t bufferSize) {
    uint32_t remaining = length;
    while (remaining >= 1) {
        const uint32_t chunk = std::min(remaining, bufferSize);
        if (!readFully(fd, offset, buffer, chunk) ||
            EVP_DigestUpdate(context, buffer, chunk) != 1) {
            return false;
        }
        offset += chunk;
        remaining -= chunk;
    }
    return true;
}

std::string HashCalculator::sha1Final(EVP_MD_CTX* context) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context, digest, &length) != 1 || length != sha1::kDigestSize) {
        return std::string();
    }
    char text[sha1::kHexSize];
    sha1::toHexString(digest, text);
    return std::string(text);
}

}  // namespace talvern
