#include "multimedia/Metadata.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <string>

#include "support/DeviceRootTest.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

const long kMtime = 1500000000;

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

    // A small JPEG without EXIF, then the given exiftool arguments applied.
    std::string jpeg(const std::string& name, const std::string& exiftoolArgs) {
        const std::string file = path("/" + name);
        EXPECT_EQ(0, shell("/usr/bin/convert -size 16x16 xc:red -strip 'jpg:" + file + "'"));
        if (!exiftoolArgs.empty()) {
            EXPECT_EQ(0, shell("exiftool -q -overwrite_original " + exiftoolArgs + " '" + file +
                               "' >/dev/null"));
        }
        EXPECT_EQ(0, shell("touch -d @" + std::to_string(kMtime) + " '" + file + "'"));
        return file;
    }
};

TEST_F(MetadataTest, NameDecidesTypeAndTitleOfNonJpegImages) {
    struct Case {
        const char* name;
        const char* mime;
    } cases[] = {{"a.png", "image/png"},  {"A.PNG", "image/png"}, {"x.tiff", "image/tiff"},
                 {"x.tif", "image/null"}, {"", "image/null"},      {"png", "image/png"}};
    // The file is never opened: its path has no suffix, and isn't there.
    const std::string file = path("/no-suffix");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        metadata_s metadata;
        EXPECT_EQ(0, Metadata::getImageMetadata(file, c.name, 777, metadata, "", false));
        EXPECT_EQ(c.mime, metadata.mime);
        EXPECT_EQ(c.name, metadata.title);
        EXPECT_EQ(777, metadata.date);
        metadata_s none;
        Metadata::getImageMetadata(file, c.name, 0, none, "", false);
        EXPECT_EQ(0, none.date);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(MetadataTest, JpegDateComesFromExifReadAsLocalTime) {
    const long defaultTime = 1600000000;
    struct Case {
        const char* label;
        std::string exiftool;
        long defaultModifyTime;
        long expected;
        int result;
    } cases[] = {
        {"original, summer", "-DateTimeOriginal='2015:06:07 08:09:10'", defaultTime,
         localTime(2015, 6, 7, 8, 9, 10), 0},
        {"digitized only", "-CreateDate='2012:03:04 05:06:07'", defaultTime,
         localTime(2012, 3, 4, 5, 6, 7), 0},
        {"original wins",
         "-DateTimeOriginal='2015:06:07 08:09:10' -CreateDate='2012:03:04 05:06:07'", 0,
         localTime(2015, 6, 7, 8, 9, 10), 0},
        {"1980 stands", "-DateTimeOriginal='1980:01:01 00:00:00'", defaultTime,
         localTime(1980, 1, 1, 0, 0, 0), 0},
        {"1970 gives way to default", "-DateTimeOriginal='1970:01:01 00:00:00'", defaultTime,
         defaultTime, 0},
        {"1979 gives way to mtime", "-DateTimeOriginal='1979:12:31 23:59:59'", 0, kMtime, 0},
        {"no date tag, mtime", "-Make=Quorvia", 0, kMtime, 0},
        // Without EXIF the default stands, even when there is none.
        {"no exif, no default", "", 0, 0, -1},
        {"no exif, default", "", 55, 55, -1},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string file = jpeg("p" + std::to_string(n++), c.exiftool);
        metadata_s metadata;
        // The name, not the path, sends a file down the JPEG route.
        EXPECT_EQ(c.result, Metadata::getImageMetadata(file, "PHOTO.JpEg", c.defaultModifyTime,
                                                       metadata, "", false));
        EXPECT_EQ(c.expected, metadata.date);
        EXPECT_EQ("image/jpeg", metadata.mime);
        EXPECT_EQ("PHOTO.JpEg", metadata.title);
        EXPECT_EQ(1, log_.count("get image metadata , path is " + file, google::GLOG_INFO));
        EXPECT_EQ(c.result == 0 ? 0 : 1,
                  log_.count(file + " exif_data is NULL", google::GLOG_ERROR));
    }
}

TEST_F(MetadataTest, DamagedOrStrangeJpegsFailOrFallBackWithoutHanging) {
    const std::string good = jpeg("good.jpg", "-DateTimeOriginal='2015:06:07 08:09:10'");
    ASSERT_EQ(0, shell("head -c 300 '" + good + "' > '" + path("/cut.jpg") + "'"));
    // EXIF block whose offsets point past its end.
    ASSERT_EQ(0, shell("cp '" + good + "' '" + path("/offsets.jpg") +
                       "' && printf '\\377\\377\\377\\377' | dd of='" + path("/offsets.jpg") +
                       "' bs=1 seek=30 conv=notrunc 2>/dev/null"));
    // A month and hour that don't exist: the text doesn't parse.
    const std::string badDate = jpeg("baddate.jpg", "-n -DateTimeOriginal='2015:13:45 99:99:99'");
    ASSERT_EQ(0, mkfifo(path("/fifo.jpg").c_str(), 0600));
    struct Case {
        std::string file;
        bool dateKnown;
    } cases[] = {{path("/cut.jpg"), false}, {path("/offsets.jpg"), false}, {badDate, true},
                 {path("/fifo.jpg"), true}, {"/dev/zero", true}, {path("/missing.jpg"), true}};
    const auto start = std::chrono::steady_clock::now();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        metadata_s metadata;
        const int result =
            Metadata::getImageMetadata(c.file, "x.jpg", 1600000000, metadata, "", false);
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_EQ("x.jpg", metadata.title);
        if (c.dateKnown) {
            EXPECT_EQ(1600000000, metadata.date);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    for (const std::string& file : {path("/fifo.jpg"), std::string("/dev/zero")}) {
        EXPECT_EQ(1, log_.count(file + " exif_data is NULL", google::GLOG_ERROR));
    }
}

TEST_F(MetadataTest, AudioRecordHoldsTheTitleAlone) {
    writeFile("/song.mp3", "not really audio");
    metadata_s metadata;
    EXPECT_EQ(0, Metadata::getAudioMetadata(path("/song.mp3"), "Song.mp3", metadata));
    EXPECT_EQ("Song.mp3|||||0", metadata.title + "|" + metadata.mime + "|" + metadata.duration +
                                    "|" + metadata.artist + "|" + metadata.album + "|" +
                                    std::to_string(metadata.date));
    metadata_s untouched;
    untouched.title = "before";
    EXPECT_EQ(0, Metadata::getAudioMetadata("", "Song.mp3", untouched));
    EXPECT_EQ("before", untouched.title);
}

}  // namespace
