#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <chrono>
#include <cstdlib>
#include <string>

#include "multimedia/ImageTestImages.h"
#include "multimedia/ImageUtil.h"
#include "support/DeviceRootTest.h"

using talvern::ImageUtil;
using namespace quorvia_test;

namespace {

struct Resized {
    int result, srcWidth, srcHeight, outWidth, outHeight;
    bool buffer;
    unsigned long size;
};

// resizeJpeg towards 1280x720 unless told otherwise, unchunked; frees the buffer.
Resized resize(ImageUtil& util, const std::string& source, std::string target,
               int side = 1280, int otherSide = 720) {
    Resized r{0, -7, -7, -7, -7, false, 1};
    unsigned char* buffer = reinterpret_cast<unsigned char*>(1);
    r.result = util.resizeJpeg(source, target, &buffer, &r.size, &r.srcWidth, &r.srcHeight,
                               side, otherSide, &r.outWidth, &r.outHeight, 0);
    r.buffer = buffer != NULL;
    std::free(buffer);
    return r;
}

class ImageUtilJpegTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dir_ = root() + "/images";
        ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
    }

    ImageUtil util_;
    std::string dir_;
};

}  // namespace

// raw 0: the initial size is not checked for that row.
TEST(ImageUtilSampleSize, Table) {
    struct Case {
        int width, height, side, pixels, raw, factor;
    } const cases[] = {
        {1280, 720, 1280, 921600, 1, 1},    {1281, 721, 1280, 921600, 2, 2},
        {3264, 2448, 1280, 921600, 3, 4},   {6000, 4000, 1280, 921600, 6, 8},
        {10000, 10000, 1280, 921600, 11, 16}, {5000, 5000, -1, -1, 1, 1},
        {5000, 5000, -1, 1000000, 5, 8},  // only a pixel bound
        {3000, 4000, 1000, -1, 3, 4},     // only a side bound
        {17000, 17000, 1000, -1, 0, 24},  // above 8: up to a multiple of 8
    };
    ImageUtil util;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        if (c.raw != 0) {
            EXPECT_EQ(c.raw, util.computeInitialSampleSize(c.width, c.height, c.side, c.pixels));
        }
        EXPECT_EQ(c.factor, util.computeSampleSize(c.width, c.height, c.side, c.pixels));
    }
}

TEST_F(ImageUtilJpegTest, BaselineAndProgressiveAreDecodedReducedAndSmallOnesCopied) {
    const std::string source = dir_ + "/big.jpg", target = dir_ + "/small.jpg";
    for (const std::string& options : {std::string(""), std::string("-interlace Plane")}) {
        SCOPED_TRACE(options);
        ASSERT_TRUE(makeRedBlue(source, 3264, 2448, false, options + " -quality 80"));
        const Resized r = resize(util_, source, target);
        EXPECT_EQ(0, r.result);
        EXPECT_TRUE(r.buffer);
        EXPECT_EQ(static_cast<unsigned long>(readAll(target).size()), r.size);
        EXPECT_EQ("3264x2448 816x612", std::to_string(r.srcWidth) + "x" +
                                           std::to_string(r.srcHeight) + " " +
                                           std::to_string(r.outWidth) + "x" +
                                           std::to_string(r.outHeight));
        EXPECT_EQ("816x612", geometryOf(target));
        EXPECT_EQ("RBRB", quarters(target));
        EXPECT_TRUE(log_.contains("scale(1, 4) origin(3264, 2448) target(1280, 720)"));
        EXPECT_TRUE(log_.contains("save to jpeg file success, target path is " + target +
                                  ", isUseChunk 0"));
    }
    // No scaling needed: a byte-for-byte copy, no buffer, and -1.
    ASSERT_TRUE(makeRedBlue(source, 1280, 720, false));
    const Resized r = resize(util_, source, target);
    EXPECT_EQ(-1, r.result);
    EXPECT_FALSE(r.buffer);
    EXPECT_EQ(0u, r.size);
    EXPECT_EQ(720, r.outHeight);
    EXPECT_EQ(readAll(source), readAll(target));
    EXPECT_EQ(1, log_.count("no need to scale"));
}

TEST_F(ImageUtilJpegTest, OutputLargerThanFirstBufferGrowsWithoutLoss) {
    const std::string source = dir_ + "/noise.jpg", target = dir_ + "/noise-small.jpg";
    ASSERT_TRUE(
        makeImage("-size 2600x2600 xc:gray +noise Random -type TrueColor -quality 95", source));
    const Resized r = resize(util_, source, target, 1300, 1300);
    EXPECT_EQ(0, r.result);
    EXPECT_GT(r.size, static_cast<unsigned long>(ImageUtil::kFirstBufferSize));
    EXPECT_EQ(static_cast<unsigned long>(readAll(target).size()), r.size);
    EXPECT_EQ("1300x1300", geometryOf(target));
}

