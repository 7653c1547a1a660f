#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "multimedia/ImageTestImages.h"
#include "multimedia/ImageUtil.h"
#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

using talvern::ConfigInfo;
using talvern::ImageUtil;
using namespace quorvia_test;

namespace {

class ImageUtilThumbnailTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dir_ = root() + "/photos";
        ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
        smallRoot_ = ConfigInfo::sGetInstance()->getSmallIconsRootPath();
        middleRoot_ = ConfigInfo::sGetInstance()->getMiddleIconsRootPath();
    }

    ImageUtil util_;
    std::string dir_;
    std::string smallRoot_;
    std::string middleRoot_;
};

}  // namespace

TEST_F(ImageUtilThumbnailTest, ExifThumbnailsAreWrittenUpright) {
    struct Case {
        int orientation;
        int degrees;
        const char* geometry;
        const char* quarters;
    } const cases[] = {{1, 0, "160x120", "RBRB"},
                       {3, 180, "160x120", "BRBR"},
                       {6, 90, "120x160", "RRBB"},
                       {8, 270, "120x160", "BBRR"}};
    for (const Case& c : cases) {
        const std::string source = dir_ + "/o" + std::to_string(c.orientation) + ".jpg";
        ASSERT_TRUE(makeRedBlue(source, 640, 480, false));
        ASSERT_TRUE(addExifThumbnail(source, c.orientation, dir_));
        std::string thumb;
        EXPECT_EQ(0, util_.getThumbnail(source, thumb, talvern::THUMBNAIL_SMALL, "", 0));
        EXPECT_EQ(smallRoot_ + source, thumb);
        EXPECT_EQ(c.geometry, geometryOf(thumb)) << c.orientation;
        EXPECT_EQ(c.quarters, quarters(thumb)) << c.orientation;
        EXPECT_EQ(1, log_.count("get " + source + " orientation is " +
                                std::to_string(c.degrees)));
    }
}


