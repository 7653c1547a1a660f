#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <string>

#include "multimedia/Metadata.h"
#include "multimedia/MetadataVideoProbe.h"
#include "support/DeviceRootTest.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

const long kMtime = 1500000000;
const long kDefault = 1600000000;
const std::string kFfmpeg = "ffmpeg -nostdin -loglevel error -y ";
const std::string kBlue = "-f lavfi -i color=c=blue:size=32x32:rate=10 ";

// Local wall-clock time in the test's zone.
long localTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm parts = {second, minute, hour, day, month - 1, year - 1900, 0, 0, -1, 0, NULL};
    return static_cast<long>(mktime(&parts));
}

class MetadataTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        // A zone with summer time, so that reading as local time shows.
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }

    // Runs command with $F naming the file, then dates the file kMtime.
    std::string media(const std::string& name, const std::string& command) {
        const std::string file = path("/" + name);
        EXPECT_EQ(0, shell("F='" + file + "'; " + command + " && touch -d @" +
                           std::to_string(kMtime) + " \"$F\""))
            << command;
        return file;
    }

    // A small JPEG without EXIF, then the given exiftool arguments applied.
    std::string jpeg(const std::string& name, const std::string& exiftoolArgs) {
        return media(name,
                     "/usr/bin/convert -size 16x16 xc:red -strip \"jpg:$F\" && exiftool -q "
                     "-overwrite_original " +
                         exiftoolArgs + " \"$F\" >/dev/null");
    }
};

// The name alone decides; the file is never opened.
TEST_F(MetadataTest, NameDecidesTypeAndTitleOfNonJpegImages) {
    const std::pair<const char*, const char*> cases[] = {
        {"a.png", "image/png"},  {"A.PNG", "image/png"}, {"x.tiff", "image/tiff"},
        {"x.tif", "image/null"}, {"", "image/null"},     {"png", "image/png"}};
    for (const auto& c : cases) {
        metadata_s metadata;
        EXPECT_EQ(0, Metadata::getImageMetadata(path("/none"), c.first, 777, metadata, "", false));
        EXPECT_EQ(std::string(c.second) + "|" + c.first + "|777",
                  metadata.mime + "|" + metadata.title + "|" + std::to_string(metadata.date));
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MetadataTest, JpegDateComesFromExifReadAsLocalTime) {
    struct Case {
        std::string exiftool;
        long defaultModifyTime;
        long expected;
        int result;
    } cases[] = {
        // Summer time; then the digitized date, which the original wins over.
        {"-DateTimeOriginal='2015:06:07 08:09:10'", kDefault, localTime(2015, 6, 7, 8, 9, 10), 0},
        {"-CreateDate='2012:03:04 05:06:07'", kDefault, localTime(2012, 3, 4, 5, 6, 7), 0},
        {"-DateTimeOriginal='2015:06:07 08:09:10' -CreateDate='2012:03:04 05:06:07'", 0,
         localTime(2015, 6, 7, 8, 9, 10), 0},
        // Before 1980 a date is a camera default, and the file's time stands in.
        {"-DateTimeOriginal='1980:01:01 00:00:00'", kDefault, localTime(1980, 1, 1, 0, 0, 0), 0},
        {"-DateTimeOriginal='1979:12:31 23:59:59'", 0, kMtime, 0},
        // Past 32 bits, as where time_t has 32 bits (armhf): no date.
        {"-DateTimeOriginal='2040:01:01 00:00:00'", 0, kMtime, 0},
        {"-DateTimeOriginal='2150:01:01 00:00:00'", 0, kMtime, 0},
        {"-Make=Quorvia", 0, kMtime, 0},
        // Without EXIF the default stands, even when there is none.
        {"", 0, 0, -1},
        {"", 55, 55, -1},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.exiftool + " " + std::to_string(c.defaultModifyTime));
        const std::string file = jpeg("p" + std::to_string(n++), c.exiftool);
        metadata_s metadata;
        // The name, not the path, sends a file down the JPEG route.
        EXPECT_EQ(c.result, Metadata::getImageMetadata(file, "PHOTO.JpEg", c.defaultModifyTime,
                                                       metadata, "", false));
        EXPECT_EQ(c.expected, metadata.date);
        EXPECT_EQ("image/jpeg|PHOTO.JpEg", metadata.mime + "|" + metadata.title);
    }
}