TEST_F(ImageUtilJpegTest, SideLimitRefusesBeforeDecoding) {
    ASSERT_TRUE(makeRedBlue(dir_ + "/strip.jpg", 64, 16, false));
    const std::string original = readAll(dir_ + "/strip.jpg");
    const std::string source = dir_ + "/claimed.jpg", target = dir_ + "/claimed-out.jpg";
    const int side = ImageUtil::kMaxJpegSide;
    struct Case {
        int width, height;
        bool refused;
    } const cases[] = {{side, 16, false}, {side + 1, 16, true}, {16, side + 1, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        writeAll(source, withClaimedSize(original, c.width, c.height));
        log_.clear();
        EXPECT_EQ(-1, resize(util_, source, target).result);
        EXPECT_EQ(c.refused ? 1 : 0,
                  log_.count("image too large, jpeg width is " + std::to_string(c.width) +
                             " and jpeg height is " + std::to_string(c.height)));
        EXPECT_EQ(!c.refused, exists(target));
        unlink(target.c_str());
    }
}

// Damaged, unsupported, oversized or unreadable: each fails at once with its
// reason, leaving neither a buffer nor a target.
TEST_F(ImageUtilJpegTest, BadSourcesFailWithTheirReason) {
    ASSERT_TRUE(makeRedBlue(dir_ + "/whole.jpg", 2000, 1500, true, "-quality 80"));
    const std::string bytes = readAll(dir_ + "/whole.jpg");
    ASSERT_TRUE(makeRedBlue(dir_ + "/cmyk.jpg", 2000, 1500, false, "-colorspace CMYK"));
    writeAll(dir_ + "/mid-scan.jpg", bytes.substr(0, bytes.size() / 2));
    std::string damaged(bytes);
    // Restart markers in the middle of entropy-coded data, where none belong.
    for (size_t i = bytes.size() / 3; i < bytes.size() / 3 + 64; i += 2) {
        damaged[i] = static_cast<char>(0xFF);
        damaged[i + 1] = static_cast<char>(0xD0 + i % 8);
    }
    writeAll(dir_ + "/corrupt.jpg", damaged);
    writeAll(dir_ + "/text.jpg", "not a picture at all");
    // A progressive decode keeps every coefficient: 10000 x 10000 in colour
    // would take about 300 MB before a single scan is read.
    const std::string progressive = dir_ + "/progressive.jpg";
    ASSERT_TRUE(makeRedBlue(progressive, 64, 64, false, "-interlace Plane -sampling-factor 1x1"));
    writeAll(dir_ + "/huge.jpg", withClaimedSize(readAll(progressive), 10000, 10000));
    int scans = 0;
    ASSERT_TRUE(writeManyScanJpeg(dir_ + "/scans.jpg", 2000, 1500, &scans));
    ASSERT_GT(scans, ImageUtil::kMaxJpegScans);
    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.jpg").c_str(), 0644));
    const std::string decoder = "libjpeg: ";
    struct Case {
        const char* name;
        std::string line;
    } const cases[] = {
        {"cmyk.jpg", decoder}, {"mid-scan.jpg", decoder}, {"corrupt.jpg", decoder},
        {"text.jpg", decoder}, {"huge.jpg", decoder + "Backing store not supported"},
        {"scans.jpg", "jpeg has more than 100 scans, give up"},
        {"pipe.jpg", "resize jpeg, open file " + dir_ + "/pipe.jpg fail"},
        {"missing.jpg", "resize jpeg, open file " + dir_ + "/missing.jpg fail"},
    };
    const auto start = std::chrono::steady_clock::now();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log_.clear();
        EXPECT_FALSE(resize(util_, dir_ + "/" + c.name, dir_ + "/out.jpg").buffer);
        EXPECT_FALSE(exists(dir_ + "/out.jpg"));
        EXPECT_TRUE(log_.contains(c.line, google::GLOG_ERROR));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(ImageUtilJpegTest, TwoThreadsResizeAtOnce) {
    const std::string good = dir_ + "/good.jpg", bad = dir_ + "/bad.jpg";
    ASSERT_TRUE(makeRedBlue(good, 2000, 1500, false));
    writeAll(bad, readAll(good).substr(0, readAll(good).size() / 2));
    int rightResults[2] = {0, 0};
    boost::thread_group threads;
    for (int t = 0; t < 2; ++t) {
        threads.create_thread([this, t, &good, &bad, &rightResults] {
            ImageUtil util;
            for (int i = 0; i < 10; ++i) {
                const bool isGood = (i + t) % 2 == 0;
                const std::string target = dir_ + "/t" + std::to_string(t) + ".jpg";
                rightResults[t] += (resize(util, isGood ? good : bad, target).result == 0) == isGood;
            }
        });
    }
    threads.join_all();
    EXPECT_EQ(10, rightResults[0]);
    EXPECT_EQ(10, rightResults[1]);
}

TEST_F(ImageUtilJpegTest, SavingPausesOncePerBlockAndRefusesEmptyOrUnwritableResults) {
    const std::string block(ImageUtil::kChunkSize, 'x');
    const std::string path = dir_ + "/block.bin";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, util_.save_to_jpeg_file(reinterpret_cast<const unsigned char*>(block.data()),
                                         block.size(), path, 1));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::microseconds(ImageUtil::kChunkPauseMicroseconds));
    EXPECT_LT(elapsed, std::chrono::microseconds(2 * ImageUtil::kChunkPauseMicroseconds));
    EXPECT_EQ(block, readAll(path));
    EXPECT_EQ(1,
              log_.count("save to jpeg file success, target path is " + path + ", isUseChunk 1"));

    const std::string empty = dir_ + "/empty.jpg";
    EXPECT_EQ(-1, util_.save_to_jpeg_file(nullptr, 0, empty, 0));
    EXPECT_FALSE(exists(empty));
    EXPECT_EQ(1, log_.count("jpeg file " + empty + " is empty, delete it. useChunk is 0"));
    const std::string nowhere = dir_ + "/no/such/dir/x.jpg";
    EXPECT_EQ(-1,
              util_.save_to_jpeg_file(reinterpret_cast<const unsigned char*>("x"), 1, nowhere, 0));
    EXPECT_EQ(1, log_.count("open file" + nowhere + " fail"));
}
