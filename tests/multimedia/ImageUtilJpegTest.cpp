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
    int result;
    bool buffer;
    unsigned long size;
    std::string sizes;  // "srcWxsrcH outWxoutH"
};

// resizeJpeg towards side x otherSide, unchunked; frees the buffer.
Resized resize(ImageUtil& util, const std::string& source, std::string target, int side = 1280,
               int otherSide = 720) {
    Resized r{0, false, 1, ""};
    unsigned char* buffer = reinterpret_cast<unsigned char*>(1);
    int sw = -7, sh = -7, ow = -7, oh = -7;
    r.result = util.resizeJpeg(source, target, &buffer, &r.size, &sw, &sh, side, otherSide, &ow,
                               &oh, 0);
    r.buffer = buffer != NULL;
    r.sizes = std::to_string(sw) + "x" + std::to_string(sh) + " " + std::to_string(ow) + "x" +
              std::to_string(oh);
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

TEST(ImageUtilSampleSize, Table) {
    struct Case {
        int width, height, side, pixels, factor;
    } const cases[] = {
        {1280, 720, 1280, 921600, 1},    {1281, 721, 1280, 921600, 2},
        {3264, 2448, 1280, 921600, 4},   {6000, 4000, 1280, 921600, 8},
        {10000, 10000, 1280, 921600, 16}, {5000, 5000, -1, -1, 1},
        {5000, 5000, -1, 1000000, 8},  // only a pixel bound
        {3000, 4000, 1000, -1, 4},     // only a side bound
        {17000, 17000, 1000, -1, 24},  // above 8: up to a multiple of 8
    };
    ImageUtil util;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        EXPECT_EQ(c.factor, util.computeSampleSize(c.width, c.height, c.side, c.pixels));
    }
}

TEST_F(ImageUtilJpegTest, LargeSourcesAreDecodedReducedAndOthersCopied) {
    const std::string source = dir_ + "/big.jpg", target = dir_ + "/small.jpg";
    struct Case {
        int width, height;
        bool noisy;  // then the result outgrows the first buffer
        const char* options;
        int side, otherSide;
        const char* sizes;
        const char* scale;
    } const cases[] = {
        {3264, 2448, false, "", 1280, 720, "3264x2448 816x612",
         "scale(1, 4) origin(3264, 2448) target(1280, 720)"},
        {3264, 2448, false, "-interlace Plane", 1280, 720, "3264x2448 816x612",
         "scale(1, 4) origin(3264, 2448) target(1280, 720)"},
        {2000, 2000, true, "", 1000, 1000, "2000x2000 1000x1000",
         "scale(1, 2) origin(2000, 2000) target(1000, 1000)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scale + std::string(c.options));
        ASSERT_TRUE(makeRedBlue(source, c.width, c.height, c.noisy,
                                c.options + std::string(" -quality 90")));
        const Resized r = resize(util_, source, target, c.side, c.otherSide);
        EXPECT_EQ(0, r.result);
        EXPECT_TRUE(r.buffer);
        EXPECT_EQ(static_cast<unsigned long>(readAll(target).size()), r.size);
        EXPECT_EQ(c.noisy, r.size > ImageUtil::kFirstBufferSize);
        EXPECT_EQ(c.sizes, r.sizes);
        EXPECT_EQ(r.sizes.substr(r.sizes.find(' ') + 1), geometryOf(target));
        EXPECT_EQ("RBRB", quarters(target));
        EXPECT_TRUE(log_.contains(c.scale));
    }
    // A source of the largest side but needing no scaling: a byte-for-byte
    // copy, no buffer, and -1.
    ASSERT_TRUE(makeRedBlue(source, 64, 16, false));
    writeAll(source, withClaimedSize(readAll(source), ImageUtil::kMaxJpegSide, 16));
    const Resized r = resize(util_, source, target);
    EXPECT_EQ(-1, r.result);
    EXPECT_FALSE(r.buffer);
    EXPECT_EQ(0u, r.size);
    EXPECT_EQ("10000x16 10000x16", r.sizes);
    EXPECT_EQ(readAll(source), readAll(target));
    EXPECT_EQ(1, log_.count("no need to scale"));
}

// Cut short, unsupported, oversized or unreadable: each fails at once with its
// reason, leaving neither a buffer nor a target.
TEST_F(ImageUtilJpegTest, BadSourcesFailWithTheirReason) {
    ASSERT_TRUE(makeRedBlue(dir_ + "/whole.jpg", 2000, 1500, true, "-quality 80"));
    const std::string bytes = readAll(dir_ + "/whole.jpg");
    ASSERT_TRUE(makeRedBlue(dir_ + "/cmyk.jpg", 2000, 1500, false, "-colorspace CMYK"));
    writeAll(dir_ + "/mid-scan.jpg", bytes.substr(0, bytes.size() / 2));
    writeAll(dir_ + "/text.jpg", "not a picture at all");
    const std::string progressive = dir_ + "/progressive.jpg";
    ASSERT_TRUE(makeRedBlue(progressive, 64, 64, false, "-interlace Plane -sampling-factor 1x1"));
    const std::string small = readAll(progressive);
    const int side = ImageUtil::kMaxJpegSide;
    writeAll(dir_ + "/wide.jpg", withClaimedSize(small, side + 1, 16));
    writeAll(dir_ + "/tall.jpg", withClaimedSize(small, 16, side + 1));
    // A progressive decode keeps every coefficient: 10000 x 10000 in colour
    // would take about 300 MB before a single scan is read.
    writeAll(dir_ + "/huge.jpg", withClaimedSize(small, side, side));
    ASSERT_TRUE(writeManyScanJpeg(dir_ + "/scans.jpg", 2000, 1500));
    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.jpg").c_str(), 0644));
    const std::string decoder = "libjpeg: ";
    struct Case {
        const char* name;
        std::string line;
        int severity = google::GLOG_ERROR;
    } const cases[] = {
        {"cmyk.jpg", decoder}, {"mid-scan.jpg", decoder}, {"text.jpg", decoder},
        {"huge.jpg", decoder + "Backing store not supported"},
        {"scans.jpg", "jpeg has more than 100 scans, give up"},
        {"wide.jpg", "image too large, jpeg width is 10001 and jpeg height is 16", google::GLOG_INFO},
        {"tall.jpg", "image too large, jpeg width is 16 and jpeg height is 10001", google::GLOG_INFO},
        {"pipe.jpg", "resize jpeg, open file " + dir_ + "/pipe.jpg fail"},
    };
    const auto start = std::chrono::steady_clock::now();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log_.clear();
        const Resized r = resize(util_, dir_ + "/" + c.name, dir_ + "/out.jpg");
        EXPECT_EQ(-1, r.result);
        EXPECT_FALSE(r.buffer);
        EXPECT_FALSE(exists(dir_ + "/out.jpg"));
        EXPECT_TRUE(log_.contains(c.line, c.severity));
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
