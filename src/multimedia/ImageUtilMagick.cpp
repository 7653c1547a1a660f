#include <png.h>
#include <wand/MagickWand.h>

#include <boost/thread/once.hpp>
#include <csetjmp>
#include <cstdio>

#include "multimedia/ImageUtil.h"
#include "storage/File.h"
#include "storage/ReplacementFile.h"
#include "system/HeldFolder.h"
#include "system/ImageUtils.h"
#include "system/Log.h"

namespace talvern {

namespace {

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

// Reads path's picture from file (NULL when it couldn't be opened), which it
// closes. Through a descriptor of our own: ImageMagick would take parts of a
// name ("format:", "[frames]") as instructions and would block on a FIFO.
bool magickReadFile(MagickWand* wand, const std::string& path, FILE* file) {
    QLOG(INFO) << "begin use image magick read image " << path;
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

bool magickRead(MagickWand* wand, const std::string& path) {
    return magickReadFile(wand, path, File::sOpenRegularFile(path));
}

// Writes every frame, joined, in the format they were read in, as the whole
// new content of the file in the folder held (see ReplacementFile); nothing
// is left of a failed write.
bool magickWrite(MagickWand* wand, const HeldFolder& target) {
    ReplacementFile replacement(target.descriptor(), target.name());
    if (replacement.stream() == NULL) {
        return false;
    }
    const bool done = MagickWriteImagesFile(wand, replacement.stream()) == MagickTrue &&
                      replacement.commitKeepingOwner(false);
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

int ImageUtil::rotateImage(const std::string& path, int degrees) {
    // Read and written again in the one folder walked here: a thumbnail lies
    // on the disk, where a link planted at its name or on its way would lead
    // the read or the write elsewhere.
    const HeldFolder target(path);
    MagickWand* wand = newMagickWand();
    PixelWand* background = NULL;
    int result = -1;
    if (!magickReadFile(
            wand, path,
            File::sOpenRegularFileIn(target.descriptor(), target.name(), !target.isOnDisk()))) {
        QLOG(ERROR) << "read jpg " << path << " fail";
    } else {
        background = NewPixelWand();
        PixelSetColor(background, "#000000");
        if (MagickRotateImage(wand, background, static_cast<double>(degrees)) != MagickTrue) {
            QLOG(ERROR) << "rotate jpg " << path << " fail";
        } else if (!magickWrite(wand, target)) {
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

int ImageUtil::resizePng(const std::string& path, int width, int* srcWidth, int* srcHeight,
                         std::string& thumbPath) {
    FILE* file = File::sOpenRegularFile(path);
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
    // A frame that can't be sampled (to a width of 0, say) is not written
    // unscaled as if it were the thumbnail: the call fails and says why.
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
            const bool written = magickWrite(wand, HeldFolder(thumbPath));
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
