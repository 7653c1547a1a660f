#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>
#include <string>
#include <vector>

#include "system/CommonUtils.h"

namespace {

struct NameCase {
    const char* name;
    bool expected;
};

typedef bool (*Predicate)(const std::string&);

void expectTable(Predicate predicate, const std::vector<NameCase>& cases) {
    for (const NameCase& c : cases) {
        EXPECT_EQ(c.expected, predicate(c.name)) << c.name;
    }
}

void expectAllTrue(Predicate predicate, const std::vector<std::string>& suffixes,
                   const std::string& stem) {
    for (const std::string& suffix : suffixes) {
        EXPECT_TRUE(predicate(stem + suffix)) << stem + suffix;
    }
}

}  // namespace

TEST(CommonUtilsFileType, EveryListedSuffixCountsInAnyCaseAndAlone) {
    const std::vector<std::string> raw = {".arw", ".nef", ".cr2", ".tif", ".tiff", ".raf"};
    const std::vector<std::string> image = {".jpg", ".jpeg", ".png", ".gif", ".bmp"};
    const std::vector<std::string> audio = {".mp3", ".flac", ".wma", ".m4a", ".aac",
                                            ".wav", ".ogg",  ".ape", ".mp2", ".amr",
                                            ".wavpack", ".wv", ".m4r", ".mid", ".mmf"};
    const std::vector<std::string> video = {".mpg", ".mpeg", ".avi", ".avc", ".mod", ".asf",
                                            ".wmv", ".mp4",  ".mkv", ".qt",  ".flv", ".rm",
                                            ".xvx", ".wmvhd", ".rmvb", ".ts", ".mov", ".xv",
                                            ".3gp", ".mts",  ".m2ts"};
    const std::vector<std::string> document = {".pdf", ".ppt", ".pptx", ".xlsx", ".wps",
                                               ".doc", ".wpt", ".dps",  ".dpt",  ".et",
                                               ".ett", ".docx", ".xls"};
    for (const std::string& stem : {std::string("/userdisk/data/a b/Name"), std::string("")}) {
        expectAllTrue(CommonUtils::sIsCameraRawImage, raw, stem);
        expectAllTrue(CommonUtils::sIsImage, raw, stem);
        expectAllTrue(CommonUtils::sIsImage, image, stem);
        expectAllTrue(CommonUtils::sIsAudio, audio, stem);
        expectAllTrue(CommonUtils::sIsVideo, video, stem);
        expectAllTrue(CommonUtils::sIsDocument, document, stem);
    }
    EXPECT_TRUE(CommonUtils::sIsImage("/a/B.JPG"));
    EXPECT_TRUE(CommonUtils::sIsAudio("SONG.FLAC"));
    EXPECT_TRUE(CommonUtils::sIsVideo("Clip.M2TS"));
    EXPECT_TRUE(CommonUtils::sIsDocument("Report.DocX"));
}

TEST(CommonUtilsFileType, NearMissesAreNotClassified) {
    expectTable(CommonUtils::sIsImage, {{"/a/photo.jpg.txt", false},
                                        {"/a/photojpg", false},
                                        {"/a/photo.jpe", false},
                                        {"/a/photo.webp", false},
                                        {"", false}});
    expectTable(CommonUtils::sIsCameraRawImage,
                {{"/a/photo.jpg", false}, {"/a/photo.tifx", false}, {"/a/photo.dng", false}});
    expectTable(CommonUtils::sIsAudio,
                {{"song.mp4", false}, {"song.mp3.part", false}, {"song.opus", false}});
    expectTable(CommonUtils::sIsVideo, {{"clip.dat", false}, {"clip.webm", false}, {"ts", false}});
    expectTable(CommonUtils::sIsDocument,
                {{"notes.txt", false}, {"sheet.xlsm", false}, {"doc", false}});
}

TEST(CommonUtilsFileType, SupportedImageWantsTheBareExtension) {
    expectTable(CommonUtils::sIsSupportedImage, {{".jpg", true},
                                                 {".JPEG", true},
                                                 {".Png", true},
                                                 {".bmp", true},
                                                 {".gif", true},
                                                 {".tif", false},
                                                 {".tiff", false},
                                                 {"jpg", false},
                                                 {"a.jpg", false},
                                                 {"/a/b.jpg", false},
                                                 {".jpg ", false},
                                                 {"", false}});
    EXPECT_TRUE(CommonUtils::sIsImage("/a/b.jpg"));
}

TEST(CommonUtilsFileType, AutodyneVideoNames) {
    const std::vector<NameCase> cases = {
        {"VID_20140101_120000.mp4", true},
        {"vid_1.mp4", true},
        {"VIDEO0001.3gp", true},
        {"20140101_120000.mp4", true},
        {"2014-01-31 (2).mov", true},
        {"IMG_0001.MOV", true},
        {"GOPR0012.MP4", true},
        {"YDXJ0001.mp4", true},
        {"QUICK_YDXJ0001.mp4", true},
        {"DSCF0001.avi", true},
        {"MVI_1234WA12.mp4", true},
        {"录像001.mp4", true},
        {"00012.mts", true},
        {"00012.MTS", true},
        {"00012.m2ts", false},
        {"holiday.mp4", false},
        {"movie.mkv", false},
        {"VID.mp4", false},
        {"20141301_1.mp4", false},
        {"20140132_1.mp4", false},
        {"VID_1.flv", false},
        {"VID_1.dat", false},
        {"/userdisk/data/VID_1.mp4", false},
        {"x/00012.mts", false},
        {"VID_1.mp4.txt", false},
    };
    for (const NameCase& c : cases) {
        EXPECT_EQ(c.expected, CommonUtils::sIsAutodyneVideo(c.name)) << c.name;
    }
}

TEST(CommonUtilsFileType, AutodyneVideoIsSafeFromManyThreads) {
    std::vector<int> wrong(4, 0);
    boost::thread_group threads;
    for (size_t t = 0; t < wrong.size(); ++t) {
        threads.create_thread([t, &wrong] {
            for (int i = 0; i < 2000; ++i) {
                if (!CommonUtils::sIsAutodyneVideo("VID_20140101_120000.mp4") ||
                    CommonUtils::sIsAutodyneVideo("holiday.mp4") ||
                    !CommonUtils::sIsAutodyneVideo("00012.mts")) {
                    ++wrong[t];
                }
            }
        });
    }
    threads.join_all();
    EXPECT_EQ(std::vector<int>(4, 0), wrong);
}
