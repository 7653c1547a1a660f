#include <sys/stat.h>
#include <unistd.h>
#include <wand/MagickWand.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "multimedia/ImageTestImages.h"
#include "multimedia/ImageUtil.h"
#include "storage/File.h"
#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"
#include "system/ImageUtils.h"

using talvern::ConfigInfo;
using talvern::ImageUtil;
using talvern::THUMBNAIL_MIDDLE;
using talvern::THUMBNAIL_SMALL;
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
    r.result =
        util.resizeJpeg(source, target, &buffer, &r.size, &sw, &sh, side, otherSide, &ow, &oh, 0);
    r.buffer = buffer != NULL;
    r.sizes = std::to_string(sw) + "x" + std::to_string(sh) + " " + std::to_string(ow) + "x" +
              std::to_string(oh);
    std::free(buffer);
    return r;
}

// Under qemu-user ImageMagick looks for its coder modules with faccessat2,
// which qemu 7.2 does not send into the sysroot: it finds none, and what it
// would read is not tested there.
#ifdef QUORVIA_EMULATED
bool magickFindsItsCoders() {
    MagickWandGenesis();
    MagickWand* const probe = NewMagickWand();
    const bool found = MagickReadImage(probe, "xc:red") != MagickFalse;
    DestroyMagickWand(probe);
    return found;
}
#define SKIP_WHERE_MAGICK_HAS_NO_CODERS() \
    if (!magickFindsItsCoders()) GTEST_SKIP() << "ImageMagick finds no coder modules under qemu-user"
#else
#define SKIP_WHERE_MAGICK_HAS_NO_CODERS()
#endif

class ImageUtilThumbnailTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dir_ = root() + "/photos";
        ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
        smallRoot_ = ConfigInfo::sGetInstance()->getSmallIconsRootPath();
        middleRoot_ = ConfigInfo::sGetInstance()->getMiddleIconsRootPath();
    }

    // A red/blue picture in dir_, its format told by the name, with an EXIF
    // thumbnail of that orientation (none for 0).
    std::string photo(const std::string& name, int width, int height, bool noisy, int orientation) {
        const std::string file = dir_ + "/" + name;
        EXPECT_TRUE(makeRedBlue(file, width, height, noisy, "-depth 8"));
        EXPECT_TRUE(orientation == 0 || addExifThumbnail(file, orientation, dir_));
        return file;
    }

    ImageUtil util_;
    std::string dir_;
    std::string smallRoot_;
    std::string middleRoot_;
};

}  // namespace

TEST(ImageUtilSampleSize, Table) {
    struct Case {
        int width, height, side, pixels, factor;
    } const cases[] = {
        {1280, 720, 1280, 921600, 1},
        {1281, 721, 1280, 921600, 2},
        {3264, 2448, 1280, 921600, 4},
        {6000, 4000, 1280, 921600, 8},
        {10000, 10000, 1280, 921600, 16},
        {5000, 5000, -1, -1, 1},
        {5000, 5000, -1, 1000000, 8},  // only a pixel bound
        {3000, 4000, 1000, -1, 4},     // only a side bound
        {17000, 17000, 1000, -1, 24},  // above 8: up to a multiple of 8
        // A target of 0 once turned a division by zero into an int.
        {3000, 4000, 0, 921600, 1},
        {3000, 4000, 1280, 0, 1},
    };
    ImageUtil util;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        EXPECT_EQ(c.factor, util.computeSampleSize(c.width, c.height, c.side, c.pixels));
    }
}

