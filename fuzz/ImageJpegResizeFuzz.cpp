// Feeds arbitrary bytes to the JPEG resizer as a file: every input must end
// in a result, without a crash, a leak or a hang.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include "FuzzInputFile.h"
#include "multimedia/ImageUtil.h"

namespace {

quorvia_fuzz::FuzzInputFile gInput;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gInput.create("jpeg");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!gInput.write(data, size)) {
        return 0;
    }
    talvern::ImageUtil util;
    unsigned char* buffer = NULL;
    unsigned long bufferSize = 0;
    int srcWidth = 0, srcHeight = 0, outWidth = 0, outHeight = 0;
    // A small target, so that nearly every input is decoded reduced.
    std::string target = gInput.target();
    util.resizeJpeg(gInput.source(), target, &buffer, &bufferSize, &srcWidth, &srcHeight, 16, 12,
                    &outWidth, &outHeight, 0);
    free(buffer);
    unlink(gInput.target().c_str());
    return 0;
}
