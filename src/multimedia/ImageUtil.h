#ifndef QUORVIA_MULTIMEDIA_IMAGEUTIL_H
#define QUORVIA_MULTIMEDIA_IMAGEUTIL_H

#include <stdio.h>

#include <jpeglib.h>
#include <sys/types.h>

#include <string>

struct _ExifData;
struct _MagickWand;

namespace talvern {

// The two tiers of the thumbnail tree.
enum ThumbnailSize {
    // Small icon; for a JPEG the picture embedded in its EXIF data. Kept at
    // the small root followed by the source's absolute path.
    THUMBNAIL_SMALL = 0,
    // Middle icon: a scaled copy kept by content hash under the middle root.
    THUMBNAIL_MIDDLE = 1
};

// libjpeg destination that collects compressed output in a buffer from
// malloc, doubling it when full. pub comes first so the record stands for it.
struct my_dst_mgr {
    jpeg_destination_mgr pub;
    unsigned char* bufferStart;
    unsigned char* bufferEnd;
    unsigned int bufferSize;
    unsigned int dataSize;
};

// Thumbnails of image files: JPEG reduced decoding and recompression, the
// embedded EXIF thumbnail, and ImageMagick for other formats.
//
// Results are int: 0 for success, negative for failure, each failure logged.
// No operation lets a damaged or hostile file crash the process: libjpeg and
// libpng errors come back by longjmp to the call that met them, decoding work
// and memory are bounded by the constants below, and only regular files are
// opened as sources (a FIFO or a directory never blocks or is read).
//
// Threads: the JPEG operations keep all their state per call, so several
// threads may resize at once. ImageMagick is set up once per process with the
// resource limits below and never torn down, so the MagickWand operations may
// also run on several threads.
class ImageUtil {
public:
    // Destination buffer of a JPEG compression: first capacity, then doubled.
    static constexpr unsigned int kFirstBufferSize = 0x40000;
    // Largest source side resizeJpeg accepts; 10001 is refused. The pixel
    // bound of a decode is therefore 10000 x 10000.
    static constexpr int kMaxJpegSide = 10000;
    // Memory libjpeg may take for one decode. Baseline files need only a few
    // rows; a progressive file keeps all its coefficients (about 3 bytes per
    // pixel for 4:2:0), so this admits progressive photos up to about 40
    // megapixels and refuses larger ones before allocating.
    static constexpr long kMaxJpegDecoderMemory = 128L * 1024 * 1024;
    // Scans a progressive JPEG may hold; real encoders write about ten. Each
    // scan costs a pass over the whole image, so a small file of thousands of
    // scans would take minutes.
    static constexpr int kMaxJpegScans = 100;
    static constexpr int kJpegQuality = 86;
    // A slow write: blocks of this size with a pause after each.
    static constexpr unsigned int kChunkSize = 1024;
    static constexpr unsigned int kChunkPauseMicroseconds = 70000;

    // getThumbnail: sources up to this size are copied, not resized.
    static constexpr unsigned long kCopyWithoutResizeSize = 200000;
    static constexpr int kJpegMiddleWidth = 1280;
    static constexpr int kJpegMiddleHeight = 720;
    static constexpr int kCommandLineWidth = 400;
    static constexpr int kCommandLineHeight = 300;
    // resizePng refuses a source with a longer side.
    static constexpr int kMaxPngSide = 2500;

    // ImageMagick limits for this process: a side, the pixels of one frame,
    // the frames of one file and pixel cache memory (no disk cache). A file
    // beyond one of them fails to read.
    static constexpr unsigned long kMagickMaxSide = 10000;
    static constexpr unsigned long kMagickMaxArea = 40000000;
    static constexpr unsigned long kMagickMaxFrames = 300;
    static constexpr unsigned long kMagickMaxMemory = 128UL * 1024 * 1024;

    virtual ~ImageUtil() {}

    // ---- JPEG resizing and writing ----

