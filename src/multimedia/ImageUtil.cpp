#include "multimedia/ImageUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>
#include <jerror.h>
#include <png.h>
#include <wand/MagickWand.h>

#include <boost/filesystem.hpp>
#include <boost/thread/once.hpp>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/ReplacementFile.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/ImageUtils.h"
#include "system/Log.h"

namespace talvern {

namespace {

// ---- libjpeg plumbing ----

// One error manager per resize, so each call jumps back to its own frame and
// several threads can resize at once.
struct JpegErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
};

// Everything a resize must still reach after libjpeg jumps back. It lives in
// resizeJpeg's frame, outside the frame that calls setjmp, so none of it is
// left indeterminate by the jump.
struct JpegResizeJob {
    JpegErrorManager errors;
    jpeg_progress_mgr progress;
    jpeg_decompress_struct decompressor;
    jpeg_compress_struct compressor;
    my_dst_mgr destination;
    FILE* source;
    int targetWidth;
    int targetHeight;
};

enum JpegOutcome { JPEG_FAILED, JPEG_TOO_LARGE, JPEG_NO_SCALE, JPEG_SCALED };

void logJpegMessage(j_common_ptr cinfo) {
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    QLOG(ERROR) << "libjpeg: " << text;
}

// Warnings are libjpeg's word for corrupt or truncated data, which it would
// otherwise paint grey and go on: they end the call like errors.
void stopOnWarning(j_common_ptr cinfo, int level) {
    if (level < 0) {
        ImageUtil::libjpeg_error_handler(cinfo);
    }
}

void countScans(j_common_ptr cinfo) {
    if (!cinfo->is_decompressor) {
        return;
    }
    const j_decompress_ptr decompressor = reinterpret_cast<j_decompress_ptr>(cinfo);
    if (decompressor->input_scan_number > ImageUtil::kMaxJpegScans) {
        QLOG(ERROR) << "jpeg has more than " << ImageUtil::kMaxJpegScans << " scans, give up";
        longjmp(reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump, 1);
    }
}

// libjpeg's own route for a failed allocation; does not return.
void exitOutOfMemory(jpeg_compress_struct* cinfo) {
    ERREXIT1(cinfo, JERR_OUT_OF_MEMORY, 10);
}

void prepareJob(JpegResizeJob& job) {
    jpeg_std_error(&job.errors.pub);
    job.errors.pub.error_exit = ImageUtil::libjpeg_error_handler;
    job.errors.pub.output_message = logJpegMessage;
    job.errors.pub.emit_message = stopOnWarning;
    job.decompressor.err = &job.errors.pub;
    job.compressor.err = &job.errors.pub;
    job.progress.progress_monitor = countScans;
}

void releaseJob(JpegResizeJob& job) {
    jpeg_destroy_decompress(&job.decompressor);
    jpeg_destroy_compress(&job.compressor);
    std::fclose(job.source);
    job.source = NULL;
}

// Reads the header and, when the source must shrink, decodes it reduced and
// compresses the result into job.destination. Every libjpeg error lands at
// the setjmp here and gives JPEG_FAILED.
JpegOutcome runJpegResize(ImageUtil& util, JpegResizeJob& job) {
    if (setjmp(job.errors.jump)) {
        return JPEG_FAILED;
    }
    jpeg_decompress_struct& in = job.decompressor;
    jpeg_compress_struct& out = job.compressor;
    jpeg_create_decompress(&in);
    in.mem->max_memory_to_use = ImageUtil::kMaxJpegDecoderMemory;
    in.progress = &job.progress;
    jpeg_stdio_src(&in, job.source);
    jpeg_create_compress(&out);
    ImageUtil::jpeg_memory_dest_256k(&out, &job.destination);

    jpeg_read_header(&in, TRUE);
    if (in.image_width > static_cast<JDIMENSION>(ImageUtil::kMaxJpegSide) ||
        in.image_height > static_cast<JDIMENSION>(ImageUtil::kMaxJpegSide)) {
        QLOG(INFO) << "image too large, jpeg width is " << in.image_width
                   << " and jpeg height is " << in.image_height;
        return JPEG_TOO_LARGE;
    }
    in.scale_num = 1;
    in.do_fancy_upsampling = FALSE;
    in.do_block_smoothing = FALSE;
    in.scale_denom = util.computeSampleSize(in.image_width, in.image_height, job.targetWidth,
                                            job.targetWidth * job.targetHeight);
    if (in.scale_denom <= 1) {
        QLOG(INFO) << "no need to scale";
        return JPEG_NO_SCALE;
    }
    QLOG(INFO) << "scale(" << in.scale_num << ", " << in.scale_denom << ") origin("
               << in.image_width << ", " << in.image_height << ") target(" << job.targetWidth
               << ", " << job.targetHeight << ")";

    jpeg_start_decompress(&in);
    out.image_width = in.output_width;
    out.image_height = in.output_height;
    out.input_components = in.output_components;
    out.in_color_space = JCS_RGB;
    jpeg_set_defaults(&out);
    jpeg_set_quality(&out, ImageUtil::kJpegQuality, TRUE);
    jpeg_start_compress(&out, TRUE);

    // The row comes from the decoder's pool, so jpeg_destroy frees it on
    // every route.
    JSAMPARRAY row = (*in.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&in), JPOOL_IMAGE,
                                             in.output_width * in.output_components, 1);
    while (in.output_scanline < in.output_height) {
        jpeg_read_scanlines(&in, row, 1);
        jpeg_write_scanlines(&out, row, 1);
    }
    jpeg_finish_decompress(&in);
    jpeg_finish_compress(&out);
    return JPEG_SCALED;
}

