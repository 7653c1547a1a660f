#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>
#include <string>
#include <vector>

#include "system/CommonUtils.h"

namespace {

typedef bool (*Predicate)(const std::string&);

struct NameCase {
    Predicate predicate;
    const char* name;
    bool expected;
};

}  // namespace

TEST(CommonUtilsFileType, SuffixesCountInAnyCaseAndNearMissesDont) {
    const Predicate raw = CommonUtils::sIsCameraRawImage, image = CommonUtils::sIsImage,
                    audio = CommonUtils::sIsAudio, video = CommonUtils::sIsVideo,
                    document = CommonUtils::sIsDocument, supported = CommonUtils::sIsSupportedImage;
    const NameCase cases[] = {
        {raw, "/a b/N.tiff", true},   {image, ".nef", true},          {image, "/a/B.JPG", true},
        {audio, "SONG.FLAC", true},   {audio, ".wavpack", true},      {video, "Clip.M2TS", true},
        {video, ".3gp", true},        {document, "Report.DocX", true}, {document, ".ett", true},
        {image, "/a/p.jpg.txt", false}, {image, "/a/photojpg", false}, {image, "/a/p.jpe", false},
        {image, "", false},           {raw, "a.jpg", false},          {raw, "a.tifx", false},
        {audio, "s.mp4", false},      {audio, "s.mp3.part", false},   {video, "ts", false},
        {video, "c.webm", false},     {document, "s.xlsm", false},    {supported, ".JPEG", true},
        {supported, ".Png", true},    {supported, ".tif", false},     {supported, "jpg", false},
        {supported, "a.jpg", false},  {supported, ".jpg ", false},
    };
    for (const NameCase& c : cases) {
        EXPECT_EQ(c.expected, c.predicate(c.name)) << c.name;
    }
}

TEST(CommonUtilsFileType, AutodyneVideoNames) {
    const struct { const char* name; bool expected; } cases[] = {
        {"VID_20140101_120000.mp4", true}, {"vid_1.mp4", true},      {"VIDEO0001.3gp", true},
        {"20140101_120000.mp4", true},     {"2014-01-31 (2).mov", true}, {"IMG_0001.MOV", true},
        {"GOPR0012.MP4", true},            {"QUICK_YDXJ0001.mp4", true}, {"DSCF0001.avi", true},
        {"MVI_1234WA12.mp4", true},        {"录像001.mp4", true},     {"00012.MTS", true},
        {"00012.m2ts", false},             {"holiday.mp4", false},    {"VID.mp4", false},
        {"20141301_1.mp4", false},         {"20140132_1.mp4", false}, {"VID_1.flv", false},
        {"/userdisk/data/VID_1.mp4", false}, {"x/00012.mts", false},  {"VID_1.mp4.txt", false},
    };
    for (const auto& c : cases) {
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
