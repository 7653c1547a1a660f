#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "multimedia/ImageTestImages.h"
#include "system/ImageUtils.h"

using talvern::ImageUtils;
using namespace quorvia_test;

using ImageUtilsTest = DeviceRootTest;

TEST_F(ImageUtilsTest, ResizesThroughTheToolsWhateverTheName) {
    // A command that broke out would leave the file "ran" in the working directory.
    ASSERT_EQ(0, chdir(root().c_str()));
    const std::string hostile =
        "blank \"quote\" $(touch ran) `touch ran` $HOME back\\slash\n照片.png";
    for (const std::string& name : {std::string("square.png"), hostile, std::string("-x.png")}) {
        ASSERT_TRUE(makeImage("-size 2000x2000 xc:red", root() + "/" + name)) << name;
        EXPECT_EQ(ImageUtils::kResizeDone,
                  ImageUtils().resizeImage(name, name + ".t.png", 400, 300));
        EXPECT_EQ("300x300", geometryOf(root() + "/" + name + ".t.png")) << name;
    }
    EXPECT_FALSE(exists(root() + "/ran"));
    // convert writes a new file beside the target, which then takes its place.
    EXPECT_TRUE(
        log_.contains("resize image command is: convert -define jpeg:size=80x80 "
                      "\"./square.png\" -thumbnail 400x300 \"png:./.square.png.t.png."));
    // A target takes the format of its extension.
    EXPECT_EQ(ImageUtils::kResizeDone, ImageUtils().resizeImage("-x.png", "small.jpg", 400, 300));
    EXPECT_EQ(0u, readFile("/small.jpg").find("\xFF\xD8\xFF"));
}

// Stand-ins for identify and convert first on PATH: identify prints the file
// identify.out, convert does nothing. A source that isn't a readable regular
// file never reaches them.
TEST_F(ImageUtilsTest, UnreadableSourcesAndOddIdentifyOutputFailAndTheSideLimitHolds) {
    const std::string tools = root() + "/fake-tools";
    ASSERT_EQ(0, mkdir(tools.c_str(), 0755));
    writeAll(tools + "/identify", "#!/bin/sh\ncat '" + tools + "/identify.out'\n");
    writeAll(tools + "/convert", "#!/bin/sh\n");
    ASSERT_EQ(0, shell("chmod 755 '" + tools + "'/* && mkfifo '" + root() + "/pipe.png'"));
    setenv("PATH", (tools + ":" + getenv("PATH")).c_str(), 1);
    for (const std::string& unreadable : {root() + "/pipe.png", root(), root() + "/missing.png"}) {
        EXPECT_EQ(ImageUtils::kResizeFailed,
                  ImageUtils().resizeImage(unreadable, root() + "/t.png", 400, 300));
        EXPECT_EQ(1, log_.count("resize image, " + unreadable + " is not a readable regular file"));
    }
    const std::string source = root() + "/a b.png";
    writeAll(source, "content is not looked at by the stand-in");
    const std::string fault = "image attributes fault";
    const int failed = ImageUtils::kResizeFailed;
    const std::string side = std::to_string(ImageUtils::kMaxSide);
    const std::string beyond = std::to_string(ImageUtils::kMaxSide + 1);
    const struct Case {
        std::string output;
        int result;
        std::string line;
    } cases[] = {
        {"", failed, "the content is "},
        {"/elsewhere/x.png PNG 10x10", failed,
         "image attributes missing, the content is: /elsewhere/x.png PNG 10x10"},
        {source + " PNG 640x480x3", failed, fault + ". geometry is 640x480x3"},
        {source + " PNG 64ax480", failed, fault + ", invalid size."},
        {source + " PNG 10x" + beyond + " 480x480+0+0 8-bit", ImageUtils::kResizeRefused,
         "resize image exceed limitation."},
        {source + " PNG " + beyond + "x10 480x480+0+0 8-bit", ImageUtils::kResizeRefused,
         "resize image exceed limitation."},
        {source + " PNG " + side + "x" + side + " 8-bit sRGB", ImageUtils::kResizeDone,
         "the content change toPNG " + side + "x" + side + " 8-bit sRGB"},
        // An image of several frames is listed frame by frame; its geometry
        // was once read from the wrong field and it never got a thumbnail.
        {source + "[0] GIF 120x80 120x80+0+0 8-bit\n" + source + "[1] GIF 120x80",
         ImageUtils::kResizeDone,
         "the content change toGIF 120x80 120x80+0+0 8-bit\n" + source + "[1] GIF 120x80"},
    };
    for (const Case& c : cases) {
        writeAll(tools + "/identify.out", c.output + "\n");
        log_.clear();
        EXPECT_EQ(c.result, ImageUtils().resizeImage(source, root() + "/t.jpg", 400, 300))
            << c.output;
        EXPECT_EQ(1, log_.count(c.line)) << c.output;
    }
}