// Where time_t has 32 bits a file dated past January 2038 could not be
// examined: its EXIF date and its duration were lost (regression). The date
// its own time would give is none there, and so everywhere.
TEST_F(MetadataTest, FilesDatedPast2038AreReadLikeAnyOtherRegression) {
    const std::string dated = jpeg("dated.jpg", "-DateTimeOriginal='2015:06:07 08:09:10'");
    const std::string undated = jpeg("undated.jpg", "-Make=Quorvia");
    const std::string clip = media("clip.mp4", kFfmpeg + kBlue + "-c:v mpeg4 -t 2 \"$F\"");
    ASSERT_EQ(0, shell("touch -d 2040-01-01 '" + dated + "' '" + undated + "' '" + clip + "'"));
    metadata_s photo, bare, video;
    EXPECT_EQ(0, Metadata::getImageMetadata(dated, "p.jpg", 0, photo, "", false));
    EXPECT_EQ(0, Metadata::getImageMetadata(undated, "u.jpg", 0, bare, "", false));
    EXPECT_EQ(0, Metadata::getVideoMetadata(clip, "c.mp4", kDefault, video, "", false));
    EXPECT_EQ(std::to_string(localTime(2015, 6, 7, 8, 9, 10)) + " 0 2",
              std::to_string(photo.date) + " " + std::to_string(bare.date) + " " + video.duration);
}

// Every file goes down both the image and the video route.
TEST_F(MetadataTest, DamagedOrStrangeFilesFailQuicklyWithATitleAndADate) {
    const std::string good = jpeg("good.jpg", "-DateTimeOriginal='2015:06:07 08:09:10'");
    const std::string clip = media("good.mp4", kFfmpeg + kBlue + "-c:v mpeg4 -t 2 \"$F\"");
    // Cut short: the EXIF block, and the index an MP4 written this way keeps at its end.
    media("cut.jpg", "head -c 300 '" + good + "' > \"$F\"");
    media("cut.mp4", "head -c $(($(stat -c %s '" + clip + "') / 2)) '" + clip + "' > \"$F\"");
    // A month and hour that don't exist: the text doesn't parse.
    jpeg("baddate.jpg", "-n -DateTimeOriginal='2015:13:45 99:99:99'");
    ASSERT_EQ(0, mkfifo(path("/fifo").c_str(), 0600));
    for (const std::string& file : {path("/cut.jpg"), path("/baddate.jpg"), path("/cut.mp4"),
                                    path("/fifo"), std::string("/dev/zero"), path("/missing")}) {
        SCOPED_TRACE(file);
        metadata_s image, video;
        const int result = Metadata::getImageMetadata(file, "x.jpg", kDefault, image, "", false);
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_EQ("x.jpg", image.title);
        // The cut EXIF block may still hold the date.
        EXPECT_TRUE(image.date == kDefault || image.date == localTime(2015, 6, 7, 8, 9, 10));
        EXPECT_EQ(0, Metadata::getVideoMetadata(file, "v.mp4", kDefault, video, "", false));
        // A JPEG may read as a one-frame video; nothing else here has a duration.
        const std::string duration = file.find(".jpg") == std::string::npos ? "" : video.duration;
        EXPECT_EQ("v.mp4|" + duration + "|" + std::to_string(kDefault),
                  video.title + "|" + video.duration + "|" + std::to_string(video.date));
    }
}

