#include "system/ConfigUtils.h"

#include <fcntl.h>

#include <boost/thread/lock_guard.hpp>
#include <libconfig.h++>

#include "storage/File.h"

ConfigUtils::ConfigUtils(const std::string& path) : mutex_(), path_(path) {}

void ConfigUtils::sReadFile(libconfig::Config& config, const std::string& path) {
    sReadFileIn(config, AT_FDCWD, path, true);
}

void ConfigUtils::sReadFileIn(libconfig::Config& config, int folder, const std::string& name,
                              bool followLink) {
    std::string text;
    if (!talvern::File::sReadRegularFileIn(folder, name, followLink, kMaxFileBytes, text)) {
        throw libconfig::FileIOException();
    }
    config.readString(text);
}

std::string ConfigUtils::getConfigFromKey(const std::string& key) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    try {
        libconfig::Config config;
        sReadFile(config, path_);
        std::string value;
        if (config.getRoot().lookupValue(key, value)) {
            return value;
        }
    } catch (...) {
        // A missing or broken file is an ordinary answer here: no value.
    }
    return std::string();
}
