// Video extraction against arbitrary file content named .mp4, as a disk
// written by others may hold: the record is filled or left alone, and the
// duration, when set, is decimal digits.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "FuzzInputFile.h"
#include "multimedia/MetadataVideoProbe.h"

namespace {

quorvia_fuzz::FuzzInputFile gInput;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gInput.create("video", "mp4");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!gInput.write(data, size)) {
        abort();
    }
    talvern::metadata_s metadata;
    talvern::videoprobe::readContainer(gInput.source(), metadata,
                                       talvern::videoprobe::kStreamInfoWhenHeaderIsOpen);
    if (metadata.duration.find_first_not_of("0123456789") != std::string::npos) {
        __builtin_trap();
    }
    return 0;
}
