#ifndef QUORVIA_TOOLS_HASHCALCULATOR_H
#define QUORVIA_TOOLS_HASHCALCULATOR_H

#include <openssl/evp.h>
#include <stdint.h>

#include <string>

namespace talvern {

// The content key of a file: 40 lower-case hex digits of a SHA-1. A file of up
// to kWholeFileLimit bytes is hashed whole; a larger one by four samples of
// kSampleSize bytes (from offsets 0, size/4, size/2 and the last kSampleSize),
// so a hash never reads more than 4 MiB. The empty string stands for failure:
// empty path, missing file, anything but a regular file, an open or read that
// fails, or a file that shrinks while it is read. Both forms of calcFile give
// the same digest. Static; any thread.
class HashCalculator {
public:
    static constexpr uint32_t kSampleSize = 0x100000;
    static constexpr uint32_t kWholeFileLimit = 0x400000;

    virtual ~HashCalculator() {}

    // Through one buffer of at most 4 MiB and the class sha1.
    static std::string calcFile(const std::string& path);
    // Through OpenSSL's SHA-1, streaming through bufferSizeKiB KiB (more than
    // 4 MiB is never allocated, as no more is ever read at once).
    static std::string calcFile(const std::string& path, unsigned int bufferSizeKiB);

    // Feeds length bytes of fd from offset into context, at most bufferSize at
    // a time. false when the file ends early or a read fails. Positioned
    // reads on a descriptor: the offset counts from the start (the sample at
    // the end is asked for at size - 1 MiB), and no stream position is shared
    // or moved.
    static bool sha1Update(EVP_MD_CTX* context, int fd, uint64_t offset, uint32_t length,
                           char* buffer, uint32_t bufferSize);
    // The digest as hex text; empty if OpenSSL fails.
    static std::string sha1Final(EVP_MD_CTX* context);
};

}  // namespace talvern

#endif
