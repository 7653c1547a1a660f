#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "multimedia/ImageTestImages.h"
#include "system/ImageUtils.h"

using talvern::ImageUtils;
using namespace quorvia_test;

using ImageUtilsTest = DeviceRootTest;

// Names the shell or ImageMagick would read as syntax: a command that broke
// out would leave the file "ran" in the working directory, and ImageMagick
// once took "[1]" for a frame, "*" for a pattern (reading other files) and
// "%d" for a counter (writing an empty thumbnail and a stray file).
TEST_F(ImageUtilsTest, ResizesThroughTheToolsWhateverTheName) {
    ASSERT_EQ(0, chdir(root().c_str()));
    const std::string hostile =
        "blank \"quote\" $(touch ran) `touch ran` $HOME back\\slash\n照片.png";
    for (const std::string& name : {std::string("square.png"), hostile, std::string("-x.png"),
                                    std::string("x[1] %d*?.png")}) {
        ASSERT_TRUE(makeImage("-size 2000x2000 xc:red", root() + "/made.png"));
        ASSERT_EQ(0, rename("made.png", name.c_str()));
        EXPECT_EQ(ImageUtils::kResizeDone,
                  ImageUtils().resizeImage(name, name + ".t.png", 400, 300));
        EXPECT_EQ("300x300", geometryOf(root() + "/" + name + ".t.png")) << name;
    }
    EXPECT_EQ("", capture("ls -A | grep -e '^ran$' -e '^\\.'")) << "a stray file";
    // A target of another extension takes its format and the first frame;
    // one of the source's own keeps the format, known by name or not.
    ASSERT_TRUE(makeImage("-size 600x400 xc:red xc:blue -set delay 10", root() + "/anim.gif"));
    EXPECT_EQ(ImageUtils::kResizeDone, ImageUtils().resizeImage("anim.gif", "small.jpg", 400, 300));
    EXPECT_EQ("400x267", geometryOf(root() + "/small.jpg"));
    EXPECT_EQ(0u, readFile("/small.jpg").find("\xFF\xD8\xFF"));
    ASSERT_EQ(0, rename("small.jpg", "photo.jfif"));
    EXPECT_EQ(ImageUtils::kResizeDone, ImageUtils().resizeImage("photo.jfif", "t.jfif", 40, 30));
    EXPECT_EQ(0u, readFile("/t.jfif").find("\xFF\xD8\xFF"));
    // A format known by its name alone was refused (regression); a name
    // picks no other coder, such as one that reads the files a script names.
    ASSERT_TRUE(makeImage("-size 800x600 xc:red", root() + "/photo.tga"));
    log_.clear();
    EXPECT_EQ(ImageUtils::kResizeDone, ImageUtils().resizeImage("photo.tga", "t.jpg", 400, 300));
    EXPECT_EQ("400x300", geometryOf(root() + "/t.jpg"));
    // identify, asked twice here, logs as a command whose output is read:
    // its exit code is not judged.
    EXPECT_EQ(1, log_.count("excuete cmd: identify /dev/stdin[0] < \"photo.tga\""));
    EXPECT_FALSE(log_.contains("fail,and return code"));
    writeAll(root() + "/script.mvg", "\nviewbox 0 0 400 300 image over 0,0 0,0 'photo.tga'\n");
    EXPECT_EQ(ImageUtils::kResizeFailed, ImageUtils().resizeImage("script.mvg", "s.jpg", 40, 30));
}

namespace {

// A GIF of frames copies of the frame of the one-frame GIF one: its frame
// block (behind the header and the global colour table) repeated.
std::string repeatFrames(const std::string& one, int frames) {
    const unsigned char flags = one[10];
    const std::size_t header = 13 + ((flags & 0x80) != 0 ? 3u << ((flags & 7) + 1) : 0);
    const std::string frame = one.substr(header, one.size() - 1 - header);
    std::string gif = one.substr(0, header);
    for (int i = 0; i < frames; ++i) {
        gif += frame;
    }
    return gif + ';';
}

}  // namespace