// Probing the streams only where the header leaves things open gives the
// record that probing always gives. Read in the daemon's way: in children of
// the reader process (other tests read here).
TEST_F(MetadataTest, VideoDurationAndCreationTimeFromTheContainerWhetherStreamsAreProbedOrNot) {
    using namespace talvern::videoprobe;
    ASSERT_TRUE(Metadata::sStartVideoReaders());
    const std::string v = kBlue + "-c:v mpeg4", created = " -metadata creation_time=";
    const std::string color = kBlue + "-t 2 -c:v ";
    const std::string sine = "-f lavfi -i sine=frequency=440:sample_rate=8000 ";
    // The date is the one read with kDefault as the default.
    const struct Sample {
        std::string name, ffmpegArgs, duration;
        long date;
    } samples[] = {
        // The wall-clock time is read as local time, summer time included.
        {"created.mp4", v + " -t 3" + created + "2024-07-02T10:20:30Z", "3",
         localTime(2024, 7, 2, 10, 20, 30)},
        {"old.mp4", v + " -t 1" + created + "1975-01-01T10:00:00Z", "1", kDefault},
        {"audio.m4a", sine + "-t 2 -c:a aac" + created + "2024-01-02T10:20:30Z", "",
         localTime(2024, 1, 2, 10, 20, 30)},
        {"meta.mkv", v + " -t 2" + created + "2024-01-02T10:20:30Z", "2", kDefault},
        {"mixed.mov", v + " " + sine + "-t 4 -c:a aac", "4", kDefault},
        {"x264.mp4", "-f lavfi -i testsrc=size=64x48:rate=10 -t 2 -c:v libx264 -preset ultrafast",
         "2", kDefault},
        {"long.mp4", v + " -t 90.9", "90", kDefault},
        {"half.mp4", v + " -t 0.5", "0", kDefault},
        {"plain.ts", v + " -t 2", "2", kDefault},
        {"plain.flv", color + "flv1", "2", kDefault},
        {"plain.webm", color + "libvpx", "2", kDefault},
        {"plain.rmvb", color + "rv20 -f rm", "2", kDefault},
        {"recorded.wtv", color + "mpeg2video", "2", kDefault},
        {"plain.nut", v + " -t 2.5", "2", kDefault},
        // A camcorder's DV came back without a duration (regression).
        {"camera.dv", "-f lavfi -i testsrc=size=720x576:rate=25 -t 1 -target pal-dv", "1",
         kDefault},
    };
    const size_t descriptors = quorvia_test::openDescriptors();
    for (const Sample& sample : samples) {
        SCOPED_TRACE(sample.name);
        const std::string file = media(sample.name, kFfmpeg + sample.ffmpegArgs + " \"$F\"");
        metadata_s metadata, lazy, always;
        EXPECT_EQ(0, Metadata::getVideoMetadata(file, "Clip", kDefault, metadata, "", false));
        EXPECT_EQ("Clip|" + sample.duration + "|" + std::to_string(sample.date),
                  metadata.title + "|" + metadata.duration + "|" + std::to_string(metadata.date));
        ASSERT_TRUE(readContainer(file, lazy, kStreamInfoWhenHeaderIsOpen));
        ASSERT_TRUE(readContainer(file, always, kStreamInfoAlways));
        EXPECT_EQ(always.duration + "|" + always.title + "|" + std::to_string(always.date),
                  lazy.duration + "|" + lazy.title + "|" + std::to_string(lazy.date));
        // In this process, as where no reader process could be started.
        EXPECT_TRUE(readFacts(file, kStreamInfoWhenHeaderIsOpen,
                              std::chrono::steady_clock::now() + std::chrono::seconds(10))
                        .opened);
    }
    // Every read closes what it opened.
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors());
    // An open past its deadline gives up at libavformat's first read.
    metadata_s late;
    EXPECT_FALSE(
        readContainer(path("/long.mp4"), late, kStreamInfoAlways, std::chrono::seconds(0)));
}

}  // namespace