// ---- Paths of the thumbnail tree ----

bool holdsParentStep(const std::string& path) {
    const std::string wrapped = "/" + path + "/";
    return wrapped.find("/../") != std::string::npos;
}

void createDirectoryIfMissing(const std::string& path) {
    if (!path.empty() && !Directory::sExists(path)) {
        Directory::sCreateDirectory(path);
    }
}

void createParentIfMissing(const std::string& path) {
    createDirectoryIfMissing(boost::filesystem::path(path).parent_path().string());
}

// true when a folder of path below root (which ends in "/") is a link: the
// thumbnail tree lies on the user disk, where one can be planted to lead the
// writes elsewhere.
bool passesThroughLink(const std::string& root, const std::string& path) {
    if (path.compare(0, root.size(), root) != 0) {
        return false;
    }
    for (std::string::size_type slash = path.find('/', root.size()); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        struct stat info;
        if (lstat(path.substr(0, slash).c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
            return true;
        }
    }
    return false;
}

// A thumbnail made before is a regular file; a link or a FIFO in its place
// is not one, and is replaced by the new thumbnail.
bool isMadeThumbnail(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool isJpegName(const std::string& path) {
    return CommonUtils::endWith(path, ".jpg") || CommonUtils::endWith(path, ".jpeg");
}

// A FIFO, directory or unreadable file would block or fail deep inside a
// library; it is turned away before anything reads it.
bool isReadableRegularFile(const std::string& path) {
    FILE* file = ImageUtils::sOpenRegularFile(path);
    if (file == NULL) {
        QLOG(ERROR) << "generate thumbnail, " << path << " is not a readable regular file";
        return false;
    }
    std::fclose(file);
    return true;
}

int orientationDegrees(int value) {
    switch (value) {
        case 3:
            return 180;
        case 6:
            return 90;
        case 8:
            return 270;
        default:
            return 0;
    }
}

// ---- ImageMagick ----

// Set up once and never torn down: tearing ImageMagick down per operation, as
// a pairing of genesis and terminus would, breaks any other thread inside it.
// The limits make a hostile file fail to read instead of taking the machine.
void setUpMagick() {
    MagickWandGenesis();
    MagickSetResourceLimit(WidthResource, ImageUtil::kMagickMaxSide);
    MagickSetResourceLimit(HeightResource, ImageUtil::kMagickMaxSide);
    MagickSetResourceLimit(AreaResource, ImageUtil::kMagickMaxArea);
    MagickSetResourceLimit(ListLengthResource, ImageUtil::kMagickMaxFrames);
    MagickSetResourceLimit(MemoryResource, ImageUtil::kMagickMaxMemory);
    MagickSetResourceLimit(MapResource, ImageUtil::kMagickMaxMemory);
    MagickSetResourceLimit(DiskResource, 0);
}

MagickWand* newMagickWand() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, setUpMagick);
    return NewMagickWand();
}