// Small sources whose frames cost the tools much. identify held every frame:
// 100,000 tiny ones in 800 KB took 2.3 GB; only the first frame is looked at
// now. convert held every frame of an animated GIF, ten of 2000x2000 in
// 38 KB, in 427 MB and 160 MB of /tmp; beyond its budget it now makes a
// thumbnail of the first frame.
TEST_F(ImageUtilsTest, ManyFramesCostTheToolsLittleRegression) {
    std::string frames;
    for (int i = 0; i < 100000; ++i) {
        frames += std::string("P4\n1 1\n") + '\0';
    }
    writeAll(root() + "/tiny.pbm", frames);
    EXPECT_EQ(ImageUtils::kResizeDone,
              ImageUtils().resizeImage(root() + "/tiny.pbm", root() + "/t.png", 40, 30));
    ASSERT_TRUE(makeImage("-size 2000x2000 xc:red", root() + "/one.gif"));
    writeAll(root() + "/anim.gif", repeatFrames(readFile("/one.gif"), 10));
    EXPECT_EQ(ImageUtils::kResizeDone,
              ImageUtils().resizeImage(root() + "/anim.gif", root() + "/t.gif", 400, 300));
    EXPECT_EQ("300x300", geometryOf(root() + "/t.gif"));
    struct rusage tools;
    ASSERT_EQ(0, getrusage(RUSAGE_CHILDREN, &tools));
    EXPECT_LT(tools.ru_maxrss, 200 * 1024) << "KiB";
}

// Stand-ins for identify and convert first on PATH: identify prints the file
// identify.out, convert does nothing. A source that isn't a readable regular
// file never reaches them.
TEST_F(ImageUtilsTest, UnreadableSourcesAndOddIdentifyOutputFailAndTheSideLimitHolds) {
    const std::string tools = root() + "/fake-tools";
    ASSERT_EQ(0, mkdir(tools.c_str(), 0755));
    writeAll(tools + "/identify", "#!/bin/sh\ncat '" + tools + "/identify.out'\n");
    writeAll(tools + "/convert", "#!/bin/sh\necho resized\n");
    ASSERT_EQ(0, shell("chmod 755 '" + tools + "'/* && mkfifo '" + root() + "/pipe.png'"));
    setenv("PATH", (tools + ":" + getenv("PATH")).c_str(), 1);
    for (const std::string& unreadable : {root() + "/pipe.png", root(), root() + "/missing.png"}) {
        EXPECT_EQ(ImageUtils::kResizeFailed,
                  ImageUtils().resizeImage(unreadable, root() + "/t.png", 400, 300));
        EXPECT_EQ(1, log_.count("resize image, " + unreadable + " is not a readable regular file"));
    }
    const std::string source = root() + "/a b.png";
    writeAll(source, "content is not looked at by the stand-in");
    // The tools read the source as their standard input.
    const std::string piped = "/dev/stdin";
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
        {piped + " PNG 640x480x3", failed, fault + ". geometry is 640x480x3"},
        {piped + " PNG 64ax480", failed, fault + ", invalid size."},
        {piped + " PNG 10x" + beyond + " 480x480+0+0 8-bit", ImageUtils::kResizeRefused,
         "resize image exceed limitation."},
        {piped + " PNG " + beyond + "x10 480x480+0+0 8-bit", ImageUtils::kResizeRefused,
         "resize image exceed limitation."},
        {piped + " PNG " + side + "x" + side + " 8-bit sRGB", ImageUtils::kResizeDone,
         "the content change toPNG " + side + "x" + side + " 8-bit sRGB"},
        // An image of several frames is listed frame by frame; its geometry
        // was once read from the wrong field and it never got a thumbnail.
        {piped + "[0] GIF 120x80 120x80+0+0 8-bit\n" + piped + "[1] GIF 120x80",
         ImageUtils::kResizeDone,
         "the content change toGIF 120x80 120x80+0+0 8-bit\n" + piped + "[1] GIF 120x80"},
    };
    for (const Case& c : cases) {
        writeAll(tools + "/identify.out", c.output + "\n");
        log_.clear();
        EXPECT_EQ(c.result, ImageUtils().resizeImage(source, root() + "/t.jpg", 400, 300))
            << c.output;
        EXPECT_EQ(1, log_.count(c.line)) << c.output;
    }
    // A source swapped once checked, for a link to a file outside or for a
    // FIFO, reaches neither tool: convert made a thumbnail of the link's
    // file, or waited on the FIFO for ever (regression).
    alarm(30);
    writeAll(tools + "/convert", "#!/bin/sh\ncat\n");
    writeAll(tools + "/identify.out", piped + " PNG 10x10\n");
    writeAll(root() + "/secret", "secret");
    for (const std::string& swap : {"ln -s '" + root() + "/secret'", std::string("mkfifo")}) {
        writeAll(source, "picture");
        writeAll(tools + "/identify", "#!/bin/sh\ncat '" + tools + "/identify.out'\nrm '" + source +
                                          "' && " + swap + " '" + source + "'\n");
        EXPECT_EQ(ImageUtils::kResizeDone,
                  ImageUtils().resizeImage(source, root() + "/t.jpg", 400, 300))
            << swap;
        EXPECT_EQ("picture", readFile("/t.jpg")) << swap;
    }
    alarm(0);
}
