// The configuration-file readers against arbitrary file content: the value
// and list readers answer (empty when the file doesn't parse), and the
// string reader answers or throws libconfig's parse exception, as its
// callers expect; nothing else leaves them.
#include <glog/logging.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <libconfig.h++>
#include <string>

#include "system/ConfigInfo.h"

namespace {

std::string& rootPath() {
    static std::string root;
    return root;
}

void removeRoot() { system(("rm -rf '" + rootPath() + "'").c_str()); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FLAGS_minloglevel = google::GLOG_FATAL;
    char pattern[] = "/tmp/quorvia-fuzz-config-XXXXXX";
    if (mkdtemp(pattern) == NULL) {
        abort();
    }
    rootPath() = pattern;
    atexit(removeRoot);
    setenv("QUORVIA_ROOT", pattern, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string file = rootPath() + "/fuzz.cfg";
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
