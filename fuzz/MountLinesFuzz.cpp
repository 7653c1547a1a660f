// The mount-line parsers against arbitrary text: "/proc/mounts" lines, the
// "getdisk mnt" answer and the USB deployment search. Device existence is a
// rule on the name, so nothing touches the disk; the search writes into a
// heap buffer of exactly the documented size, so a write past it is caught.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>
#include <string>
#include <vector>

#include "system/DeviceMountInfo.h"

namespace {

bool evenLengthExists(const char* device) { return strlen(device) % 2 == 0; }

void searchUsbRoot(std::vector<char>& text) {
    if (text.empty()) {
        return;
    }
    FILE* stream = fmemopen(&text[0], text.size(), "r");
    if (stream == NULL) {
        return;
    }
    char* rootPath = static_cast<char*>(malloc(talvern::DeviceMountInfo::kUsbDeployFieldSize));
    const int found =
        talvern::DeviceMountInfo::sFindUsbDeployRootPath(stream, rootPath, evenLengthExists);
    fclose(stream);
    if (found == 1 && strlen(rootPath) >= talvern::DeviceMountInfo::kUsbDeployFieldSize) {
        __builtin_trap();
    }
    free(rootPath);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::istringstream mounts(input);
    talvern::DeviceMountInfo::sParseSystemMounts(mounts, "/dev/sd", evenLengthExists);
    std::istringstream everyLine(input);
    talvern::DeviceMountInfo::sParseSystemMounts(everyLine, "", evenLengthExists);
    talvern::DeviceMountInfo::sParseGetdiskOutput(input);
    std::vector<char> text(input.begin(), input.end());
    searchUsbRoot(text);
    usbdeploy_begins_with(input.c_str(), "/dev/sd");
    return 0;
}
