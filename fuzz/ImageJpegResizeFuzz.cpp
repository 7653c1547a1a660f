// Feeds arbitrary bytes to the JPEG resizer as a file: every input must end
// in a result, without a crash, a leak or a hang.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <glog/logging.h>

#include <cstdio>
#include <string>

#include "multimedia/ImageUtil.h"

namespace {

std::string gSource;
std::string gTarget;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FLAGS_minloglevel = google::GLOG_FATAL;
    char directory[] = "/tmp/quorvia-fuzz-jpeg-XXXXXX";
    if (mkdtemp(directory) == NULL) {
        abort();
    }
    gSource = std::string(directory) + "/in.jpg";
    gTarget = std::string(directory) + "/out.jpg";
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
    unsigned char* buffer = NULL;
    unsigned long bufferSize = 0;
    int srcWidth = 0, srcHeight = 0, outWidth = 0, outHeight = 0;
    // A small target, so that nearly every input is decoded reduced.
    util.resizeJpeg(gSource, gTarget, &buffer, &bufferSize, &srcWidth, &srcHeight, 16, 12,
                    &outWidth, &outHeight, 0);
    free(buffer);
    unlink(gTarget.c_str());
    return 0;
}
