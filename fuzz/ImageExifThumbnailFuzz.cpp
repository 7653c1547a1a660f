// Feeds arbitrary bytes to the EXIF thumbnail route as a file: EXIF data is
// read, the orientation taken and the embedded thumbnail written out.
#include <libexif/exif-data.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "FuzzInputFile.h"
#include "multimedia/ImageUtil.h"

namespace {

quorvia_fuzz::FuzzInputFile gInput;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gInput.create("exif");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!gInput.write(data, size)) {
        return 0;
    }
    talvern::ImageUtil util;
    _ExifData* exifData = NULL;
    if (util.getExifData(gInput.source(), exifData) == 0) {
        int degrees = 0;
        util.getImageOrientation(exifData, degrees);
        util.save_to_jpeg_file(exifData->data, exifData->size, gInput.target(), 0);
        exif_data_unref(exifData);
        unlink(gInput.target().c_str());
    }
    return 0;
}
