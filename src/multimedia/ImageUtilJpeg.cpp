#include <jerror.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include "multimedia/ImageUtil.h"
#include "storage/File.h"
#include "storage/ReplacementFile.h"
#include "system/HeldFolder.h"
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
        minSide == -1
            ? 128
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
    FILE* source = File::sOpenRegularFile(srcPath);
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
            sCopyAsThumbnail(srcPath, dstPath);
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
    // Written in the folder walked here, never where a link planted on the
    // disk meanwhile leads.
    const HeldFolder target(path);
    ReplacementFile replacement(target.descriptor(), target.name());
    FILE* file = replacement.stream();
    if (file == NULL) {
        QLOG(ERROR) << "open file" << path << " fail";
        return -1;
    }
    if (size == 0) {
        QLOG(ERROR) << "jpeg file " << path << " is empty, delete it. useChunk is " << useChunk;
        // Nothing may stand for the thumbnail: an older one at path goes too
        // (a folder there stays).
        unlinkat(target.descriptor(), target.name().c_str(), 0);
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
    if (!written || !replacement.commitKeepingOwner(false)) {
        QLOG(ERROR) << "write jpeg file " << path << " fail, delete it";
        return -1;
    }
    QLOG(INFO) << "save to jpeg file success, target path is " << path << ", isUseChunk "
               << useChunk;
    return 0;
}

}  // namespace talvern
