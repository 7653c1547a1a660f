#ifndef QUORVIA_MULTIMEDIA_METADATA_H
#define QUORVIA_MULTIMEDIA_METADATA_H

#include <cstddef>
#include <string>

struct _ExifData;

namespace talvern {

// One file's metadata as the index keeps it. A default record has empty
// strings and date 0.
struct metadata_s {
    std::string title;
    // Seconds since the epoch, 0 for none. Holds 32-bit signed values only
    // (the device's long); wider times are cut to their low 32 bits.
    long date;
    std::string mime;
    // Whole seconds as decimal text; empty when not known.
    std::string duration;
    std::string artist;
    std::string album;

    metadata_s() : date(0) {}
};

// Metadata extraction: static operations that touch nothing but their
// arguments, so any thread may call them at the same time. Results are 0 for
// success and small negative numbers for failure; a failure still leaves a
// usable record, filled as far as the file allowed.
class Metadata {
public:
    // Longest time one media file may take to open and probe.
    static constexpr int kOpenDeadlineSeconds = 10;
    // How far into a file the EXIF block is looked for: it follows the start
    // of the image and the other application blocks (JFIF, XMP, an ICC
    // profile), a few hundred KiB at most. The loader takes runs of 0xFF as
    // padding for as long as they last (300 MB of them held a worker for
    // 8 s), and a camera raw header may place the block 4 GiB in.
    static constexpr size_t kMaxExifScanBytes = 512 << 10;

    virtual ~Metadata() {}

    // Title from name, MIME type from name's suffix; a JPEG's date from its
    // EXIF block. path is the file to read, name the display name. date starts
    // at defaultModifyTime (0 for none). viaThrift hands the work to the daemon
    // (getImageMetadataViaThrift). 0, or -1 for a JPEG without EXIF data.
    static int getImageMetadata(const std::string& path, const std::string& name,
                                long defaultModifyTime, metadata_s& metadata,
                                const std::string& hash, bool viaThrift);

    // Start-up, on the main thread before any other thread starts: makes the
    // process whose bounded children read video containers (BoundedSpawner).
    // false: none could be made, and videos are read in this process.
    static bool sStartVideoReaders();

    // Title, duration and (MP4 family) creation time of a video. The local route
    // always returns 0; mime, artist and album are not touched. The container
    // is parsed in a child process (sStartVideoReaders), so that a crafted
    // one costs that child, not the caller; without one, in the caller.
    static int getVideoMetadata(const std::string& path, const std::string& name,
                                long defaultModifyTime, metadata_s& metadata,
                                const std::string& hash, bool viaThrift);

    // The title alone (set to name when path is not empty); reads no file.
    // Always 0.
    static int getAudioMetadata(const std::string& path, const std::string& name,
                                metadata_s& metadata);

    // The remote route: asks the daemon on its loopback port. -1 when no reply
    // could be parsed (record untouched); 0 otherwise, and a reply with a
    // non-zero "code" leaves the record untouched too.
    static int getImageMetadataViaThrift(const std::string& path, const std::string& hash,
                                         const std::string& name, long defaultModifyTime,
                                         metadata_s& metadata);
    static int getAudioMetadataViaThrift(const std::string& path, const std::string& hash,
                                         const std::string& name, metadata_s& metadata);
    static int getVideoMetadataViaThrift(const std::string& path, const std::string& hash,
                                         const std::string& name, long defaultModifyTime,
                                         metadata_s& metadata);

    // The EXIF block of a regular file, or NULL; the caller releases it with
    // exif_data_unref. The file is opened without blocking and checked before
    // any read (a FIFO, a device or a directory can't stall the caller), and
    // read no further than kMaxExifScanBytes, whatever the file declares.
    static _ExifData* sLoadExif(const std::string& path);

    // Replaces metadata.date when it is 0 or before 1980: by defaultModifyTime
    // when that is not 0, else by the file's modification time.
    static void getModifyTime(const std::string& path, metadata_s& metadata,
                              long defaultModifyTime);
};

}  // namespace talvern

#endif