void logMagickError(MagickWand* wand) {
    ExceptionType severity;
    char* description = MagickGetException(wand, &severity);
    if (description != NULL) {
        QLOG(ERROR) << "image magick: " << description;
        MagickRelinquishMemory(description);
    }
}

// Reads through a descriptor of our own: ImageMagick would take parts of a
// name ("format:", "[frames]") as instructions and would block on a FIFO.
bool magickRead(MagickWand* wand, const std::string& path) {
    QLOG(INFO) << "begin use image magick read image " << path;
    FILE* file = ImageUtils::sOpenRegularFile(path);
    bool done = false;
    if (file != NULL) {
        done = MagickReadImageFile(wand, file) == MagickTrue;
        std::fclose(file);
    }
    QLOG(INFO) << "end use image magick read image " << path;
    if (!done) {
        logMagickError(wand);
    }
    return done;
}

// Writes every frame, joined, in the format they were read in, as the whole
// new content of path (see ReplacementFile); nothing is left of a failed
// write.
bool magickWrite(MagickWand* wand, const std::string& path) {
    ReplacementFile replacement(path);
    if (replacement.stream() == NULL) {
        return false;
    }
    const bool done = MagickWriteImagesFile(wand, replacement.stream()) == MagickTrue &&
                      replacement.commit(ImageUtil::kThumbnailMode, false);
    if (!done) {
        logMagickError(wand);
    }
    return done;
}

// ---- libpng ----

struct PngReader {
    png_structp png;
    png_infop info;
};

// Reads the header behind the 8 signature bytes already read; false when
// libpng reports an error (it jumps back here).
bool readPngHeader(PngReader& reader, FILE* file, png_uint_32& width, png_uint_32& height) {
    if (setjmp(png_jmpbuf(reader.png))) {
        return false;
    }
    png_init_io(reader.png, file);
    png_set_sig_bytes(reader.png, 8);
    png_read_info(reader.png, reader.info);
    width = png_get_image_width(reader.png, reader.info);
    height = png_get_image_height(reader.png, reader.info);
    return true;
}

int scaledHeight(int sourceWidth, int sourceHeight, int width) {
    if (sourceWidth <= 0) {
        return 0;
    }
    // At least one row: a very wide source would otherwise sample to nothing.
    const long long height = static_cast<long long>(sourceHeight) * width / sourceWidth;
    return height < 1 ? 1 : (height > INT_MAX ? INT_MAX : static_cast<int>(height));
}

}  // namespace

// ---- JPEG resizing and writing ----

int ImageUtil::computeInitialSampleSize(int width, int height, int minSide, int maxPixels) {
    if ((minSide != -1 && minSide <= 0) || (maxPixels != -1 && maxPixels <= 0)) {
        return 0;
    }
    const double w = width;
    const double h = height;
    const int lowBound =
        maxPixels == -1 ? 1 : static_cast<int>(std::ceil(std::sqrt(w * h / maxPixels)));
    const int highBound =
        minSide == -1 ? 128
                      : static_cast<int>(std::min(std::floor(w / minSide), std::floor(h / minSide)));
    if (highBound < lowBound) {
        return lowBound;
    }
    if (maxPixels == -1 && minSide == -1) {
        return 1;
    }
    if (minSide == -1) {
        return lowBound;
    }
    return highBound;
}

int ImageUtil::computeSampleSize(int width, int height, int minSide, int maxPixels) {
    const int initial = computeInitialSampleSize(width, height, minSide, maxPixels);
    if (initial <= 8) {
        int size = 1;
        while (size < initial) {
            size <<= 1;
        }
        return size;
    }
    return (initial + 7) / 8 * 8;
}

void ImageUtil::libjpeg_error_handler(jpeg_common_struct* cinfo) {
    (*cinfo->err->output_message)(cinfo);
    longjmp(reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump, 1);
}

void ImageUtil::jpeg_memory_dest_256k(jpeg_compress_struct* cinfo, my_dst_mgr* dest) {
    dest->pub.init_destination = my_dst_mgr_init_256k;
    dest->pub.empty_output_buffer = my_dst_mgr_empty_256k;
    dest->pub.term_destination = my_dst_mgr_term_256k;
    cinfo->dest = &dest->pub;
}

