#include "tools/HashCalculator.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "tools/Sha1.h"

using talvern::HashCalculator;

namespace {

const uint64_t kMiB = 0x100000;

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
    for (uint64_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        bytes[i] = static_cast<char>(state >> 16);
    }
    return bytes;
}

class HashCalculatorTest : public quorvia_test::DeviceRootTest {
protected:
    std::string write(const std::string& name, const std::string& bytes) {
        writeFile("/" + name, bytes);
        return path("/" + name);
    }
    // Both forms, checked equal, with several buffer sizes for the second.
    std::string bothForms(const std::string& file) {
        const std::string whole = HashCalculator::calcFile(file);
        for (unsigned int kib : {1u, 3u, 128u, 4096u, 100000u}) {
            EXPECT_EQ(whole, HashCalculator::calcFile(file, kib)) << "buffer " << kib << " KiB";
        }
        return whole;
    }
};

TEST(Sha1Test, KnownDigestsAndAgreementWithOpensslOnEveryPaddingCase) {
    EXPECT_EQ("84983e441c3bd26ebaae4aa1f95129e5e54670f1",
              sha1::calculate("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 56));
    EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", sha1::calculate("x", -1));
    const std::string bytes = pattern(4 * kMiB + 200);
    std::vector<size_t> lengths = {1000u, 4095u, 4096u, 4097u, 65536u, 1000003u, 0x400000u,
                                   0x400000u + 65u};
    for (size_t n = 0; n <= 300; ++n) {
        lengths.push_back(n);
    }
    for (size_t n : lengths) {
        ASSERT_EQ(opensslSha1(bytes.substr(0, n)),
                  sha1::calculate(bytes.data(), static_cast<int>(n)))
            << "length " << n;
    }
}

TEST_F(HashCalculatorTest, SmallFilesAreHashedWholeInBothForms) {
    EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", bothForms(write("empty", "")));
    EXPECT_EQ("34aa973cd4c4daa4f61eeb2bdbad27316534016f",
              bothForms(write("million", std::string(1000000, 'a'))));
    const std::string exact = pattern(HashCalculator::kWholeFileLimit);
    EXPECT_EQ(opensslSha1(exact), bothForms(write("exact", exact)));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HashCalculatorTest, LargeFilesAreHashedByFourSamples) {
    for (uint64_t size : {uint64_t(HashCalculator::kWholeFileLimit) + 1, 4 * kMiB + 4097, 11 * kMiB + 3}) {
        SCOPED_TRACE(size);
        const std::string bytes = pattern(size);
        const std::string samples = bytes.substr(0, kMiB) + bytes.substr(size / 4, kMiB) +
                                    bytes.substr(size / 2, kMiB) + bytes.substr(size - kMiB);
        EXPECT_EQ(opensslSha1(samples), bothForms(write("large", bytes)));
    }
}

TEST_F(HashCalculatorTest, OnlySampledBytesCount) {
    const uint64_t size = 12 * kMiB;
    std::string bytes = pattern(size);
    const std::string original = bothForms(write("f", bytes));
    const struct { uint64_t offset; bool changes; } cases[] = {
        {0, true},           {kMiB - 1, true},           {kMiB, false},
        {size / 4 - 1, false}, {size / 4, true},         {size / 2 + kMiB - 1, true},
        {size / 2 + kMiB, false}, {size - kMiB - 1, false}, {size - 1, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset);
        std::string changed(bytes);
        changed[c.offset] = static_cast<char>(changed[c.offset] ^ 1);
        EXPECT_EQ(c.changes, bothForms(write("f", changed)) != original);
    }
}

TEST_F(HashCalculatorTest, MissingOrEmptyPathOrZeroBufferGivesEmptyHashAndOneLine) {
    EXPECT_EQ("", HashCalculator::calcFile(""));
    EXPECT_EQ(1, log_.count("path is empty when calculate file hash.", google::GLOG_ERROR));
    EXPECT_EQ("", HashCalculator::calcFile("", 128));
    EXPECT_EQ(1, log_.count("path is empty when calculate file hash, path : "));
    EXPECT_EQ("", HashCalculator::calcFile(path("/none")));
    EXPECT_EQ(1, log_.count("file not exist when calculate file hash.", google::GLOG_ERROR));
    EXPECT_EQ("", HashCalculator::calcFile(path("/none"), 128));
    EXPECT_EQ(1, log_.count("file not exist when calculate file hash, path : " + path("/none")));
    EXPECT_EQ(4u, log_.lines().size());
    EXPECT_EQ("", HashCalculator::calcFile(write("abc", "abc"), 0));
    EXPECT_EQ(1, log_.count(" memory allocation failure, bufferSize : 0", google::GLOG_ERROR));
}

TEST_F(HashCalculatorTest, AnythingButARegularFileHasNoHashAndNeverBlocks) {
    ASSERT_EQ(0, mkfifo(path("/fifo").c_str(), 0600));
    writeFile("/dir/f", "x");
    const std::vector<std::string> paths = {path("/fifo"), path("/dir"), "/dev/zero",
                                            "/dev/null"};
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& file : paths) {
        SCOPED_TRACE(file);
        EXPECT_EQ("", HashCalculator::calcFile(file));
        EXPECT_EQ("", HashCalculator::calcFile(file, 128));
        EXPECT_EQ(1, log_.count("open file fail when calc file hash, path : " + file,
                                google::GLOG_ERROR));
    }
    EXPECT_EQ(4, log_.count("open file fail when calc file hash.", google::GLOG_ERROR));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

// A file whose content ends before its stated size (as one that shrinks while
// it is read does) never yields a digest of stale buffer bytes. Kernel
// attribute files state a size of a page and hold a few bytes.
TEST_F(HashCalculatorTest, ShortReadGivesEmptyHash) {
    const char* candidates[] = {"/sys/kernel/uevent_seqnum", "/sys/kernel/profiling",
                                "/sys/kernel/mm/transparent_hugepage/enabled"};
    std::string file;
    for (const char* candidate : candidates) {
        struct stat info;
        std::ifstream in(candidate);
        std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (stat(candidate, &info) == 0 && S_ISREG(info.st_mode) &&
            static_cast<uint64_t>(info.st_size) > content.size()) {
            file = candidate;
            break;
        }
    }
    if (file.empty()) {
        GTEST_SKIP() << "no file that reads shorter than its size";
    }
    EXPECT_EQ("", HashCalculator::calcFile(file));
    EXPECT_EQ("", HashCalculator::calcFile(file, 128));
    EXPECT_EQ(2, log_.count("read file fail when calc file hash, path : " + file,
                            google::GLOG_ERROR));
}

}  // namespace
