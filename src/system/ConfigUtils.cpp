#include "system/ConfigUtils.h"

#include <libconfig.h++>

#include <boost/thread/lock_guard.hpp>

ConfigUtils::ConfigUtils(const std::string& path) : mutex_(), path_(path) {}

std::string ConfigUtils::getConfigFromKey(const std::string& key) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    try {
        libconfig::Config config;
        config.readFile(path_.c_str());
        std::string value;
        if (config.getRoot().lookupValue(key, value)) {
            return value;
        }
    } catch (...) {
        // A missing or broken file is an ordinary answer here: no value.
    }
    return std::string();
}