void ImageUtil::my_dst_mgr_init_256k(jpeg_compress_struct* cinfo) {
    my_dst_mgr* dest = reinterpret_cast<my_dst_mgr*>(cinfo->dest);
    dest->dataSize = 0;
    dest->bufferSize = kFirstBufferSize;
    dest->bufferStart = static_cast<unsigned char*>(std::malloc(kFirstBufferSize));
    if (dest->bufferStart == NULL) {
        exitOutOfMemory(cinfo);
    }
    dest->bufferEnd = dest->bufferStart;
    dest->pub.next_output_byte = dest->bufferStart;
    dest->pub.free_in_buffer = kFirstBufferSize;
}

boolean ImageUtil::my_dst_mgr_empty_256k(jpeg_compress_struct* cinfo) {
    my_dst_mgr* dest = reinterpret_cast<my_dst_mgr*>(cinfo->dest);
    const unsigned int oldSize = dest->bufferSize;
    unsigned char* grown = oldSize <= UINT_MAX / 2
                               ? static_cast<unsigned char*>(std::malloc(oldSize * 2u))
                               : NULL;
    if (grown == NULL) {
        exitOutOfMemory(cinfo);
    }
    std::memcpy(grown, dest->bufferStart, oldSize);
    dest->pub.next_output_byte = grown + oldSize;
    dest->pub.free_in_buffer = oldSize;
    std::free(dest->bufferStart);
    dest->bufferStart = grown;
    dest->bufferSize = oldSize * 2u;
    return TRUE;
}

void ImageUtil::my_dst_mgr_term_256k(jpeg_compress_struct* cinfo) {
    my_dst_mgr* dest = reinterpret_cast<my_dst_mgr*>(cinfo->dest);
    dest->dataSize = dest->bufferSize - static_cast<unsigned int>(dest->pub.free_in_buffer);
    dest->bufferEnd = dest->bufferStart + dest->dataSize;
}

int ImageUtil::resizeJpeg(const std::string& srcPath, std::string& dstPath,
                          unsigned char** outBuffer, unsigned long* outSize, int* srcWidth,
                          int* srcHeight, int targetWidth, int targetHeight, int* outWidth,
                          int* outHeight, int useChunk) {
    *outBuffer = NULL;
    *outSize = 0;
    FILE* source = ImageUtils::sOpenRegularFile(srcPath);
    if (source == NULL) {
        QLOG(ERROR) << "resize jpeg, open file " << srcPath << " fail";
        return -1;
    }
    JpegResizeJob job;
    std::memset(&job, 0, sizeof job);
    job.source = source;
    job.targetWidth = targetWidth;
    job.targetHeight = targetHeight;
    prepareJob(job);

    const JpegOutcome outcome = runJpegResize(*this, job);
    *srcWidth = static_cast<int>(job.decompressor.image_width);
    *srcHeight = static_cast<int>(job.decompressor.image_height);
    releaseJob(job);
    switch (outcome) {
        case JPEG_SCALED:
            break;
        case JPEG_NO_SCALE:
            *outWidth = *srcWidth;
            *outHeight = *srcHeight;
            File::sCopy(srcPath, dstPath);
            return -1;
        default:
            std::free(job.destination.bufferStart);
            return -1;
    }
    *outBuffer = job.destination.bufferStart;
    *outSize = job.destination.dataSize;
    *outWidth = static_cast<int>(job.compressor.image_width);
    *outHeight = static_cast<int>(job.compressor.image_height);
    return save_to_jpeg_file(*outBuffer, static_cast<unsigned int>(*outSize), dstPath, useChunk);
}

int ImageUtil::save_to_jpeg_file(const unsigned char* buffer, unsigned int size,
                                 const std::string& path, int useChunk) {
    ReplacementFile replacement(path);
    FILE* file = replacement.stream();
    if (file == NULL) {
        QLOG(ERROR) << "open file" << path << " fail";
        return -1;
    }
    if (size == 0) {
        QLOG(ERROR) << "jpeg file " << path << " is empty, delete it. useChunk is " << useChunk;
        return -1;
    }
    bool written = true;
    unsigned int offset = 0;
    if (useChunk != 0) {
        for (; size - offset >= kChunkSize && written; offset += kChunkSize) {
            written = std::fwrite(buffer + offset, 1, kChunkSize, file) == kChunkSize;
            usleep(kChunkPauseMicroseconds);
        }
    }
    if (written && size > offset) {
        written = std::fwrite(buffer + offset, 1, size - offset, file) == size - offset;
    }
    // A short write (a full disk) would leave a thumbnail that looks usable.
    if (!written || !replacement.commit(kThumbnailMode, false)) {
        QLOG(ERROR) << "write jpeg file " << path << " fail, delete it";
        return -1;
    }
    QLOG(INFO) << "save to jpeg file success, target path is " << path << ", isUseChunk "
               << useChunk;
    return 0;
}

