// The MAC filter parser against arbitrary file text. The first line of the
// input is the MAC asked for, the rest the filter file; the text is read from
// memory, so nothing touches the disk or runs a command.
#include <stdint.h>
#include <stdio.h>
#include <strings.h>

#include <string>
#include <vector>

#include "system/MacFilter.h"

namespace {

int compareNoCase(const char* stored, const char* mac, unsigned length) {
    return strncasecmp(stored, mac, length);
}

void ask(std::vector<char>& filter, const std::string& mac, const char* attribute) {
    if (filter.empty()) {
        return;
    }
    FILE* stream = fmemopen(&filter[0], filter.size(), "r");
    if (stream == NULL) {
        return;
    }
    const int answer = talvern::MacFilter::sFindAttribute(stream, mac.c_str(), attribute,
                                                          compareNoCase);
    fclose(stream);
    if (answer != 0 && answer != 1) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string::size_type end = input.find('\n');
    const std::string mac = input.substr(0, end);
    std::vector<char> filter;
    if (end != std::string::npos) {
        filter.assign(input.begin() + end + 1, input.end());
    }
    talvern::MacFilter::sIsPlainMac(mac.c_str());
    ask(filter, mac, "pridisk");
    ask(filter, mac, "lan");
    return 0;
}
