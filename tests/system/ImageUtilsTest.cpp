#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "multimedia/ImageTestImages.h"
#include "support/DeviceRootTest.h"
#include "system/ImageUtils.h"

using talvern::ImageUtils;
using namespace quorvia_test;

namespace {

class ImageUtilsTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dir_ = root() + "/pictures";
        ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
    }

    virtual void TearDown() {
        chdir("/");
        DeviceRootTest::TearDown();
    }

    // Puts stand-ins for identify and convert first on PATH: identify prints
    // the file identify.out, convert records its arguments one per line in
    // convert.args and exits with 0.
    void useFakeTools() {
        fakeDir_ = root() + "/fake-tools";
        ASSERT_EQ(0, mkdir(fakeDir_.c_str(), 0755));
        writeScript("identify", "cat '" + fakeDir_ + "/identify.out'\n");
        writeScript("convert", "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > '" + fakeDir_ +
                                   "/convert.args'\n");
        const std::string path = fakeDir_ + ":" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
    }

    void writeScript(const std::string& name, const std::string& body) {
        const std::string path = fakeDir_ + "/" + name;
        writeAll(path, "#!/bin/sh\n" + body);
        ASSERT_EQ(0, chmod(path.c_str(), 0755));
    }

    std::string dir_;
    std::string fakeDir_;
    ImageUtils utils_;
};

}  // namespace

TEST(ImageUtilsQuoting, EscapesWhatCouldEndTheQuotes) {
    const struct { const char* path; const char* quoted; } cases[] = {
        {"/a/b c.png", "\"/a/b c.png\""},         {"/a/\"x\".png", "\"/a/\\\"x\\\".png\""},
        {"/a/$(reboot).png", "\"/a/\\$(reboot).png\""}, {"/a/`id`.png", "\"/a/\\`id\\`.png\""},
        {"/a/back\\slash.png", "\"/a/back\\\\slash.png\""},
        {"/a/it's;&|<>*.png", "\"/a/it's;&|<>*.png\""}, {"", "\"\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.quoted, ImageUtils::sQuoteForShell(c.path)) << c.path;
    }
}

TEST_F(ImageUtilsTest, ResizesUpToTheSideLimitAndRefusesBeyond) {
    const std::string square = dir_ + "/square.png";
    ASSERT_TRUE(makeImage("-size 2000x2000 xc:red", square));
    const std::string thumb = dir_ + "/square-thumb.png";
    EXPECT_EQ(ImageUtils::kResizeDone, utils_.resizeImage(square, thumb, 400, 300));
    EXPECT_EQ("300x300", geometryOf(thumb));
    EXPECT_EQ(1, log_.count("resize image command is: convert -define jpeg:size=80x80 \"" + square +
                            "\" -thumbnail 400x300 \"" + thumb + "\""));

    for (const std::string& size : {std::string("2001x10"), std::string("10x2001")}) {
        const std::string wide = dir_ + "/wide.png";
        ASSERT_TRUE(makeImage("-size " + size + " xc:blue", wide));
        log_.clear();
        EXPECT_EQ(ImageUtils::kResizeRefused, utils_.resizeImage(wide, dir_ + "/w.png", 400, 300));
        EXPECT_EQ(1, log_.count("resize image exceed limitation."));
        EXPECT_FALSE(log_.contains("resize image command is:"));
        EXPECT_FALSE(exists(dir_ + "/w.png"));
    }
}

TEST_F(ImageUtilsTest, HostileNamesStayInsideTheirQuotesAndCannotPassAsOptions) {
    // A command that broke out would leave this file in the working directory.
    ASSERT_EQ(0, chdir(dir_.c_str()));
    for (const std::string& name : {std::string("blank \"quote\" $(touch ran) `touch ran` $HOME "
                                                "back\\slash.png"),
                                    std::string("new\nline 照片 ünïcode.png")}) {
        const std::string source = dir_ + "/" + name;
        ASSERT_TRUE(makeImage("-size 800x600 xc:green", source)) << name;
        const std::string target = dir_ + "/thumb-" + name;
        EXPECT_EQ(ImageUtils::kResizeDone, utils_.resizeImage(source, target, 400, 300)) << name;
        EXPECT_EQ("400x300", geometryOf(target)) << name;
    }
    EXPECT_FALSE(exists(dir_ + "/ran"));

    ASSERT_TRUE(makeImage("-size 800x600 xc:green", dir_ + "/-x.png"));
    EXPECT_EQ(ImageUtils::kResizeDone, utils_.resizeImage("-x.png", "-y.png", 400, 300));
    EXPECT_EQ("400x300", geometryOf(dir_ + "/-y.png"));
}

TEST_F(ImageUtilsTest, UnreadableSourcesFailWithoutRunningTools) {
    const std::string fifo = dir_ + "/pipe.png";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    const std::string text = dir_ + "/text.png";
    writeAll(text, "no picture");
    for (const std::string& source : {fifo, dir_, dir_ + "/missing.png"}) {
        log_.clear();
        EXPECT_EQ(ImageUtils::kResizeFailed, utils_.resizeImage(source, dir_ + "/t.png", 400, 300));
        EXPECT_EQ(1, log_.count("resize image, " + source + " is not a readable regular file"));
    }
    // identify runs but prints nothing for a file it can't read.
    log_.clear();
    EXPECT_EQ(ImageUtils::kResizeFailed, utils_.resizeImage(text, dir_ + "/t.png", 400, 300));
    EXPECT_EQ(1, log_.count("the content is "));
    EXPECT_FALSE(exists(dir_ + "/t.png"));
}

TEST_F(ImageUtilsTest, IdentifyOutputIsReadStrictly) {
    useFakeTools();
    const std::string source = dir_ + "/a b.png";
    writeAll(source, "content is not looked at by the stand-in");
    const std::string fault = "image attributes fault";
    const struct Case { std::string output; int result; std::string line; } cases[] = {
        {"", ImageUtils::kResizeFailed, "the content is "},
        {"/elsewhere/x.png PNG 10x10", ImageUtils::kResizeFailed,
         "image attributes missing, the content is: /elsewhere/x.png PNG 10x10"},
        {source + " PNG", ImageUtils::kResizeFailed,
         "image attributes missing, the content is: PNG"},
        {source + " PNG 640", ImageUtils::kResizeFailed, fault + ". geometry is 640"},
        {source + " PNG 640x480x3", ImageUtils::kResizeFailed, fault + ". geometry is 640x480x3"},
        {source + " PNG 640x", ImageUtils::kResizeFailed, fault + ", invalid size."},
        {source + " PNG 64ax480", ImageUtils::kResizeFailed, fault + ", invalid size."},
        {source + " PNG 2001x480 480x480+0+0 8-bit", ImageUtils::kResizeRefused,
         "resize image exceed limitation."},
        {source + " PNG 2000x2000 2000x2000+0+0 8-bit sRGB", ImageUtils::kResizeDone,
         "the content change toPNG 2000x2000 2000x2000+0+0 8-bit sRGB"},
    };
    for (const Case& c : cases) {
        writeAll(fakeDir_ + "/identify.out", c.output + "\n");
        log_.clear();
        EXPECT_EQ(c.result, utils_.resizeImage(source, dir_ + "/t.jpg", 400, 300)) << c.output;
        EXPECT_EQ(1, log_.count(c.line)) << c.output;
    }
    EXPECT_EQ("-define\njpeg:size=80x80\n" + source + "\n-thumbnail\n400x300\n" + dir_ +
                  "/t.jpg\n",
              readAll(fakeDir_ + "/convert.args"));
}
