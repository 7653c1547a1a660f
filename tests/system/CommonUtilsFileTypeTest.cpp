#include <gtest/gtest.h>

#include <string>

#include "system/CommonUtils.h"

TEST(CommonUtilsFileType, SuffixesInAnyCaseAndAutodyneVideoNames) {
    typedef bool (*Predicate)(const std::string&);
    const Predicate raw = CommonUtils::sIsCameraRawImage, image = CommonUtils::sIsImage,
                    audio = CommonUtils::sIsAudio, video = CommonUtils::sIsVideo,
                    document = CommonUtils::sIsDocument, supported = CommonUtils::sIsSupportedImage;
    const Predicate autodyne = [](const std::string& name) {
        return CommonUtils::sIsAutodyneVideo(name);
    };
    const struct { Predicate predicate; const char* name; bool expected; } cases[] = {
        {raw, "/a b/N.tiff", true},     {image, ".nef", true},         {image, "/a/B.JPG", true},
        {audio, "SONG.FLAC", true},     {video, "Clip.M2TS", true},    {document, "R.DocX", true},
        {image, "/a/p.jpg.txt", false}, {image, "/a/photojpg", false}, {raw, "a.tifx", false},
        {audio, "s.mp3.part", false},   {video, "ts", false},          {document, "s.xlsm", false},
        {supported, ".Png", true},      {supported, "jpg", false},     {supported, "a.jpg", false},
        {autodyne, "VID_20140101_120000.mp4", true}, {autodyne, "VIDEO0001.3gp", true},
        {autodyne, "2014-01-31 (2).mov", true},      {autodyne, "QUICK_YDXJ0001.mp4", true},
        {autodyne, "MVI_1234WA12.mp4", true},        {autodyne, "录像001.mp4", true},
        {autodyne, "00012.MTS", true},               {autodyne, "00012.m2ts", false},
        {autodyne, "holiday.mp4", false},            {autodyne, "VID.mp4", false},
        {autodyne, "20141301_1.mp4", false},         {autodyne, "20140132_1.mp4", false},
        {autodyne, "VID_1.flv", false},              {autodyne, "x/00012.mts", false},
        {autodyne, "VID_1.mp4.txt", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, c.predicate(c.name)) << c.name;
    }
}