TEST_F(ImageUtilThumbnailTest, DamagedExifBlocksNeverCrash) {
    const std::string source = dir_ + "/exif.jpg";
    ASSERT_TRUE(makeRedBlue(source, 64, 48, false));
    ASSERT_TRUE(addExifThumbnail(source, 6, dir_));
    const std::string bytes = readAll(source);
    const size_t app1 = bytes.find("Exif");
    ASSERT_NE(std::string::npos, app1);
    const std::string damaged = dir_ + "/damaged.jpg";
    // Counts, offsets and types across the TIFF header and first IFDs set to
    // absurd values, and the block cut short.
    int usable = 0;
    for (size_t at = app1 + 6; at < app1 + 200 && at < bytes.size(); at += 3) {
        for (const char value : {'\xFF', '\x00', '\x7F'}) {
            std::string variant(bytes);
            variant[at] = value;
            variant[at + 1] = value;
            writeAll(damaged, variant);
            std::string thumb;
            usable += util_.getThumbnail(damaged, thumb, talvern::THUMBNAIL_SMALL, "", 0) == 0;
        }
    }
    writeAll(damaged, bytes.substr(0, app1 + 40));
    std::string thumb;
    EXPECT_EQ(-1, util_.getThumbnail(damaged, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_GT(usable, 0);
}

TEST_F(ImageUtilThumbnailTest, MiddleTierCopiesUpToTheSizeLimitResizesAboveAndIsSharedByHash) {
    const std::string atLimit = dir_ + "/at-limit.jpg";
    ASSERT_TRUE(makeRedBlue(atLimit, 1600, 1200, false));
    // Padded behind its end to exactly the limit.
    std::string padded = readAll(atLimit);
    ASSERT_LE(padded.size(), ImageUtil::kCopyWithoutResizeSize);
    padded.resize(ImageUtil::kCopyWithoutResizeSize, '\0');
    writeAll(atLimit, padded);
    std::string thumb;
    EXPECT_EQ(0, util_.getThumbnail(atLimit, thumb, talvern::THUMBNAIL_MIDDLE, "abcdef01", 0));
    EXPECT_EQ(middleRoot_ + "/ab/cd/abcdef01.jpg", thumb);
    EXPECT_EQ(readAll(atLimit), readAll(thumb));
    EXPECT_EQ(1, log_.count(atLimit + " too small, no need to resize"));
    // Another file of the same content finds the thumbnail and reads nothing.
    unlink(atLimit.c_str());
    EXPECT_EQ(
        0, util_.getThumbnail(dir_ + "/copy.jpg", thumb, talvern::THUMBNAIL_MIDDLE, "abcdef01", 0));
    EXPECT_EQ(1, log_.count(thumb + " has resized middle thumbnail, no need to resize again"));

    const std::string above = dir_ + "/above.jpg";
    ASSERT_TRUE(makeRedBlue(above, 1600, 1200, true));
    ASSERT_TRUE(addExifThumbnail(above, 6, dir_));
    ASSERT_GT(readAll(above).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(0, util_.getThumbnail(above, thumb, talvern::THUMBNAIL_MIDDLE, "1234", 0));
    EXPECT_EQ(middleRoot_ + "/12/34/1234.jpg", thumb);
    EXPECT_EQ("600x800", geometryOf(thumb));
    EXPECT_EQ("RRBB", quarters(thumb));
    EXPECT_EQ(1, log_.count(above + " try use resize algorithm"));

    // Large in bytes but needing no scaling: a copy, and still -1.
    const std::string hd = dir_ + "/hd.jpg";
    ASSERT_TRUE(makeRedBlue(hd, 1280, 720, true));
    ASSERT_GT(readAll(hd).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(-1, util_.getThumbnail(hd, thumb, talvern::THUMBNAIL_MIDDLE, "beef02", 0));
    EXPECT_EQ(readAll(hd), readAll(thumb));
    EXPECT_EQ(-1, util_.getThumbnail(hd, thumb, static_cast<talvern::ThumbnailSize>(2), "x", 0));
}

TEST_F(ImageUtilThumbnailTest, OtherFormatsGoToTheCommandLineResize) {
    std::string thumb = "untouched";
    EXPECT_EQ(0, util_.getThumbnail(dir_ + "/raw.NEF", thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ("untouched", thumb);
    EXPECT_EQ(1, log_.count("no need to generate thumbnail for camera raw image"));

    const std::string png = dir_ + "/big.png";
    ASSERT_TRUE(makeRedBlue(png, 600, 450, true, "-depth 8"));
    ASSERT_GT(readAll(png).size(), ImageUtil::kCopyWithoutResizeSize);
    EXPECT_EQ(0, util_.getThumbnail(png, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(smallRoot_ + png, thumb);
    EXPECT_EQ("400x300", geometryOf(thumb));
    EXPECT_EQ(1, log_.count("generate thumb for not jpg file."));

    const std::string tiny = dir_ + "/tiny.gif";
    ASSERT_TRUE(makeRedBlue(tiny, 40, 30, false));
    EXPECT_EQ(0, util_.getThumbnail(tiny, thumb, talvern::THUMBNAIL_MIDDLE, "0a0b0c", 0));
    EXPECT_EQ(readAll(tiny), readAll(thumb));

    const std::string wide = dir_ + "/wide.png";
    ASSERT_TRUE(makeRedBlue(wide, 2002, 300, true, "-depth 8"));
    EXPECT_EQ(-1, util_.getThumbnail(wide, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ("", thumb);
    EXPECT_FALSE(exists(smallRoot_ + wide));
}

// No EXIF thumbnail, no file, no regular file, a path or hash that would
// leave the thumbnail tree: each fails with its reason and writes nothing.
TEST_F(ImageUtilThumbnailTest, RequestsThatCannotSucceedFailAndWriteNothing) {
    const std::string plain = dir_ + "/plain.jpg";
    ASSERT_TRUE(makeRedBlue(plain, 64, 48, false));
    std::string thumb;
    EXPECT_EQ(-1, util_.getThumbnail(plain, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1, log_.count("get thumbnail from exif, there is no thumbnail in exif " + plain));
    EXPECT_FALSE(exists(smallRoot_ + plain));
    EXPECT_EQ(-1, util_.getThumbnail(dir_ + "/gone.jpg", thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1, log_.count("get thumbnail from exif, path " + dir_ + "/gone.jpg not exist"));
    int orientation = 5;
    EXPECT_EQ(-1, util_.getImageOrientation(NULL, orientation));

    const std::string source = dir_ + "/a.jpg";
    ASSERT_TRUE(makeRedBlue(source, 64, 48, false));
    ASSERT_TRUE(addExifThumbnail(source, 1, dir_));
    const std::string climbing = dir_ + "/../../../../../../../../../../../.." + source;
    EXPECT_EQ(-1, util_.getThumbnail(climbing, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    EXPECT_EQ(1, log_.count("generate thumb path, " + climbing +
                            " would leave the thumbnail tree"));
    EXPECT_EQ(-1, util_.getThumbnail("photos/a.png", thumb, talvern::THUMBNAIL_SMALL, "", 0));
    for (const std::string& hash : {std::string("a"), std::string("../../../x")}) {
        EXPECT_EQ(-1, util_.getThumbnail(source, thumb, talvern::THUMBNAIL_MIDDLE, hash, 0));
        EXPECT_EQ("", util_.getMiddleIconsHashPath(hash));
    }

    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.jpg").c_str(), 0644));
    ASSERT_EQ(0, mkfifo((dir_ + "/pipe.png").c_str(), 0644));
    ASSERT_EQ(0, mkdir((dir_ + "/folder.gif").c_str(), 0755));
    for (const char* name : {"/pipe.jpg", "/pipe.png", "/folder.gif"}) {
        const std::string odd = dir_ + name;
        thumb = "untouched";
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, talvern::THUMBNAIL_MIDDLE, "1234", 0));
        EXPECT_EQ("", thumb);
        EXPECT_EQ(1, log_.count("generate thumbnail, " + odd + " is not a readable regular file"));
        EXPECT_EQ(-1, util_.getThumbnail(odd, thumb, talvern::THUMBNAIL_SMALL, "", 0));
    }
    EXPECT_EQ(-1, util_.rotateImage(dir_ + "/pipe.jpg", 90));
}

TEST_F(ImageUtilThumbnailTest, PngResizeReadsTheHeaderFirst) {
    const std::string png = dir_ + "/p.png";
    ASSERT_TRUE(makeRedBlue(png, 300, 200, false));
    int width = 0, height = 0;
    std::string thumb;
    EXPECT_EQ(0, util_.resizePng(png, 100, &width, &height, thumb));
    EXPECT_EQ(300 * 1000 + 200, width * 1000 + height);
    EXPECT_EQ(smallRoot_ + png, thumb);
    EXPECT_EQ("100x66", geometryOf(thumb));
    EXPECT_EQ("RBRB", quarters(thumb));
    EXPECT_EQ(1, log_.count("use libpng read png " + png + " and its width=300 height=200"));

    const std::string bad = dir_ + "/bad.png", wide = dir_ + "/wide.png";
    const int side = ImageUtil::kMaxPngSide;
    ASSERT_TRUE(makeImage("-size " + std::to_string(side + 1) + "x10 xc:red", wide));
    struct Case {
        std::string path, content, line;
    } const cases[] = {
        {wide, "",
         "resize png " + wide + " too large, and width=" + std::to_string(side + 1) + " height=10"},
        {bad, readAll(png).substr(0, 20), "generate thumbnail " + bad + " exception"},
        {bad, "GIF89a not a png", bad + "is not regular png"},
        {dir_ + "/none.png", "", "failed to open " + dir_ + "/none.png, error: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        if (!c.content.empty()) {
            writeAll(c.path, c.content);
        }
        log_.clear();
        EXPECT_EQ(-1, util_.resizePng(c.path, 100, &width, &height, thumb));
        EXPECT_TRUE(log_.contains(c.line));
        EXPECT_FALSE(exists(smallRoot_ + c.path));
    }
}

TEST_F(ImageUtilThumbnailTest, GifResizeSamplesEveryFrameWithinLimits) {
    const std::string gif = dir_ + "/anim.gif";
    ASSERT_TRUE(makeImage("-size 120x80 xc:red xc:blue xc:green -set delay 10", gif));
    int width = 0, height = 0;
    std::string thumb;
    EXPECT_EQ(0, util_.resizeGif(gif, 60, &width, &height, thumb));
    EXPECT_EQ(120 * 1000 + 80, width * 1000 + height);
    EXPECT_EQ(smallRoot_ + gif, thumb);
    EXPECT_EQ("60x40", geometryOf(thumb));
    EXPECT_EQ(3, frameCount(thumb));

    const std::string one = dir_ + "/one.gif", many = dir_ + "/many.gif";
    ASSERT_TRUE(makeImage("-size 8x8 xc:red", one));
    writeAll(many, repeatedGif(readAll(one), ImageUtil::kMagickMaxFrames + 1));
    const std::string wide = dir_ + "/wide.gif";
    ASSERT_TRUE(makeImage("-size " + std::to_string(ImageUtil::kMagickMaxSide + 1) + "x1 xc:red",
                          wide));
    for (const std::string& path : {many, wide}) {
        EXPECT_EQ(-1, util_.resizeGif(path, 4, &width, &height, thumb));
        EXPECT_EQ(1, log_.count("read gif " + path + " fail"));
        EXPECT_FALSE(exists(smallRoot_ + path));
    }
}