// ---- Thumbnail pipeline ----

namespace {

const int kTargetFailed = -1;
const int kTargetDone = 0;
const int kTargetToResize = 1;

// The steps both routes take before decoding anything, once thumbPath holds
// the target (empty when it has none): a thumbnail made before, a source
// that can't be read, a source small enough to copy as it is.
// logTargetAsExisting: the "made before" line names the thumbnail rather
// than the source.
int prepareTarget(const std::string& path, bool logTargetAsExisting, std::string& thumbPath) {
    if (thumbPath.empty()) {
        return kTargetFailed;
    }
    if (isMadeThumbnail(thumbPath)) {
        QLOG(INFO) << (logTargetAsExisting ? thumbPath : path)
                   << " has resized middle thumbnail, no need to resize again";
        return kTargetDone;
    }
    if (!isReadableRegularFile(path)) {
        thumbPath.clear();
        return kTargetFailed;
    }
    if (File::sGetFileSize(path) <= ImageUtil::kCopyWithoutResizeSize) {
        File::sCopy(path, thumbPath);
        QLOG(INFO) << path << " too small, no need to resize";
        return kTargetDone;
    }
    return kTargetToResize;
}

}  // namespace

int ImageUtil::getThumbnail(const std::string& path, std::string& thumbPath, ThumbnailSize size,
                            const std::string& hash, int useChunk) {
    if (isJpegName(path)) {
        if (size == THUMBNAIL_SMALL) {
            return getThumbnailFromExif(path, thumbPath);
        }
        if (size != THUMBNAIL_MIDDLE) {
            return -1;
        }
        thumbPath = generateThumbPath(path, size, hash);
        const int prepared = prepareTarget(path, true, thumbPath);
        if (prepared != kTargetToResize) {
            return prepared;
        }
        QLOG(INFO) << path << " try use resize algorithm";
        unsigned char* buffer = NULL;
        unsigned long bufferSize = 0;
        int srcWidth = 0, srcHeight = 0, outWidth = 0, outHeight = 0;
        const int result =
            resizeJpeg(path, thumbPath, &buffer, &bufferSize, &srcWidth, &srcHeight,
                       kJpegMiddleWidth, kJpegMiddleHeight, &outWidth, &outHeight, useChunk);
        _ExifData* exifData = NULL;
        if (getExifData(path, exifData) == 0) {
            int degrees = 0;
            getImageOrientation(exifData, degrees);
            QLOG(INFO) << "get " << path << " orientation is " << degrees;
            exif_data_unref(exifData);
            if (degrees != 0) {
                rotateImage(thumbPath, degrees);
            }
        }
        std::free(buffer);
        return result;
    }

    if (CommonUtils::sIsCameraRawImage(path)) {
        QLOG(INFO) << "no need to generate thumbnail for camera raw image";
        return 0;
    }
    QLOG(INFO) << "generate thumb for not jpg file.";
    thumbPath = generateThumbPath(path, size, hash);
    const int prepared = prepareTarget(path, false, thumbPath);
    if (prepared != kTargetToResize) {
        return prepared;
    }
    ImageUtils imageUtils;
    if (imageUtils.resizeImage(path, thumbPath, kCommandLineWidth, kCommandLineHeight) ==
        ImageUtils::kResizeDone) {
        return 0;
    }
    thumbPath.clear();
    return -1;
}

int ImageUtil::getThumbnailFromExif(const std::string& path, std::string& thumbPath) {
    _ExifData* exifData = NULL;
    if (getExifData(path, exifData) != 0) {
        return -1;
    }
    int degrees = 0;
    getImageOrientation(exifData, degrees);
    QLOG(INFO) << "get " << path << " orientation is " << degrees;
    thumbPath = generateThumbPath(path, THUMBNAIL_SMALL, "");
    int result = thumbPath.empty() ? -1 : 0;
    if (result == 0) {
        result = save_to_jpeg_file(exifData->data, exifData->size, thumbPath, 1);
    }
    if (result == 0 && degrees != 0 && rotateImage(thumbPath, degrees) != 0) {
        result = -1;
    }
    exif_data_unref(exifData);
    return result;
}