    // Sample factor for a width x height source so that the result keeps at
    // least minSide on its shorter side and at most maxPixels (-1: no bound);
    // 0 for a bound of 0 or below, which no factor can meet.
    int computeInitialSampleSize(int width, int height, int minSide, int maxPixels);
    // That factor made usable: 1, 2, 4 or 8, above 8 a multiple of 8.
    int computeSampleSize(int width, int height, int minSide, int maxPixels);

    // Decodes srcPath reduced towards targetWidth x targetHeight, recompresses
    // it and writes it to dstPath (slowly when useChunk is non-zero). 0 when a
    // scaled file was written. -1 otherwise: an error (nothing written), or no
    // scaling needed, in which case dstPath receives a copy of the source and
    // the out sizes are the source's with a null buffer. On 0 the caller owns
    // *outBuffer (free()).
    int resizeJpeg(const std::string& srcPath, std::string& dstPath, unsigned char** outBuffer,
                   unsigned long* outSize, int* srcWidth, int* srcHeight, int targetWidth,
                   int targetHeight, int* outWidth, int* outHeight, int useChunk);
    // Writes size bytes to path; an empty result is deleted. 0 or -1.
    int save_to_jpeg_file(const unsigned char* buffer, unsigned int size, const std::string& path,
                          int useChunk);

    // Makes dest the compressor's destination with the three callbacks.
    static void jpeg_memory_dest_256k(jpeg_compress_struct* cinfo, my_dst_mgr* dest);
    static void my_dst_mgr_init_256k(jpeg_compress_struct* cinfo);
    static boolean my_dst_mgr_empty_256k(jpeg_compress_struct* cinfo);
    static void my_dst_mgr_term_256k(jpeg_compress_struct* cinfo);
    // libjpeg's error_exit: logs the message and jumps back to the call whose
    // error manager this is.
    static void libjpeg_error_handler(jpeg_common_struct* cinfo);

    // ---- Thumbnail pipeline ----

    // A thumbnail of the image at path. 0 when thumbPath is usable (for a
    // camera raw file: 0 with thumbPath untouched); non-zero otherwise, with
    // thumbPath empty when the non-JPEG route failed. hash addresses the
    // middle tier and needs at least two characters.
    int getThumbnail(const std::string& path, std::string& thumbPath, ThumbnailSize size,
                     const std::string& hash, int useChunk);
    // Writes the EXIF thumbnail of path to the small tier, rotated upright.
    int getThumbnailFromExif(const std::string& path, std::string& thumbPath);
    // 0 with data that has an embedded thumbnail (release with
    // exif_data_unref); -1 empty path; -2 missing file; -3 no thumbnail.
    int getExifData(const std::string& path, _ExifData*& exifData);
    // Clockwise degrees (0, 90, 180, 270) from the orientation tag; 0 or -1.
    int getImageOrientation(_ExifData* exifData, int& orientation);
    // Rotates the image at path clockwise in place. 0 or -1.
    int rotateImage(const std::string& path, int degrees);
    // Path of the thumbnail in the given tier; its directory exists
    // afterwards. Empty when it would lie outside the tier: a small-tier
    // source that is not absolute or holds a ".." component, or a hash
    // shorter than two characters or holding a ".." component.
    std::string generateThumbPath(const std::string& path, ThumbnailSize size,
                                  const std::string& hash);
    std::string getMiddleIconsHashPath(const std::string& hash);
    // Scale a PNG (through libpng's header, sides up to kMaxPngSide) or a GIF
    // (every frame) to width, keeping the ratio, into the small tier.
    int resizePng(const std::string& path, int width, int* srcWidth, int* srcHeight,
                  std::string& thumbPath);
    int resizeGif(const std::string& path, int width, int* srcWidth, int* srcHeight,
                  std::string& thumbPath);
    // Samples every frame of wand to width x height and writes them to the
    // small tier path of path. Destroys the wand. 0 or -1.
    int resizeImageUseImageMagick(_MagickWand* wand, const std::string& path,
                                  std::string& thumbPath, int width, int height);
    // A source that needs no resizing copied as its own thumbnail to to, in
    // the folder walked there without a link planted on the disk.
    static void sCopyAsThumbnail(const std::string& from, const std::string& to);
};

}  // namespace talvern

#endif
