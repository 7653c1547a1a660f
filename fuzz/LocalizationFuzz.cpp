// Feeds arbitrary bytes to the localisation reader as a language file and
// checks the line rules that every stored key and value must satisfy.
#include <stdint.h>
#include <stdlib.h>

#include <fstream>
#include <string>

#include "system/LocalizationHelper.h"

namespace {

const char* const kTrimmed = "\r\n ";

std::string& rootPath() {
    static std::string root;
    return root;
}

void removeRoot() { system(("rm -rf '" + rootPath() + "'").c_str()); }

std::string makeRoot() {
    char pattern[] = "/tmp/quorvia-fuzz-XXXXXX";
    if (mkdtemp(pattern) == NULL) {
        abort();
    }
    const std::string root(pattern);
    rootPath() = root;
    atexit(removeRoot);
    // A country code file, so that the country code is known without a tool.
    setenv("QUORVIA_ROOT", root.c_str(), 1);
    system(("mkdir -p '" + root + "/tmp' '" + root + "/loc'").c_str());
    std::ofstream(root + "/tmp/commonutils.config.tmp") << "code = \"CN\";\n";
    std::ofstream(root + "/loc/country.txt") << "CN###lang.txt\n";
    return root;
}

bool trimmed(const std::string& text) {
    return text.empty() || (std::string(kTrimmed).find(text[0]) == std::string::npos &&
                            std::string(kTrimmed).find(text[text.size() - 1]) == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string root = makeRoot();
    const std::string content(reinterpret_cast<const char*>(data), size);
    {
        std::ofstream out((root + "/loc/lang.txt").c_str(), std::ios::binary | std::ios::trunc);
        out << content;
    }
    talvern::LocalizationHelper helper(root + "/loc");
    // The first line's key, as the reader would cut it, must read back trimmed.
    const std::string firstLine = content.substr(0, content.find('\n'));
    const std::string key = firstLine.substr(0, firstLine.find('#'));
    const std::string value = helper.getValue(key);
    if (!trimmed(value) || value.find('#') != std::string::npos ||
        value.find('\n') != std::string::npos) {
        abort();
    }
    if (helper.getLanguagelPath("ZZ") != "lang.txt") {
        abort();
    }
    return 0;
}