int ImageUtil::getExifData(const std::string& path, _ExifData*& exifData) {
    exifData = NULL;
    if (path.empty()) {
        QLOG(ERROR) << "get thumbnail from exif, path is empty";
        return -1;
    }
    if (!File::sExists(path)) {
        QLOG(ERROR) << "get thumbnail from exif, path " << path << " not exist";
        return -2;
    }
    // The loader is fed from our own descriptor (no FIFO blocks it) and stops
    // asking once it holds the EXIF block; anything else gives no data.
    ExifLoader* loader = exif_loader_new();
    FILE* file = ImageUtils::sOpenRegularFile(path);
    if (file != NULL) {
        unsigned char block[1024];
        size_t got = 0;
        while ((got = std::fread(block, 1, sizeof block, file)) > 0 &&
               exif_loader_write(loader, block, static_cast<unsigned int>(got)) != 0) {
        }
        std::fclose(file);
    }
    ExifData* data = exif_loader_get_data(loader);
    exif_loader_unref(loader);
    if (data != NULL && data->size != 0 && data->data != NULL) {
        exifData = data;
        return 0;
    }
    if (data != NULL) {
        exif_data_unref(data);
    }
    QLOG(ERROR) << "get thumbnail from exif, there is no thumbnail in exif " << path;
    return -3;
}