TEST_F(ImageUtilThumbnailTest, JpegResizeDecodesLargeSourcesReducedAndCopiesOthers) {
    const std::string source = dir_ + "/big.jpg", target = dir_ + "/small.jpg";
    struct Case {
        int width, height;
        bool noisy;  // then the result outgrows the first buffer
        const char* options;
        int side, otherSide;
        const char* sizes;
    } const cases[] = {
        {3264, 2448, false, "", 1280, 720, "3264x2448 816x612"},
        {3264, 2448, false, "-interlace Plane", 1280, 720, "3264x2448 816x612"},
        {2000, 2000, true, "", 1000, 1000, "2000x2000 1000x1000"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sizes + std::string(c.options));
        ASSERT_TRUE(makeRedBlue(source, c.width, c.height, c.noisy,
                                c.options + std::string(" -quality 90")));
        const Resized r = resize(util_, source, target, c.side, c.otherSide);
        EXPECT_EQ(0, r.result);
        EXPECT_TRUE(r.buffer);
        EXPECT_EQ(static_cast<unsigned long>(slurp(target).size()), r.size);
        EXPECT_EQ(c.noisy, r.size > ImageUtil::kFirstBufferSize);
        EXPECT_EQ(c.sizes, r.sizes);
        EXPECT_EQ(r.sizes.substr(r.sizes.find(' ') + 1), geometryOf(target));
        EXPECT_EQ("RBRB", quarters(target));
    }
    // A source of the largest side but needing no scaling: a byte-for-byte
    // copy, no buffer, and -1.
    ASSERT_TRUE(makeRedBlue(source, 64, 16, false));
    writeAll(source, withClaimedSize(slurp(source), ImageUtil::kMaxJpegSide, 16));
    const Resized r = resize(util_, source, target);
    EXPECT_EQ(-1, r.result);
    EXPECT_FALSE(r.buffer);
    EXPECT_EQ(0u, r.size);
    EXPECT_EQ("10000x16 10000x16", r.sizes);
    EXPECT_EQ(slurp(source), slurp(target));
}

// Cut short, unsupported, oversized or unreadable: each fails at once with its
// reason, leaving neither a buffer nor a target.
TEST_F(ImageUtilThumbnailTest, BadJpegSourcesFailWithTheirReason) {
    const std::string bytes = slurp(photo("whole.jpg", 2000, 1500, true, 0));
    ASSERT_TRUE(makeRedBlue(dir_ + "/cmyk.jpg", 2000, 1500, false, "-colorspace CMYK"));
    writeAll(dir_ + "/mid-scan.jpg", bytes.substr(0, bytes.size() / 2));
    writeAll(dir_ + "/text.jpg", "not a picture at all");
    const std::string progressive = dir_ + "/progressive.jpg";
    ASSERT_TRUE(makeRedBlue(progressive, 64, 64, false, "-interlace Plane -sampling-factor 1x1"));
    const std::string small = slurp(progressive);
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
        {"cmyk.jpg", decoder},
        {"mid-scan.jpg", decoder},
        {"text.jpg", decoder},
        {"huge.jpg", decoder + "Backing store not supported"},
        {"scans.jpg", "jpeg has more than 100 scans, give up"},
        {"wide.jpg", "image too large, jpeg width is 10001 and jpeg height is 16",
         google::GLOG_INFO},
        {"tall.jpg", "image too large, jpeg width is 16 and jpeg height is 10001",
         google::GLOG_INFO},
        {"pipe.jpg", "resize jpeg, open file " + dir_ + "/pipe.jpg fail"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log_.clear();
        const Resized r = resize(util_, dir_ + "/" + c.name, dir_ + "/out.jpg");
        EXPECT_EQ(-1, r.result);
        EXPECT_FALSE(r.buffer);
        EXPECT_FALSE(exists(dir_ + "/out.jpg"));
        EXPECT_TRUE(log_.contains(c.line, c.severity));
    }
}

TEST_F(ImageUtilThumbnailTest, SavingWritesTheBlockAndRefusesEmptyOrUnwritableResults) {
    const std::string block(ImageUtil::kChunkSize, 'x');
    const std::string path = dir_ + "/block.bin";
    EXPECT_EQ(0, util_.save_to_jpeg_file(reinterpret_cast<const unsigned char*>(block.data()),
                                         block.size(), path, 1));
    EXPECT_EQ(block, slurp(path));

    const std::string empty = dir_ + "/empty.jpg";
    EXPECT_EQ(-1, util_.save_to_jpeg_file(nullptr, 0, empty, 0));
    EXPECT_FALSE(exists(empty));
    EXPECT_EQ(1, log_.count("jpeg file " + empty + " is empty, delete it. useChunk is 0"));
    const std::string nowhere = dir_ + "/no/such/dir/x.jpg";
    EXPECT_EQ(-1,
              util_.save_to_jpeg_file(reinterpret_cast<const unsigned char*>("x"), 1, nowhere, 0));
    EXPECT_EQ(1, log_.count("open file" + nowhere + " fail"));
}

