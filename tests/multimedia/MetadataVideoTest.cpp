#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <string>
#include <vector>

#include "multimedia/Metadata.h"
#include "multimedia/MetadataVideoProbe.h"
#include "support/DeviceRootTest.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

const long kMtime = 1500000000;
const long kDefault = 1600000000;

long localTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm parts = {second, minute, hour, day, month - 1, year - 1900, 0, 0, -1, 0, NULL};
    return static_cast<long>(mktime(&parts));
}

// A sample made with ffmpeg at test time; date with defaultModifyTime kDefault.
struct Sample {
    std::string name, ffmpegArgs, duration;
    long date;
};

const char* const kVideo = "-f lavfi -i color=c=blue:size=32x32:rate=10 -c:v mpeg4";
const char* const kAudio = "-f lavfi -i sine=frequency=440:sample_rate=8000";

class MetadataVideoTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }

    std::string make(const std::string& name, const std::string& args) {
        const std::string file = path("/" + name);
        EXPECT_EQ(0, shell("ffmpeg -nostdin -loglevel error -y " + args + " '" + file + "'"))
            << args;
        EXPECT_EQ(0, shell("touch -d @" + std::to_string(kMtime) + " '" + file + "'"));
        return file;
    }

    static std::vector<Sample> samples() {
        const std::string v = kVideo, created = " -metadata creation_time=";
        const std::string color = "-f lavfi -i color=c=blue:size=32x32:rate=10 -t 2 -c:v ";
        return {
            // The wall-clock time is read as local time, summer time included.
            {"created.mp4", v + " -t 3" + created + "2024-07-02T10:20:30Z", "3",
             localTime(2024, 7, 2, 10, 20, 30)},
            {"old.mp4", v + " -t 1" + created + "1975-01-01T10:00:00Z", "1", kDefault},
            {"audio.m4a", std::string(kAudio) + " -t 2 -c:a aac" + created + "2024-01-02T10:20:30Z",
             "", localTime(2024, 1, 2, 10, 20, 30)},
            {"meta.mkv", v + " -t 2" + created + "2024-01-02T10:20:30Z", "2", kDefault},
            {"mixed.mov", v + " " + kAudio + " -t 4 -c:a aac", "4", kDefault},
            {"x264.mp4",
             "-f lavfi -i testsrc=size=64x48:rate=10 -t 2 -c:v libx264 -preset ultrafast", "2",
             kDefault},
            {"long.mp4", v + " -t 90.9", "90", kDefault},
            {"half.mp4", v + " -t 0.5", "0", kDefault},
            {"plain.ts", v + " -t 2", "2", kDefault},
            {"plain.flv", color + "flv1", "2", kDefault},
            {"plain.webm", color + "libvpx", "2", kDefault},
        };
    }
};

// Probing the streams only where the header leaves things open gives the
// record that probing always gives.
TEST_F(MetadataVideoTest, DurationAndCreationTimeFromTheContainerWhetherStreamsAreProbedOrNot) {
    using namespace talvern::videoprobe;
    for (const Sample& sample : samples()) {
        SCOPED_TRACE(sample.name);
        const std::string file = make(sample.name, sample.ffmpegArgs);
        metadata_s metadata;
        EXPECT_EQ(0, Metadata::getVideoMetadata(file, "Clip", kDefault, metadata, "", false));
        EXPECT_EQ("Clip", metadata.title);
        EXPECT_EQ(sample.duration, metadata.duration);
        EXPECT_EQ(sample.date, metadata.date);
        EXPECT_EQ("", metadata.mime);
        // Without a default, the file's time stands in for an absent date.
        metadata_s noDefault;
        Metadata::getVideoMetadata(file, "Clip", 0, noDefault, "", false);
        EXPECT_EQ(sample.date == kDefault ? kMtime : sample.date, noDefault.date);
        metadata_s lazy, always;
        ASSERT_TRUE(readContainer(file, lazy, kStreamInfoWhenHeaderIsOpen));
        ASSERT_TRUE(readContainer(file, always, kStreamInfoAlways));
        EXPECT_EQ(always.duration + "|" + always.title + "|" + std::to_string(always.date),
                  lazy.duration + "|" + lazy.title + "|" + std::to_string(lazy.date));
    }
    EXPECT_TRUE(log_.contains("creation_time is 2024-07-02T10:20:30.000000Z", google::GLOG_INFO));
    EXPECT_EQ(4, log_.count("video " + path("/long.mp4") + " raw duration is 90"));
    EXPECT_EQ(0, log_.count("av_open_input_file fail", google::GLOG_ERROR));
}

TEST_F(MetadataVideoTest, FilesThatAreNoVideoFailQuicklyWithATitleAndADate) {
    const std::string good = make("good.mp4", std::string(kVideo) + " -t 2");
    // Half the file: the index of an MP4 written this way is at its end.
    ASSERT_EQ(0, shell("head -c $(($(stat -c %s '" + good + "') / 2)) '" + good + "' > '" +
                       path("/cut.mp4") + "'"));
    ASSERT_EQ(0, shell("printf '#EXTM3U\\n#EXT-X-TARGETDURATION:10\\n#EXTINF:10,\\n"
                       "http://127.0.0.1:9/x.ts\\n#EXT-X-ENDLIST\\n' > '" +
                       path("/playlist.mp4") + "'"));
    ASSERT_EQ(0, mkfifo(path("/fifo.mp4").c_str(), 0600));
    const std::string files[] = {path("/missing.mp4"), path("/fifo.mp4"), "/dev/zero",
                                 path("/cut.mp4"), path("/playlist.mp4")};
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        metadata_s metadata;
        EXPECT_EQ(0, Metadata::getVideoMetadata(file, "v.mp4", kDefault, metadata, "", false));
        EXPECT_EQ("v.mp4", metadata.title);
        EXPECT_EQ(kDefault, metadata.date);
        EXPECT_EQ("", metadata.duration);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    for (const std::string& file : {path("/fifo.mp4"), std::string("/dev/zero")}) {
        EXPECT_EQ(1, log_.count("av_open_input_file fail, path is " + file, google::GLOG_ERROR));
    }

    metadata_s missing;
    Metadata::getVideoMetadata(path("/missing.mp4"), "v.mp4", 0, missing, "", false);
    EXPECT_EQ(0, missing.date);
}

}  // namespace
