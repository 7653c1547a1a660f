#ifndef QUORVIA_MULTIMEDIA_CONTAINERREADER_H
#define QUORVIA_MULTIMEDIA_CONTAINERREADER_H

extern "C" {
#include <libavformat/avformat.h>
}
#include <stdint.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace talvern {

// One media file opened by libavformat on the daemon's terms, for a disk that
// others write:
// - the file is opened once, by this class, without blocking and checked to
//   be a regular file, and libavformat reads it only through this class;
// - only real containers are taken (kDemuxers): a playlist, a concat script,
//   an image sequence or any format that names other inputs is refused as a
//   file of no known container;
// - libavformat may open nothing else (every nested open is refused), so no
//   file a playlist names is ever read and no connection is made (the first
//   such input is kept for the caller to report: the class logs nothing);
// - one file costs at most kMaxBytesRead of reading and no single allocation
//   over kMaxAllocation, whatever its tables declare, and nothing past the
//   deadline.
// Owns its descriptor and libavformat's objects. One thread at a time.
class ContainerReader {
public:
    // libavformat's names of the demuxers taken: the MP4/QuickTime family,
    // Matroska and WebM, AVI, MPEG transport and program streams, FLV,
    // ASF/WMV, RealMedia, camcorders' DV, recorded TV (WTV), NUT, Ogg, WAV,
    // MP3, AAC (ADTS) and FLAC.
    // None of them opens a second input. Raw codec streams (".avc") are left
    // out: they carry no duration to read, and opening one only parses the
    // codec. So is MXF: a file of 500 KB that declared index tables again
    // and again made its reader build 1 GB of them.
    static const char* const kDemuxers;
    // What one file may make libavformat read: the header tables of hours of
    // video and the frames probed for stream information are a few MiB. A
    // sparse file whose header declares hundreds of millions of entries
    // stops here instead of filling gigabytes.
    static constexpr int64_t kMaxBytesRead = 32 << 20;
    // The largest single allocation libavformat may make in this process (it
    // is a process-wide setting, made at the first open): an index of
    // millions of frames fits.
    static constexpr std::size_t kMaxAllocation = 64 << 20;
    static constexpr int kIoBufferSize = 32 << 10;

    // Sets the process-wide allocation limit and has libavformat and
    // libavcodec build their tables of formats and codecs, once per process.
    // A process that forks readers calls it before the first fork: children
    // then find the work done, rather than half done by a thread that the
    // fork left behind, and don't repeat it. Any thread.
    static void sPrepare();

    ContainerReader(const std::string& path, std::chrono::steady_clock::time_point deadline);
    virtual ~ContainerReader();

    // The opened container, or NULL when path is not a regular file holding
    // a container of kDemuxers that opened within the limits.
    AVFormatContext* context() const { return context_; }
    // The first other input the file asked to open, or empty.
    const std::string& refusedOpen() const { return refusedOpen_; }

private:
    ContainerReader(const ContainerReader&);
    ContainerReader& operator=(const ContainerReader&);

    bool openFile(const std::string& path);
    bool openContainer(const std::string& path);
    bool pastDeadline() const;

    static int sRead(void* opaque, uint8_t* buffer, int size);
    static int64_t sSeek(void* opaque, int64_t offset, int whence);
    static int sInterrupt(void* opaque);
    static int sRefuseOpen(AVFormatContext* context, AVIOContext** pb, const char* url, int flags,
                           AVDictionary** options);

    int fd_;
    int64_t size_;
    int64_t position_;
    int64_t bytesRead_;
    std::chrono::steady_clock::time_point deadline_;
    AVIOContext* io_;
    AVFormatContext* context_;
    std::string refusedOpen_;
};

}  // namespace talvern

#endif
