#include <sys/stat.h>
#include <unistd.h>
#include <wand/MagickWand.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "multimedia/ImageTestImages.h"
#include "multimedia/ImageUtil.h"
#include "storage/File.h"
#include "system/ConfigInfo.h"
#include "system/ImageUtils.h"

using namespace talvern;
using namespace quorvia_test;

namespace {

// resizeJpeg towards side x otherSide, unchunked: "result srcWxsrcH outWxoutH",
// the result marked "+" when a buffer came back. A buffer must hold what went
// to target; without one the size is 0.
std::string resize(ImageUtil& util, const std::string& source, std::string target, int side = 1280,
                   int otherSide = 720) {
    // Values no call leaves behind.
    unsigned char* buffer = reinterpret_cast<unsigned char*>(1);
    unsigned long size = 1;
    int sw = -7, sh = -7, ow = -7, oh = -7;
    const int result =
        util.resizeJpeg(source, target, &buffer, &size, &sw, &sh, side, otherSide, &ow, &oh, 0);
    if (buffer != NULL) {
        EXPECT_EQ(slurp(target), std::string(reinterpret_cast<char*>(buffer), size));
    }
    EXPECT_TRUE(buffer != NULL || size == 0);
    std::free(buffer);
    return std::to_string(result) + (buffer != NULL ? "+ " : " ") + std::to_string(sw) + "x" +
           std::to_string(sh) + " " + std::to_string(ow) + "x" + std::to_string(oh);
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
// clang-format off
#define SKIP_WHERE_MAGICK_HAS_NO_CODERS() \
    if (!magickFindsItsCoders()) GTEST_SKIP() << "ImageMagick finds no coder modules under qemu-user"
// clang-format on
#else
#define SKIP_WHERE_MAGICK_HAS_NO_CODERS()
#endif

class ImageUtilThumbnailTest : public DeviceRootTest {
protected:
    // Bytes this process has read so far.
    static long long bytesRead() {
        const std::string io = slurp("/proc/self/io");
        return atoll(io.c_str() + io.find("rchar:") + 6);
    }

    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dir_ = root() + "/photos";
        ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
        smallRoot_ = ConfigInfo::sGetInstance()->getSmallIconsRootPath();
        middleRoot_ = ConfigInfo::sGetInstance()->getMiddleIconsRootPath();
    }

    // A red/blue picture in dir_, its format told by the name, with an EXIF
    // thumbnail of that orientation (none for 0).
    std::string photo(const std::string& name, int width, int height, bool noisy, int orientation,
                      const std::string& options = "") {
        const std::string file = dir_ + "/" + name;
        EXPECT_TRUE(makeRedBlue(file, width, height, noisy, "-depth 8 " + options));
        EXPECT_TRUE(orientation == 0 || addExifThumbnail(file, orientation, dir_));
        return file;
    }

    // Size and colours of the thumbnail written.
    static std::string look(const std::string& thumb) {
        return geometryOf(thumb) + " " + quarters(thumb);
    }

    ImageUtil util_;
    std::string dir_;
    std::string smallRoot_;
    std::string middleRoot_;
};

}  // namespace

