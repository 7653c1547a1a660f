// Feeds arbitrary bytes to the EXIF thumbnail route as a file: EXIF data is
// read, the orientation taken and the embedded thumbnail written out.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <glog/logging.h>
#include <libexif/exif-data.h>

#include <cstdio>
#include <string>

#include "multimedia/ImageUtil.h"

namespace {

std::string gSource;
std::string gTarget;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FLAGS_minloglevel = google::GLOG_FATAL;
    char directory[] = "/tmp/quorvia-fuzz-exif-XXXXXX";
    if (mkdtemp(directory) == NULL) {
        abort();
    }
    gSource = std::string(directory) + "/in.jpg";
    gTarget = std::string(directory) + "/thumb.jpg";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* file = fopen(gSource.c_str(), "wb");
    if (file == NULL) {
        return 0;
    }
    fwrite(data, 1, size, file);
    fclose(file);
    talvern::ImageUtil util;
    _ExifData* exifData = NULL;
    if (util.getExifData(gSource, exifData) == 0) {
        int degrees = 0;
        util.getImageOrientation(exifData, degrees);
        util.save_to_jpeg_file(exifData->data, exifData->size, gTarget, 0);
        exif_data_unref(exifData);
        unlink(gTarget.c_str());
    }
    return 0;
}