TEST_F(ImageUtilThumbnailTest, ExifThumbnailsAreWrittenUpright) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    struct Case {
        int orientation;
        const char* geometry;
        const char* quarters;
    } const cases[] = {{1, "160x120", "RBRB"},
                       {3, "160x120", "BRBR"},
                       {6, "120x160", "RRBB"},
                       {8, "120x160", "BBRR"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.orientation);
        const std::string source =
            photo(std::to_string(c.orientation) + ".jpg", 640, 480, false, c.orientation);
        std::string thumb;
        EXPECT_EQ(0, util_.getThumbnail(source, thumb, THUMBNAIL_SMALL, "", 0));
        EXPECT_EQ(smallRoot_ + source, thumb);
        EXPECT_EQ(c.geometry, geometryOf(thumb));
        EXPECT_EQ(c.quarters, quarters(thumb));
    }
}

TEST_F(ImageUtilThumbnailTest, MiddleTierCopiesUpToTheSizeLimitResizesAboveAndIsSharedByHash) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    // Padded behind its end to exactly the limit.
    const std::string atLimit = photo("at-limit.jpg", 1600, 1200, false, 0);
    std::string padded = slurp(atLimit);
    ASSERT_LE(padded.size(), ImageUtil::kCopyWithoutResizeSize);
    padded.resize(ImageUtil::kCopyWithoutResizeSize, '\0');
    writeAll(atLimit, padded);
    std::string thumb;
    EXPECT_EQ(0, util_.getThumbnail(atLimit, thumb, THUMBNAIL_MIDDLE, "abcdef01", 0));
    EXPECT_EQ(middleRoot_ + "/ab/cd/abcdef01.jpg", thumb);
    EXPECT_EQ(padded, slurp(thumb));
    EXPECT_EQ(1, log_.count(atLimit + " too small, no need to resize"));
    // Another file of the same content finds the thumbnail and reads nothing.
    unlink(atLimit.c_str());
    EXPECT_EQ(0, util_.getThumbnail(dir_ + "/copy.jpg", thumb, THUMBNAIL_MIDDLE, "abcdef01", 0));
    EXPECT_EQ(1, log_.count(thumb + " has resized middle thumbnail, no need to resize again"));

    const std::string above = photo("above.jpg", 1600, 1200, true, 6);
    ASSERT_GT(slurp(above).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(0, util_.getThumbnail(above, thumb, THUMBNAIL_MIDDLE, "1234", 0));
    EXPECT_EQ(middleRoot_ + "/12/34/1234.jpg", thumb);
    EXPECT_EQ("600x800", geometryOf(thumb));
    EXPECT_EQ("RRBB", quarters(thumb));
    EXPECT_EQ(1, log_.count(above + " try use resize algorithm"));

    // Large in bytes but needing no scaling: a copy, and still -1.
    const std::string hd = photo("hd.jpg", 1280, 720, true, 0);
    ASSERT_GT(slurp(hd).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(-1, util_.getThumbnail(hd, thumb, THUMBNAIL_MIDDLE, "beef02", 0));
    EXPECT_EQ(slurp(hd), slurp(thumb));
    EXPECT_EQ(-1, util_.getThumbnail(hd, thumb, static_cast<talvern::ThumbnailSize>(2), "x", 0));
}

TEST_F(ImageUtilThumbnailTest, OtherFormatsGoToTheCommandLineResize) {
    std::string thumb = "untouched";
    EXPECT_EQ(0, util_.getThumbnail(dir_ + "/raw.NEF", thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ("untouched", thumb);

    const std::string png = photo("big.png", 600, 450, true, 0);
    ASSERT_GT(slurp(png).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(0, util_.getThumbnail(png, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(smallRoot_ + png, thumb);
    EXPECT_EQ("400x300", geometryOf(thumb));

    const std::string tiny = photo("tiny.gif", 40, 30, false, 0);
    EXPECT_EQ(0, util_.getThumbnail(tiny, thumb, THUMBNAIL_MIDDLE, "0a0b0c", 0));
    EXPECT_EQ(slurp(tiny), slurp(thumb));

    const std::string wide = photo("wide.png", 2002, 300, true, 0);
    EXPECT_EQ(-1, util_.getThumbnail(wide, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ("", thumb);
    EXPECT_FALSE(exists(smallRoot_ + wide));
}

// No EXIF thumbnail, no file, no regular file, a path or hash that would
// leave the thumbnail tree: each fails with its reason and writes nothing.
TEST_F(ImageUtilThumbnailTest, RequestsThatCannotSucceedFailAndWriteNothing) {
    const std::string plain = photo("plain.jpg", 64, 48, false, 0);
    std::string thumb;
    EXPECT_EQ(-1, util_.getThumbnail(plain, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1, log_.count("get thumbnail from exif, there is no thumbnail in exif " + plain));
    EXPECT_FALSE(exists(smallRoot_ + plain));
    EXPECT_EQ(-1, util_.getThumbnail(dir_ + "/gone.jpg", thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1, log_.count("get thumbnail from exif, path " + dir_ + "/gone.jpg not exist"));

    const std::string source = photo("a.jpg", 64, 48, false, 1);
    const std::string climbing = dir_ + "/../../../../../../../../../../../.." + source;
    EXPECT_EQ(-1, util_.getThumbnail(climbing, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1,
              log_.count("generate thumb path, " + climbing + " would leave the thumbnail tree"));
    EXPECT_EQ("", util_.generateThumbPath("photos/a.png", THUMBNAIL_SMALL, ""));
    for (const std::string& hash : {std::string("a"), std::string("../../../x")}) {
        EXPECT_EQ(-1, util_.getThumbnail(source, thumb, THUMBNAIL_MIDDLE, hash, 0));
        EXPECT_EQ("", util_.getMiddleIconsHashPath(hash));
    }

    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.jpg").c_str(), 0644));
    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.png").c_str(), 0644));
    ASSERT_EQ(0, mkdir((dir_ + "/folder.gif").c_str(), 0755));
    for (const char* name : {"/pipe.jpg", "/pipe.png", "/folder.gif"}) {
        const std::string odd = dir_ + name;
        thumb = "untouched";
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, THUMBNAIL_MIDDLE, "1234", 0));
        EXPECT_EQ("", thumb);
        EXPECT_EQ(1, log_.count("generate thumbnail, " + odd + " is not a readable regular file"));
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, THUMBNAIL_SMALL, "", 0));
    }
    EXPECT_EQ(-1, util_.rotateImage(dir_ + "/pipe.jpg", 90));
}

// resizePng reads the header through libpng first; resizeGif samples every
// frame. Both refuse sources beyond their limits and write nothing then.
TEST_F(ImageUtilThumbnailTest, PngAndGifResizeWithinTheirLimits) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    typedef int (ImageUtil::*Resize)(const std::string&, int, int*, int*, std::string&);
    const Resize png = &ImageUtil::resizePng, gif = &ImageUtil::resizeGif;
    const std::string still = photo("p.png", 300, 200, false, 0), anim = dir_ + "/anim.gif";
    ASSERT_TRUE(makeImage("-size 120x80 xc:red xc:blue xc:green -set delay 10", anim));
    int width = 0, height = 0;
    std::string thumb;
    struct Done {
        Resize op;
        std::string path;
        int width;
        const char* sizes;
        const char* quarters;
    } const done[] = {{png, still, 100, "300x200 100x66", "RBRB"},
                      {gif, anim, 60, "120x80 60x40 60x40 60x40", "RRRR"}};
    for (const Done& c : done) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(0, (util_.*c.op)(c.path, c.width, &width, &height, thumb));
        EXPECT_EQ(smallRoot_ + c.path, thumb);
        EXPECT_EQ(c.sizes,
                  std::to_string(width) + "x" + std::to_string(height) + " " + geometryOf(thumb));
        EXPECT_EQ(c.quarters, quarters(thumb));
    }

    const std::string wide = dir_ + "/wide.png", cut = dir_ + "/cut.png", other = dir_ + "/gif.png";
    const std::string many = dir_ + "/many.gif", wideGif = dir_ + "/wide.gif";
    const std::string pngSide = std::to_string(ImageUtil::kMaxPngSide + 1);
    ASSERT_TRUE(makeImage("-size " + pngSide + "x10 xc:red", wide));
    writeAll(cut, slurp(still).substr(0, 20));
    writeAll(other, "GIF89a not a png");
    ASSERT_TRUE(makeImage("-size 8x8 xc:red", dir_ + "/one.gif"));
    writeAll(many, repeatedGif(slurp(dir_ + "/one.gif"), ImageUtil::kMagickMaxFrames + 1));
    ASSERT_TRUE(
        makeImage("-size " + std::to_string(ImageUtil::kMagickMaxSide + 1) + "x1 xc:red", wideGif));
    struct Refused {
        Resize op;
        std::string path, line;
    } const refused[] = {
        {png, wide, "resize png " + wide + " too large, and width=" + pngSide + " height=10"},
        {png, cut, "generate thumbnail " + cut + " exception"},
        {png, other, other + "is not regular png"},
        {png, dir_ + "/none.png", "failed to open " + dir_ + "/none.png, error: "},
        {gif, many, "read gif " + many + " fail"},
        {gif, wideGif, "read gif " + wideGif + " fail"},
    };
    for (const Refused& c : refused) {
        SCOPED_TRACE(c.line);
        log_.clear();
        EXPECT_EQ(-1, (util_.*c.op)(c.path, 4, &width, &height, thumb));
        EXPECT_TRUE(log_.contains(c.line));
        EXPECT_FALSE(exists(smallRoot_ + c.path));
    }
}

// The thumbnail tree lies on the user disk, where links and FIFOs can be
// planted: a write went through a link into the file it named, and a FIFO
// held the writer for ever. Every write route now replaces what stands at
// its target, and a path through a folder of the tree that is a link is
// refused.
TEST_F(ImageUtilThumbnailTest, PlantedLinksAndFifosAreReplacedNeverWrittenThroughRegression) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    alarm(60);  // a write that waits on a FIFO ends the test
    const std::string outside = root() + "/outside.txt", nowhere = root() + "/nowhere";
    writeAll(outside, "outside");
    const std::string png = photo("src.png", 300, 200, false, 0);
    const std::string bytes = "jpeg bytes";
    const std::pair<std::string, std::function<bool(const std::string&)>> routes[] = {
        {"jpeg",
         [&](const std::string& target) {
             return util_.save_to_jpeg_file(reinterpret_cast<const unsigned char*>(bytes.data()),
                                            bytes.size(), target, 0) == 0;
         }},
        {"copy", [&](const std::string& target) { return talvern::File::sCopy(png, target).ok(); }},
        {"convert",
         [&](const std::string& target) {
             return talvern::ImageUtils().resizeImage(png, target, 40, 30) ==
                    talvern::ImageUtils::kResizeDone;
         }},
        {"magick",
         [&](const std::string& target) {
             int width = 0, height = 0;
             std::string thumb;
             return util_.resizePng(png, 100, &width, &height, thumb) == 0 && thumb == target;
         }},
    };
    for (const auto& route : routes) {
        for (const std::string plant : {"link", "dangling", "fifo"}) {
            SCOPED_TRACE(route.first + " onto a " + plant);
            const std::string target =
                route.first == "magick" ? smallRoot_ + png : dir_ + "/" + route.first + ".png";
            ASSERT_EQ(0,
                      shell("mkdir -p \"$(dirname '" + target + "')\" && rm -f '" + target + "'"));
            if (plant == "fifo") {
                ASSERT_EQ(0, mkfifo(target.c_str(), 0644));
            } else {
                ASSERT_EQ(0,
                          symlink((plant == "link" ? outside : nowhere).c_str(), target.c_str()));
            }
            EXPECT_TRUE(route.second(target));
            struct stat info;
            EXPECT_TRUE(lstat(target.c_str(), &info) == 0 && S_ISREG(info.st_mode));
            EXPECT_EQ("outside", slurp(outside));
            EXPECT_FALSE(exists(nowhere));
        }
    }
    // A folder of the tree that is a link leads nowhere.
    const std::string elsewhere = root() + "/elsewhere";
    ASSERT_EQ(0, shell("mkdir -p '" + elsewhere + "' '" + middleRoot_ + "' && ln -s '" + elsewhere +
                       "' '" + middleRoot_ + "/ab'"));
    EXPECT_EQ("", util_.generateThumbPath(png, THUMBNAIL_MIDDLE, "abcdef"));
    EXPECT_TRUE(log_.contains("passes through a link", google::GLOG_ERROR));
    EXPECT_EQ(0, shell("test -z \"$(ls -A '" + elsewhere + "')\""));
}