// Rows: bounded by pixels and side; by pixels alone; by side alone; above 8,
// rounded up to a multiple of 8; targets of 0, which once turned a division by
// zero into an int.
TEST(ImageUtilSampleSize, Table) {
    struct Case {
        int width, height, side, pixels, factor;
    } const cases[] = {{1280, 720, 1280, 921600, 1},     {1281, 721, 1280, 921600, 2},
                       {3264, 2448, 1280, 921600, 4},    {6000, 4000, 1280, 921600, 8},
                       {10000, 10000, 1280, 921600, 16}, {5000, 5000, -1, -1, 1},
                       {5000, 5000, -1, 1000000, 8},     {3000, 4000, 1000, -1, 4},
                       {17000, 17000, 1000, -1, 24},     {3000, 4000, 0, 921600, 1},
                       {3000, 4000, 1280, 0, 1}};
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
        EXPECT_EQ("0+ " + std::string(c.sizes), resize(util_, source, target, c.side, c.otherSide));
        EXPECT_EQ(c.noisy, slurp(target).size() > ImageUtil::kFirstBufferSize);
        EXPECT_EQ(c.sizes + std::string(" RBRB"), geometryOf(source) + " " + look(target));
    }
    // A source of the largest side but needing no scaling: a byte-for-byte
    // copy, no buffer, and -1.
    ASSERT_TRUE(makeRedBlue(source, 64, 16, false));
    writeAll(source, withClaimedSize(slurp(source), ImageUtil::kMaxJpegSide, 16));
    EXPECT_EQ("-1 10000x16 10000x16", resize(util_, source, target));
    EXPECT_EQ(slurp(source), slurp(target));
}

