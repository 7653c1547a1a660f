// The configuration-file readers against arbitrary file content: the value
// and list readers answer (empty when the file doesn't parse), and the
// string reader answers or throws libconfig's parse exception, as its
// callers expect; nothing else leaves them.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <libconfig.h++>
#include <string>

#include "FuzzRoot.h"
#include "system/ConfigInfo.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quorvia_fuzz::privateRoot("config");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string file = quorvia_fuzz::rootPath() + "/fuzz.cfg";
    FILE* out = fopen(file.c_str(), "wb");
    if (out == NULL || fwrite(text.data(), 1, text.size(), out) != text.size()) {
        abort();
    }
    fclose(out);
    talvern::ConfigInfo* info = talvern::ConfigInfo::sGetInstance();
    talvern::ConfigInfo::sGetConfigFromFile(file, "needCopyInstruction");
    info->getListFromFile(file, "macs");
    try {
        info->getConfigFromString(text.c_str(), "a.b");
    } catch (const libconfig::ParseException&) {
        // Text that doesn't parse: the string reader's documented answer.
    }
    return 0;
}
