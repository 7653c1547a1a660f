#include "tools/HashCalculator.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "tools/Sha1.h"

using talvern::HashCalculator;

namespace {

const uint64_t kMiB = HashCalculator::kSampleSize;

std::string opensslSha1(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha1(), NULL);
    char text[sha1::kHexSize];
    sha1::toHexString(digest, text);
    return text;
}

// Bytes that differ from one position to the next, so that a sample taken
// from the wrong offset changes the digest.
std::string pattern(uint64_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

class HashCalculatorTest : public quorvia_test::DeviceRootTest {
protected:
    // Both forms, checked equal, the second with several buffer sizes.
    std::string bothForms(const std::string& bytes) {
        writeFile("/f", bytes);
        const std::string whole = HashCalculator::calcFile(path("/f"));
        for (unsigned int kib : {1u, 3u, 4096u, 100000u}) {
            EXPECT_EQ(whole, HashCalculator::calcFile(path("/f"), kib)) << "buffer " << kib << " KiB";
        }
        return whole;
    }
};

// The first form hashes with the class sha1, the second with OpenSSL: lengths
// up to 130 bytes and around a block cover every padding case of the former.
TEST_F(HashCalculatorTest, FilesUpToTheLimitAreHashedWholeAndLargerOnesByFourSamples) {
    EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", sha1::calculate("x", -1));
    std::vector<uint64_t> sizes = {4095, 4096, 65536, HashCalculator::kWholeFileLimit};
    for (uint64_t n = 0; n <= 130; ++n) {
        sizes.push_back(n);
    }
    for (uint64_t size : sizes) {
        const std::string bytes = pattern(size);
        ASSERT_EQ(opensslSha1(bytes), bothForms(bytes)) << "size " << size;
    }
    for (uint64_t size : {uint64_t(HashCalculator::kWholeFileLimit) + 1, 11 * kMiB + 3}) {
        SCOPED_TRACE(size);
        const std::string bytes = pattern(size);
        const std::string samples = bytes.substr(0, kMiB) + bytes.substr(size / 4, kMiB) +
                                    bytes.substr(size / 2, kMiB) + bytes.substr(size - kMiB);
        EXPECT_EQ(opensslSha1(samples), bothForms(bytes));
    }
    EXPECT_TRUE(log_.lines().empty());
}

// Samples past 2 and 4 GiB of a sparse file come from their offsets, also
// where long is 32 bits (armhf): an offset cut to 32 bits reads a hole.
TEST_F(HashCalculatorTest, SamplesPastFourGiBComeFromTheirOffsets) {
    const uint64_t size = 5 * 1024 * kMiB + 3;
    const uint64_t offsets[] = {0, size / 4, size / 2, size - kMiB};
    const std::string samples = pattern(4 * kMiB);
    const int fd = open(path("/big").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(ssize_t(kMiB), pwrite(fd, samples.data() + i * kMiB, kMiB, offsets[i]));
    }
    ASSERT_EQ(0, ftruncate(fd, size));
    close(fd);
    EXPECT_EQ(opensslSha1(samples), HashCalculator::calcFile(path("/big")));
}

// Anything but a regular file has no hash, and a FIFO never blocks the call.
TEST_F(HashCalculatorTest, MissingOrNonRegularFileOrZeroBufferGivesEmptyHashAndOneLine) {
    ASSERT_EQ(0, mkfifo(path("/fifo").c_str(), 0600));
    writeFile("/abc", "abc");
    for (const std::string& file : {std::string(), path("/none"), path("/fifo"), root(),
                                    std::string("/dev/zero")}) {
        EXPECT_EQ("", HashCalculator::calcFile(file)) << file;
        EXPECT_EQ("", HashCalculator::calcFile(file, 128)) << file;
    }
    EXPECT_EQ("", HashCalculator::calcFile(path("/abc"), 0));
    EXPECT_EQ(11u, log_.lines().size());
}

// A file whose content ends before its stated size (as one that shrinks while
// it is read does) never yields a digest of stale buffer bytes. Kernel
// attribute files state a size of a page and hold a few bytes.
TEST_F(HashCalculatorTest, ShortReadGivesEmptyHash) {
    const std::string file = "/sys/kernel/uevent_seqnum";
    struct stat info;
    if (stat(file.c_str(), &info) != 0 ||
        static_cast<uint64_t>(info.st_size) <= quorvia_test::slurp(file).size()) {
        GTEST_SKIP() << "no file that reads shorter than its size";
    }
    EXPECT_EQ("", HashCalculator::calcFile(file));
    EXPECT_EQ("", HashCalculator::calcFile(file, 128));
}

}  // namespace