int ImageUtil::getImageOrientation(_ExifData* exifData, int& orientation) {
    if (exifData == NULL) {
        QLOG(ERROR) << "get image orientation error, exif_data is NULL";
        return -1;
    }
    orientation = 0;
    ExifEntry* entry = exif_content_get_entry(exifData->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    // A damaged entry may hold fewer bytes than one short.
    if (entry != NULL && entry->data != NULL && entry->size >= 2) {
        orientation =
            orientationDegrees(exif_get_short(entry->data, exif_data_get_byte_order(exifData)));
    }
    return 0;
}

int ImageUtil::rotateImage(const std::string& path, int degrees) {
    MagickWand* wand = newMagickWand();
    PixelWand* background = NULL;
    int result = -1;
    if (!magickRead(wand, path)) {
        QLOG(ERROR) << "read jpg " << path << " fail";
    } else {
        background = NewPixelWand();
        PixelSetColor(background, "#000000");
        if (MagickRotateImage(wand, background, static_cast<double>(degrees)) != MagickTrue) {
            QLOG(ERROR) << "rotate jpg " << path << " fail";
        } else if (!magickWrite(wand, path)) {
            QLOG(ERROR) << "write jpg " << path << " fail";
        } else {
            QLOG(INFO) << "end rotate image" << path;
            result = 0;
        }
    }
    if (background != NULL) {
        DestroyPixelWand(background);
    }
    DestroyMagickWand(wand);
    return result;
}

std::string ImageUtil::generateThumbPath(const std::string& path, ThumbnailSize size,
                                         const std::string& hash) {
    // A size outside the two tiers has no root; refusing it keeps anything
    // from being written next to the source itself.
    if (size != THUMBNAIL_SMALL && size != THUMBNAIL_MIDDLE) {
        QLOG(ERROR) << "generate thumb path, unknown thumbnail size " << static_cast<int>(size);
        return std::string();
    }
    ConfigInfo* config = ConfigInfo::sGetInstance();
    std::string thumbPath;
    if (size == THUMBNAIL_SMALL) {
        if (path.empty() || path[0] != '/' || holdsParentStep(path)) {
            QLOG(ERROR) << "generate thumb path, " << path << " would leave the thumbnail tree";
            return std::string();
        }
        const std::string root = config->getSmallIconsRootPath();
        createDirectoryIfMissing(root);
        thumbPath = root + path;
    } else {
        const std::string root = config->getMiddleIconsRootPath();
        createDirectoryIfMissing(root);
        thumbPath = getMiddleIconsHashPath(hash);
        if (thumbPath.empty()) {
            return thumbPath;
        }
        QLOG(INFO) << "generateThumbPath thumbPath is " << thumbPath;
    }
    if (passesThroughLink(config->getThumbnailRootPath(), thumbPath)) {
        QLOG(ERROR) << "generate thumb path, " << thumbPath << " passes through a link";
        return std::string();
    }
    createParentIfMissing(thumbPath);
    return thumbPath;
}

std::string ImageUtil::getMiddleIconsHashPath(const std::string& hash) {
    if (hash.size() < 2 || holdsParentStep(hash)) {
        QLOG(ERROR) << "middle icon path, hash " << hash << " is not usable";
        return std::string();
    }
    return ConfigInfo::sGetInstance()->getMiddleIconsRootPath() + "/" + hash.substr(0, 2) + "/" +
           hash.substr(2, 2) + "/" + hash + ".jpg";
}

int ImageUtil::resizePng(const std::string& path, int width, int* srcWidth, int* srcHeight,
                         std::string& thumbPath) {
    FILE* file = ImageUtils::sOpenRegularFile(path);
    if (file == NULL) {
        QLOG(ERROR) << "failed to open " << path << ", error: " << std::strerror(errno);
        return -1;
    }
    png_byte signature[8];
    if (std::fread(signature, 1, sizeof signature, file) != sizeof signature ||
        png_sig_cmp(signature, 0, sizeof signature) != 0) {
        QLOG(ERROR) << path << "is not regular png";
        std::fclose(file);
        return -1;
    }
    PngReader reader;
    reader.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    reader.info = reader.png != NULL ? png_create_info_struct(reader.png) : NULL;
    png_uint_32 pngWidth = 0;
    png_uint_32 pngHeight = 0;
    const bool read = reader.info != NULL && readPngHeader(reader, file, pngWidth, pngHeight);
    png_destroy_read_struct(&reader.png, &reader.info, NULL);
    std::fclose(file);
    if (!read) {
        QLOG(ERROR) << "generate thumbnail " << path << " exception";
        return -1;
    }
    *srcWidth = static_cast<int>(pngWidth);
    *srcHeight = static_cast<int>(pngHeight);
    QLOG(INFO) << "use libpng read png " << path << " and its width=" << pngWidth
               << " height=" << pngHeight;
    if (pngWidth > static_cast<png_uint_32>(kMaxPngSide) ||
        pngHeight > static_cast<png_uint_32>(kMaxPngSide)) {
        QLOG(WARNING) << "resize png " << path << " too large, and width=" << pngWidth
                      << " height=" << pngHeight;
        return -1;
    }
    MagickWand* wand = newMagickWand();
    if (!magickRead(wand, path)) {
        QLOG(ERROR) << "read png" << path << " fail";
        DestroyMagickWand(wand);
        return -1;
    }
    return resizeImageUseImageMagick(wand, path, thumbPath, width,
                                     scaledHeight(*srcWidth, *srcHeight, width));
}

int ImageUtil::resizeGif(const std::string& path, int width, int* srcWidth, int* srcHeight,
                         std::string& thumbPath) {
    MagickWand* wand = newMagickWand();
    if (!magickRead(wand, path)) {
        QLOG(ERROR) << "read gif " << path << " fail";
        DestroyMagickWand(wand);
        return -1;
    }
    *srcWidth = static_cast<int>(MagickGetImageWidth(wand));
    *srcHeight = static_cast<int>(MagickGetImageHeight(wand));
    return resizeImageUseImageMagick(wand, path, thumbPath, width,
                                     scaledHeight(*srcWidth, *srcHeight, width));
}

int ImageUtil::resizeImageUseImageMagick(_MagickWand* wand, const std::string& path,
                                         std::string& thumbPath, int width, int height) {
    bool sampled = width > 0 && height > 0;
    MagickResetIterator(wand);
    while (sampled && MagickNextImage(wand) == MagickTrue) {
        sampled = MagickSampleImage(wand, width, height) == MagickTrue;
    }
    int result = -1;
    if (!sampled) {
        QLOG(ERROR) << "sample image " << path << " to " << width << "x" << height << " fail";
    } else {
        thumbPath = generateThumbPath(path, THUMBNAIL_SMALL, "");
        if (!thumbPath.empty()) {
            QLOG(INFO) << "begin magick write image " << thumbPath;
            const bool written = magickWrite(wand, thumbPath);
            QLOG(INFO) << "end magick write image";
            if (written) {
                result = 0;
            } else {
                QLOG(ERROR) << "write png " << thumbPath << " fail";
            }
        }
    }
    DestroyMagickWand(wand);
    return result;
}

}  // namespace talvern
