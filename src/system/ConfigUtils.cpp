#include "system/ConfigUtils.h"

#include <boost/thread/lock_guard.hpp>
#include <libconfig.h++>

#include "storage/File.h"

ConfigUtils::ConfigUtils(const std::string& path) : mutex_(), path_(path) {}

void ConfigUtils::sReadFile(libconfig::Config& config, const std::string& path) {
    std::string text;
    if (!talvern::File::sReadRegularFile(path, kMaxFileBytes, text)) {
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
