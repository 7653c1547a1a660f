// Media files as a disk written by others may hold them: playlists and
// scripts that name other inputs, tables that declare more than the file
// holds, endless padding. Each gets the answer of a file that can't be read,
// soon, with bounded memory, and without any other file or address touched.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "multimedia/Metadata.h"
#include "support/DeviceRootTest.h"
#include "support/PeakMemory.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

const long kDefault = 1600000000;

std::string be32(uint32_t value) {
    const uint32_t big = htonl(value);
    return std::string(reinterpret_cast<const char*>(&big), 4);
}

class HostileMediaTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        alarm(60);  // an extraction that blocks ends the test
    }

    metadata_s video(const std::string& name) {
        metadata_s metadata;
        Metadata::getVideoMetadata(path("/" + name), "clip.mp4", kDefault, metadata, "", false);
        return metadata;
    }
};

// A playlist on a share once made the daemon read the file it named and
// answer with that file's duration.
TEST_F(HostileMediaTest, PlaylistsAndScriptsNeverOpenWhatTheyNameRegression) {
    ASSERT_EQ(0, shell("cd " + root() +
                       " && ffmpeg -nostdin -loglevel error -y -f lavfi "
                       "-i color=c=blue:size=32x32:rate=10 -t 3 -c:v mpeg4 real.mp4 && "
                       "mkfifo pipe.ts"));
    const int watcher = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watcher, path("/real.mp4").c_str(), IN_OPEN | IN_ACCESS), 0);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener, 4));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length));
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x.ts";

    const std::string hls = "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:3,\n";
    const std::pair<std::string, std::string> files[] = {
        {"hls.mp4", hls + path("/real.mp4") + "\n#EXT-X-ENDLIST\n"},
        {"concat.mp4", "ffconcat version 1.0\nfile " + path("/real.mp4") + "\n"},
        {"fifo.mp4", hls + path("/pipe.ts") + "\n#EXT-X-ENDLIST\n"},
        {"self.mp4", "ffconcat version 1.0\nfile " + path("/self.mp4") + "\n"},
        {"remote.mp4", hls + url + "\n#EXT-X-ENDLIST\n"},
        {"pattern.mp4", "ffconcat version 1.0\nfile " + path("/img%03d.png") + "\n"},
    };
    for (const std::pair<std::string, std::string>& file : files) {
        SCOPED_TRACE(file.first);
        writeFile("/" + file.first, file.second);
        const metadata_s metadata = video(file.first);
        EXPECT_EQ("clip.mp4||" + std::to_string(kDefault),
                  metadata.title + "|" + metadata.duration + "|" + std::to_string(metadata.date));
    }
    char events[4096];
    EXPECT_EQ(-1, read(watcher, events, sizeof(events))) << "the named file was opened";
    EXPECT_EQ(-1, accept(listener, NULL, NULL)) << "the named address was reached";
    close(watcher);
    close(listener);
}

// A sparse file of a few KiB on disk whose MP4 header declares 250 million
// chunk offsets once took 1.98 GB of memory; 300 MB of padding before an
// EXIF block held a worker for 8 s.
TEST_F(HostileMediaTest, DeclaredTablesAndEndlessPaddingCostBoundedMemoryAndReadsRegression) {
    const uint32_t entries = 250000000;
    const uint32_t stco = 16 + 4 * entries;
    const std::string header = be32(20) + "ftypisom" + be32(0x200) + "isom" + be32(stco + 16) +
                               "moov" + be32(stco + 8) + "trak" + be32(stco) + "stco" + be32(0) +
                               be32(entries);
    writeFile("/sparse.mp4", header);
    ASSERT_EQ(0, truncate(path("/sparse.mp4").c_str(), 20 + 16 + stco));
    const long before = quorvia_test::peakResidentKiB();
    EXPECT_EQ("", video("sparse.mp4").duration);
    EXPECT_LT(quorvia_test::peakResidentKiB() - before, 160 * 1024);

    // A date past the first 512 KiB of padding is not looked for.
    ASSERT_EQ(0, shell("cd " + root() +
                       " && convert -size 8x8 xc:red dated.jpg && exiftool -q "
                       "-overwrite_original '-DateTimeOriginal=2021:05:06 07:08:09' dated.jpg"));
    const std::string dated = readFile("/dated.jpg");
    for (const size_t padding : {4096, 1 << 20}) {
        writeFile("/padded.jpg",
                  dated.substr(0, 2) + std::string(padding, '\xff') + dated.substr(2));
        metadata_s image;
        Metadata::getImageMetadata(path("/padded.jpg"), "a.jpg", kDefault, image, "", false);
        EXPECT_EQ(padding > 512 * 1024, kDefault == image.date) << padding;
    }
}

}  // namespace
