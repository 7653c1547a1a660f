#include <gtest/gtest.h>

#include <string>

#include "system/CommonUtils.h"

TEST(CommonUtilsFileType, SuffixesCountInAnyCaseAndNearMissesDont) {
    typedef bool (*Predicate)(const std::string&);
    const Predicate raw = CommonUtils::sIsCameraRawImage, image = CommonUtils::sIsImage,
                    audio = CommonUtils::sIsAudio, video = CommonUtils::sIsVideo,
                    document = CommonUtils::sIsDocument, supported = CommonUtils::sIsSupportedImage;
    const struct { Predicate predicate; const char* name; bool expected; } cases[] = {
        {raw, "/a b/N.tiff", true},     {image, ".nef", true},         {image, "/a/B.JPG", true},
        {audio, "SONG.FLAC", true},     {video, "Clip.M2TS", true},    {document, "R.DocX", true},
        {image, "/a/p.jpg.txt", false}, {image, "/a/photojpg", false}, {raw, "a.tifx", false},
        {audio, "s.mp3.part", false},   {video, "ts", false},          {document, "s.xlsm", false},
        {supported, ".Png", true},      {supported, "jpg", false},     {supported, "a.jpg", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, c.predicate(c.name)) << c.name;
    }
}

TEST(CommonUtilsFileType, AutodyneVideoNames) {
    const struct { const char* name; bool expected; } cases[] = {
        {"VID_20140101_120000.mp4", true}, {"VIDEO0001.3gp", true},    {"2014-01-31 (2).mov", true},
        {"QUICK_YDXJ0001.mp4", true},      {"MVI_1234WA12.mp4", true}, {"录像001.mp4", true},
        {"00012.MTS", true},               {"00012.m2ts", false},      {"holiday.mp4", false},
        {"VID.mp4", false},                {"20141301_1.mp4", false},  {"20140132_1.mp4", false},
        {"VID_1.flv", false},              {"x/00012.mts", false},     {"VID_1.mp4.txt", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, CommonUtils::sIsAutodyneVideo(c.name)) << c.name;
    }
}