// Cut short, unsupported, oversized or unreadable: each fails at once with its
// reason, leaving neither a buffer nor a target.
TEST_F(ImageUtilThumbnailTest, BadJpegSourcesFailWithTheirReason) {
    const std::string bytes = slurp(photo("whole.jpg", 2000, 1500, true, 0));
    photo("cmyk.jpg", 2000, 1500, false, 0, "-colorspace CMYK");
    writeAll(dir_ + "/mid-scan.jpg", bytes.substr(0, bytes.size() / 2));
    writeAll(dir_ + "/text.jpg", "not a picture at all");
    const std::string small =
        slurp(photo("progressive.jpg", 64, 64, false, 0, "-interlace Plane -sampling-factor 1x1"));
    const int side = ImageUtil::kMaxJpegSide;
    writeAll(dir_ + "/wide.jpg", withClaimedSize(small, side + 1, 16));
    writeAll(dir_ + "/tall.jpg", withClaimedSize(small, 16, side + 1));
    // A progressive decode keeps every coefficient: 10000 x 10000 in colour
    // would take about 300 MB before a single scan is read.
    writeAll(dir_ + "/huge.jpg", withClaimedSize(small, side, side));
    ASSERT_TRUE(writeManyScanJpeg(dir_ + "/scans.jpg", 2000, 1500));
    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.jpg").c_str(), 0644));
    const std::string decoder = "libjpeg: ";
    const std::pair<const char*, std::string> cases[] = {
        {"cmyk.jpg", decoder},
        {"mid-scan.jpg", decoder},
        {"text.jpg", decoder},
        {"huge.jpg", decoder + "Backing store not supported"},
        {"scans.jpg", "jpeg has more than 100 scans, give up"},
        {"wide.jpg", "image too large, jpeg width is 10001 and jpeg height is 16"},
        {"tall.jpg", "image too large, jpeg width is 16 and jpeg height is 10001"},
        {"pipe.jpg", "resize jpeg, open file " + dir_ + "/pipe.jpg fail"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        log_.clear();
        EXPECT_EQ("-1 ", resize(util_, dir_ + "/" + c.first, dir_ + "/out.jpg").substr(0, 3));
        EXPECT_FALSE(exists(dir_ + "/out.jpg"));
        EXPECT_TRUE(log_.contains(c.second));
    }
}

TEST_F(ImageUtilThumbnailTest, ExifThumbnailsAreWrittenUpright) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    const std::pair<int, const char*> cases[] = {
        {1, "160x120 RBRB"}, {3, "160x120 BRBR"}, {6, "120x160 RRBB"}, {8, "120x160 BBRR"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const std::string source =
            photo(std::to_string(c.first) + ".jpg", 640, 480, false, c.first);
        std::string thumb;
        EXPECT_EQ(0, util_.getThumbnail(source, thumb, THUMBNAIL_SMALL, "", 0));
        EXPECT_EQ(c.second, look(thumb));
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
    EXPECT_EQ("777\n", capture("stat -c %a '" + middleRoot_ + "'"));
    EXPECT_EQ(padded, slurp(thumb));
    // Another file of the same content finds the thumbnail and reads nothing.
    unlink(atLimit.c_str());
    EXPECT_EQ(0, util_.getThumbnail(dir_ + "/copy.jpg", thumb, THUMBNAIL_MIDDLE, "abcdef01", 0));

    const std::string above = photo("above.jpg", 1600, 1200, true, 6);
    ASSERT_GT(slurp(above).size(), ImageUtil::kCopyWithoutResizeSize);
    const mode_t umaskBefore = umask(027);
    EXPECT_EQ(0, util_.getThumbnail(above, thumb, THUMBNAIL_MIDDLE, "1234", 0));
    umask(umaskBefore);
    EXPECT_EQ("600x800 RRBB", look(thumb));
    EXPECT_EQ("640\n", capture("stat -c %a '" + thumb + "'"));
    EXPECT_EQ(-1, util_.getThumbnail(above, thumb, static_cast<ThumbnailSize>(2), "x", 0));
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
// leave the thumbnail tree, nothing to save or nowhere to save it: each fails
// and writes nothing.
TEST_F(ImageUtilThumbnailTest, RequestsThatCannotSucceedFailAndWriteNothing) {
    alarm(60);  // a read that waits on a FIFO ends the test
    const std::string plain = photo("plain.jpg", 64, 48, false, 0);
    std::string thumb;
    EXPECT_EQ(-1, util_.getThumbnail(plain, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_FALSE(exists(smallRoot_ + plain));
    EXPECT_EQ(-1, util_.getThumbnail(dir_ + "/gone.jpg", thumb, THUMBNAIL_SMALL, "", 0));
    // A camera raw header may place its EXIF block 4 GiB in: once, every
    // byte up to there was read (regression).
    std::string raw = "FUJIFILM" + std::string(92, '\0');
    raw.replace(84, 4, "\xFF\xFF\xFF\xF0");
    writeAll(dir_ + "/raw.jpg", raw);
    ASSERT_EQ(0, truncate((dir_ + "/raw.jpg").c_str(), 0xFFFFFFF0LL + 4096));
    const long long before = bytesRead();
    EXPECT_EQ(-1, util_.getThumbnail(dir_ + "/raw.jpg", thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_LT(bytesRead() - before, 8 << 20);

    const std::string source = photo("a.jpg", 64, 48, false, 1);
    const std::string climbing = dir_ + "/../../../../../../../../../../../.." + source;
    EXPECT_EQ(-1, util_.getThumbnail(climbing, thumb, THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ("", util_.generateThumbPath("photos/a.png", THUMBNAIL_SMALL, ""));
    for (const std::string& hash :
         {std::string("a"), std::string("../../../x"), std::string("....x")}) {
        EXPECT_EQ(-1, util_.getThumbnail(source, thumb, THUMBNAIL_MIDDLE, hash, 0));
        EXPECT_EQ("", util_.getMiddleIconsHashPath(hash));
    }

    ASSERT_EQ(0, shell("cd '" + dir_ + "' && mkfifo pipe.jpg pipe.png && mkdir folder.gif"));
    for (const char* name : {"/pipe.jpg", "/pipe.png", "/folder.gif"}) {
        const std::string odd = dir_ + name;
        thumb = "untouched";
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, THUMBNAIL_MIDDLE, "1234", 0));
        EXPECT_EQ("", thumb);
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, THUMBNAIL_SMALL, "", 0));
    }
    EXPECT_EQ(-1, util_.rotateImage(dir_ + "/pipe.jpg", 90));
    writeAll(dir_ + "/empty.jpg", "an older thumbnail");
    EXPECT_EQ(-1, util_.save_to_jpeg_file(nullptr, 0, dir_ + "/empty.jpg", 0));
    EXPECT_FALSE(exists(dir_ + "/empty.jpg"));
    const unsigned char* x = reinterpret_cast<const unsigned char*>("x");
    EXPECT_EQ(-1, util_.save_to_jpeg_file(x, 1, dir_ + "/no/such/dir/x.jpg", 0));
}

// resizePng reads the header through libpng first; resizeGif samples every
// frame. Both refuse sources beyond their limits and write nothing then.
TEST_F(ImageUtilThumbnailTest, PngAndGifResizeWithinTheirLimits) {
    SKIP_WHERE_MAGICK_HAS_NO_CODERS();
    const std::string still = photo("p.png", 300, 200, false, 0), anim = dir_ + "/anim.gif";
    ASSERT_TRUE(makeImage("-size 120x80 xc:red xc:blue xc:green -set delay 10", anim));
    int width = 0, height = 0;
    std::string thumb;
    const auto made = [&]() {
        return std::to_string(width) + "x" + std::to_string(height) + " " + look(thumb);
    };
    EXPECT_EQ(0, util_.resizePng(still, 100, &width, &height, thumb));
    EXPECT_EQ("300x200 100x66 RBRB", made());
    EXPECT_EQ(0, util_.resizeGif(anim, 60, &width, &height, thumb));
    EXPECT_EQ(smallRoot_ + anim, thumb);
    EXPECT_EQ("120x80 60x40 60x40 60x40 RRRR", made());

    const std::string pngSide = std::to_string(ImageUtil::kMaxPngSide + 1);
    const std::string gifSide = std::to_string(ImageUtil::kMagickMaxSide + 1);
    ASSERT_TRUE(makeImage("-size " + pngSide + "x10 xc:red", dir_ + "/wide.png"));
    ASSERT_TRUE(makeImage("-size " + gifSide + "x1 xc:red", dir_ + "/wide.gif"));
    ASSERT_TRUE(makeImage("-size 8x8 xc:red", dir_ + "/one.gif"));
    writeAll(dir_ + "/many.gif",
             repeatedGif(slurp(dir_ + "/one.gif"), ImageUtil::kMagickMaxFrames + 1));
    writeAll(dir_ + "/cut.png", slurp(still).substr(0, 20));
    writeAll(dir_ + "/gif.png", "GIF89a not a png");
    typedef int (ImageUtil::*Resize)(const std::string&, int, int*, int*, std::string&);
    const Resize png = &ImageUtil::resizePng, gif = &ImageUtil::resizeGif;
    const std::pair<Resize, std::string> refused[] = {{png, "wide.png"}, {png, "cut.png"},
                                                      {png, "gif.png"},  {png, "none.png"},
                                                      {gif, "many.gif"}, {gif, "wide.gif"}};
    for (const auto& c : refused) {
        SCOPED_TRACE(c.second);
        EXPECT_EQ(-1, (util_.*c.first)(dir_ + "/" + c.second, 4, &width, &height, thumb));
        EXPECT_FALSE(exists(smallRoot_ + dir_ + "/" + c.second));
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
    // Saved in pieces of the chunk size, exactly one of them.
    const std::string block(ImageUtil::kChunkSize, 'x');
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(block.data());
    int width = 0, height = 0;
    std::string thumb;
    const std::pair<std::string, std::function<bool(const std::string&)>> routes[] = {
        {"jpeg",
         [&](const std::string& to) {
             return util_.save_to_jpeg_file(bytes, block.size(), to, 1) == 0 && slurp(to) == block;
         }},
        {"copy", [&](const std::string& to) { return File::sCopy(png, to).ok(); }},
        {"convert",
         [&](const std::string& to) {
             return ImageUtils().resizeImage(png, to, 40, 30) == ImageUtils::kResizeDone;
         }},
        {"magick",
         [&](const std::string& to) {
             return util_.resizePng(png, 100, &width, &height, thumb) == 0 && thumb == to;
         }},
    };
    const std::pair<std::string, std::string> plants[] = {{"link", "ln -s '" + outside + "'"},
                                                          {"dangling", "ln -s '" + nowhere + "'"},
                                                          {"fifo", "mkfifo"}};
    for (const auto& route : routes) {
        for (const auto& plant : plants) {
            SCOPED_TRACE(route.first + " onto a " + plant.first);
            const std::string target =
                route.first == "magick" ? smallRoot_ + png : dir_ + "/" + route.first + ".png";
            ASSERT_EQ(0, shell("mkdir -p \"$(dirname '" + target + "')\" && rm -f '" + target +
                               "' && " + plant.second + " '" + target + "'"));
            EXPECT_TRUE(route.second(target));
            EXPECT_EQ(0, shell("test -f '" + target + "' && test ! -L '" + target + "'"));
            EXPECT_EQ("outside", slurp(outside));
            EXPECT_FALSE(exists(nowhere));
        }
    }
    // A folder of the tree that is a link leads nowhere.
    const std::string elsewhere = root() + "/elsewhere";
    ASSERT_EQ(0, shell("mkdir -p '" + elsewhere + "' '" + middleRoot_ + "' && ln -s '" + elsewhere +
                       "' '" + middleRoot_ + "/ab'"));
    EXPECT_EQ("", util_.generateThumbPath(png, THUMBNAIL_MIDDLE, "abcdef"));
    // And so does the tree's root, which lies in the data folder too.
    const std::string tree = smallRoot_.substr(0, smallRoot_.rfind('/'));
    ASSERT_EQ(0, shell("rm -rf '" + tree + "' && ln -s '" + elsewhere + "' '" + tree + "'"));
    EXPECT_EQ("", util_.generateThumbPath(png, THUMBNAIL_SMALL, ""));
    EXPECT_EQ(0, shell("test -z \"$(ls -A '" + elsewhere + "')\""));
}

// A disk user who swaps a folder of the tree for a link once the thumbnail's
// path is made: every write route walks the folder again as it writes, and
// writes, rewrites or removes nothing where the link leads (each did). Run
// under qemu-user too, where only the rotation's row proves nothing (it
// finds no coders).
TEST_F(ImageUtilThumbnailTest, AFolderSwappedForALinkLeadsNoWriteElsewhereRegression) {
    const std::string elsewhere = root() + "/elsewhere";
    const std::string data = ConfigInfo::sGetInstance()->getUserdiskDataPath();
    const std::string jpeg = photo("small.jpg", 64, 48, false, 0);
    const std::string png = photo("small.png", 300, 200, false, 0);
    const std::string other = photo("other.jpg", 80, 60, false, 0);
    ASSERT_EQ(0, shell("mkdir -p '" + elsewhere + "' '" + data + "' && ln -s '" + elsewhere +
                       "' '" + data + "/swapped'"));
    const std::string before = slurp(other);
    const std::string target = data + "/swapped/x.jpg";
    const std::string block(ImageUtil::kChunkSize, 'x');
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(block.data());
    const std::pair<std::string, std::function<bool()>> routes[] = {
        {"jpeg", [&] { return util_.save_to_jpeg_file(bytes, block.size(), target, 0) == -1; }},
        {"empty jpeg", [&] { return util_.save_to_jpeg_file(bytes, 0, target, 0) == -1; }},
        {"rotate", [&] { return util_.rotateImage(target, 90) == -1; }},
        {"copy", [&] { return resize(util_, jpeg, target) == "-1 64x48 64x48"; }},
        {"convert",
         [&] {
             return ImageUtils().resizeImage(png, target, 40, 30) == ImageUtils::kResizeFailed;
         }},
    };
    for (const auto& route : routes) {
        writeAll(elsewhere + "/x.jpg", before);
        EXPECT_TRUE(route.second()) << route.first;
        EXPECT_EQ("x.jpg\n", capture("ls -A '" + elsewhere + "'")) << route.first;
        EXPECT_TRUE(slurp(elsewhere + "/x.jpg") == before) << route.first;
    }
}
