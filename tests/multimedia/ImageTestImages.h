#ifndef QUORVIA_TESTS_MULTIMEDIA_IMAGETESTIMAGES_H
#define QUORVIA_TESTS_MULTIMEDIA_IMAGETESTIMAGES_H

// Images made at test time with ImageMagick (the real binaries under
// /usr/bin, not whatever PATH holds) and exiftool, and the checks that decode
// results. Set-up only: failures here fail the test.

#include <jpeglib.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/DeviceRootTest.h"

namespace quorvia_test {

inline bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

// convert with arguments, writing path.
inline bool makeImage(const std::string& arguments, const std::string& path) {
    return system(("/usr/bin/convert " + arguments + " '" + path + "' >/dev/null 2>&1").c_str()) ==
           0;
}

// A width x height picture, red on its left half and blue on its right,
// with noise (large files) or without (small files).
inline bool makeRedBlue(const std::string& path, int width, int height, bool noisy,
                        const std::string& options = "") {
    const std::string half = std::to_string(width / 2) + "x" + std::to_string(height);
    return makeImage("-size " + half + " 'xc:rgb(200,40,40)' -size " + half +
                         " 'xc:rgb(40,40,200)' +append " +
                         (noisy ? "-seed 1 -attenuate 2 +noise Gaussian " : "") + options,
                     path);
}

// Embeds a red/blue EXIF thumbnail of 160x120 (made once per scratchDir)
// and sets the orientation.
inline bool addExifThumbnail(const std::string& path, int orientation,
                             const std::string& scratchDir) {
    const std::string thumb = scratchDir + "/exif-thumb.jpg";
    const std::string exiftool = "exiftool -q -overwrite_original '-ThumbnailImage<=" + thumb +
                                 "' -Orientation#=" + std::to_string(orientation) + " '" + path +
                                 "' >/dev/null 2>&1";
    return (exists(thumb) || makeRedBlue(thumb, 160, 120, false, "-quality 80")) &&
           system(exiftool.c_str()) == 0;
}

// "WxH" of each frame, blank-separated; empty when the file doesn't decode.
inline std::string geometryOf(const std::string& path) {
    const std::string sizes =
        capture("/usr/bin/identify -format '%wx%h ' /dev/stdin < '" + path + "' 2>/dev/null");
    return sizes.substr(0, sizes.find_last_not_of(' ') + 1);
}

// The colours of the picture's quarters, row by row: "RBRB" for an upright
// red/blue picture, "RRBB" turned a quarter clockwise, "BRBR" upside down,
// "BBRR" a quarter anticlockwise.
inline std::string quarters(const std::string& path) {
    return capture("/usr/bin/convert '" + path +
                   "'[0] -resize '2x2!' -depth 8 txt:- 2>/dev/null | "
                   "awk -F'[(),]' 'NR>1 { printf($3 > $5 ? \"R\" : \"B\") }'");
}

// The JPEG with its first frame header (SOF0..2) claiming width x height.
inline std::string withClaimedSize(std::string jpeg, int width, int height) {
    for (size_t i = 2; i + 9 < jpeg.size(); ++i) {
        const unsigned char marker = static_cast<unsigned char>(jpeg[i + 1]);
        if (static_cast<unsigned char>(jpeg[i]) == 0xFF && marker >= 0xC0 && marker <= 0xC2) {
            const char size[] = {char(height >> 8), char(height), char(width >> 8), char(width)};
            return jpeg.replace(i + 5, 4, size, 4);
        }
    }
    return jpeg;
}

// A valid progressive grey JPEG of width x height that sends its AC
// coefficients one per scan in two steps of precision: 127 scans, many more
// than any encoder writes by default.
inline bool writeManyScanJpeg(const std::string& path, int width, int height) {
    FILE* out = fopen(path.c_str(), "wb");
    if (out == NULL) {
        return false;
    }
    jpeg_compress_struct cinfo;
    jpeg_error_mgr errors;
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, out);
    cinfo.image_width = width;
    cinfo.image_height = height;
    cinfo.input_components = 1;
    cinfo.in_color_space = JCS_GRAYSCALE;
    jpeg_set_defaults(&cinfo);
    // DC first, then each AC coefficient alone at one bit less precision,
    // then each refined.
    std::vector<jpeg_scan_info> script(1, jpeg_scan_info{1, {0, 0, 0, 0}, 0, 0, 0, 0});
    for (int al = 1; al >= 0; --al) {
        for (int k = 1; k < 64; ++k) {
            script.push_back(jpeg_scan_info{1, {0, 0, 0, 0}, k, k, al == 1 ? 0 : 1, al});
        }
    }
    cinfo.scan_info = script.data();
    cinfo.num_scans = static_cast<int>(script.size());
    jpeg_start_compress(&cinfo, TRUE);
    std::vector<JSAMPLE> row(width, 128);
    JSAMPROW rows = row.data();
    while (cinfo.next_scanline < cinfo.image_height) {
        jpeg_write_scanlines(&cinfo, &rows, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return fclose(out) == 0;
}

// A GIF of frames copies of the one frame in oneFrameGif, written by hand
// (ImageMagick takes minutes to write a thousand frames).
inline std::string repeatedGif(const std::string& oneFrameGif, int frames) {
    // The frames start behind the header and its colour table.
    const unsigned char flags = static_cast<unsigned char>(oneFrameGif[10]);
    const size_t framesStart = 13 + ((flags & 0x80) != 0 ? 3u << ((flags & 7) + 1) : 0);
    const std::string frame = oneFrameGif.substr(framesStart, oneFrameGif.size() - 1 - framesStart);
    std::string gif = oneFrameGif.substr(0, framesStart);
    for (int i = 0; i < frames; ++i) {
        gif += frame;
    }
    return gif + ";";
}

}  // namespace quorvia_test

#endif
