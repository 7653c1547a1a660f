// Video extraction against arbitrary file content named .mp4, as a disk
// written by others may hold: the record is filled or left alone, and the
// duration, when set, is decimal digits. Each input is written to one file
// of a private folder.
#include <glog/logging.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "multimedia/MetadataVideoProbe.h"

namespace {

std::string& folderPath() {
    static std::string folder;
    return folder;
}

void removeFolder() { system(("rm -rf '" + folderPath() + "'").c_str()); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FLAGS_minloglevel = google::GLOG_FATAL;
    char pattern[] = "/tmp/quorvia-fuzz-video-XXXXXX";
    if (mkdtemp(pattern) == NULL) {
        abort();
    }
    folderPath() = pattern;
    atexit(removeFolder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = folderPath() + "/input.mp4";
    FILE* out = fopen(file.c_str(), "wb");
    if (out == NULL || fwrite(data, 1, size, out) != size) {
        abort();
    }
    fclose(out);
    talvern::metadata_s metadata;
    talvern::videoprobe::readContainer(file, metadata,
                                       talvern::videoprobe::kStreamInfoWhenHeaderIsOpen);
    if (metadata.duration.find_first_not_of("0123456789") != std::string::npos) {
        __builtin_trap();
    }
    return 0;
}
