#include <boost/thread/lock_guard.hpp>
#include <sstream>
#include <stdexcept>

#include "storage/File.h"
#include "system/ConfigInfo.h"
#include "system/ConfigUtils.h"
#include "system/DiskFolders.h"
#include "system/Log.h"
#include "system/SettingsFile.h"

namespace talvern {

namespace {

// Whether file lies behind a link planted on a disk (logged): a file written
// there would land wherever it leads.
bool isBehindLink(const SettingsFile& file) {
    if (!file.isReached()) {
        QLOG(ERROR) << file.path() << " lies behind a link, not written";
    }
    return !file.isReached();
}

// Replaces key at the root of config by a string setting, or deletes it when
// value is empty. A name libconfig rejects throws SettingNameException.
void putString(libconfig::Config& config, const std::string& key, const std::string& value) {
    libconfig::Setting& root = config.getRoot();
    if (root.exists(key)) {
        root.remove(key);
    }
    if (!value.empty()) {
        root.add(key, libconfig::Setting::TypeString) = value;
    }
}

// Written beside the file, synced, then renamed over it: a power cut leaves
// the old file or the new one, never half of one, and a link or FIFO planted
// at its name is replaced, never written through.
void writeConfig(const libconfig::Config& config, const SettingsFile& file) {
    try {
        file.replace(config);
    } catch (const std::exception& error) {
        QLOG(ERROR) << "save config file error: " << error.what();
    }
}

std::string lookupString(const libconfig::Config& config, const std::string& key) {
    std::string value;
    config.getRoot().lookupValue(key, value);
    return value;
}

std::string elementText(const libconfig::Setting& element) {
    std::ostringstream text;
    switch (element.getType()) {
        case libconfig::Setting::TypeString:
            return element.c_str();
        case libconfig::Setting::TypeInt:
            text << static_cast<int>(element);
            break;
        case libconfig::Setting::TypeInt64:
            text << static_cast<long long>(element);
            break;
        case libconfig::Setting::TypeFloat:
            text << static_cast<double>(element);
            break;
        case libconfig::Setting::TypeBoolean:
            text << (static_cast<bool>(element) ? "true" : "false");
            break;
        default:
            break;
    }
    return text.str();
}

}  // namespace

std::string ConfigInfo::getConfig(const std::string& key) {
    QLOG(INFO) << "getConfig begin,key:" << key << " globalConfigPath:" << globalConfigPath_;
    try {
        const SettingsFile global(diskFolders(), globalConfigPath_);
        if (isFileToRead(global)) {
            boost::lock_guard<boost::mutex> lock(configMutex_);
            globalConfigLoadFailed_ = true;
            try {
                global.read(config_);
                globalConfigLoadFailed_ = false;
            } catch (const std::exception& error) {
                QLOG(ERROR) << "parse config file error at :" << error.what();
            }
        }
        boost::lock_guard<boost::mutex> lock(configMutex_);
        libconfig::Setting& root = config_.getRoot();
        QLOG(INFO) << "config_.getRoot()!";
        std::string value;
        if (root.lookupValue(key, value)) {
            QLOG(INFO) << "return is " << value;
            return value;
        }
    } catch (const std::exception& error) {
        QLOG(ERROR) << "save config file error: " << error.what();
    }
    QLOG(INFO) << "return empty!";
    return std::string();
}

DiskFolders ConfigInfo::diskFolders() const {
    return DiskFolders(userdiskRootPath_, userdiskDataPath_, extdiskRootPath_);
}

bool ConfigInfo::isFileToRead(const SettingsFile& file) const {
    const bool plain = file.isReached() && !file.isPlantedLink();
    if (!plain && File::sExists(file.path())) {
        QLOG(ERROR) << file.path() << " leads through a link planted on a disk, not read";
    }
    return plain && file.exists();
}

void ConfigInfo::setConfig(const std::string& key, const std::string& value) {
    QLOG(INFO) << "setConfig begin,key:" << key << " value:" << value;
    boost::lock_guard<boost::mutex> lock(configMutex_);
    const SettingsFile global(diskFolders(), globalConfigPath_);
    if (isBehindLink(global)) {
        return;
    }
    if (globalConfigLoadFailed_ && !reloadFailedGlobalConfig(global)) {
        QLOG(ERROR) << "setConfig skipped: " << globalConfigPath_
                    << " failed to load, keep it unchanged";
        return;
    }
    putString(config_, key, value);
    QLOG(INFO) << "write file:" << globalConfigPath_;
    writeConfig(config_, global);
    QLOG(INFO) << "ConfigInfo setConfig end";
}

void ConfigInfo::setConfigToFile(const std::string& path, const std::string& key,
                                 const std::string& value) {
    boost::lock_guard<boost::mutex> lock(configMutex_);
    const SettingsFile file(diskFolders(), path);
    if (isBehindLink(file)) {
        return;
    }
    libconfig::Config config;
    if (isFileToRead(file)) {
        file.read(config);
    }
    putString(config, key, value);
    writeConfig(config, file);
}

std::string ConfigInfo::getConfigFromFile(const std::string& path, const std::string& key) {
    boost::lock_guard<boost::mutex> lock(configMutex_);
    return sGetConfigFromFile(path, key);
}

std::string ConfigInfo::sGetConfigFromFile(const std::string& path, const std::string& key) {
    try {
        libconfig::Config config;
        if (File::sExists(path)) {
            ConfigUtils::sReadFile(config, path);
        }
        return lookupString(config, key);
    } catch (const std::exception& error) {
        QLOG(ERROR) << "getConfigFromFile error: " << error.what();
    }
    return std::string();
}

std::string ConfigInfo::getConfigFromString(const char* text, const std::string& key) {
    libconfig::Config config;
    // No text reads as an empty configuration.
    config.readString(text == NULL ? "" : text);
    std::string value;
    if (config.getRoot().lookupValue(key, value)) {
        QLOG(INFO) << "return is" << value;
    }
    return value;
}

std::vector<std::string> ConfigInfo::getListFromFile(const std::string& path,
                                                     const std::string& key) {
    boost::lock_guard<boost::mutex> lock(configMutex_);
    std::vector<std::string> elements;
    try {
        libconfig::Config config;
        if (File::sExists(path)) {
            ConfigUtils::sReadFile(config, path);
        }
        const libconfig::Setting& setting = config.lookup(key);
        if (setting.getType() == libconfig::Setting::TypeArray) {
            for (int i = 0; i < setting.getLength(); ++i) {
                elements.push_back(elementText(setting[i]));
            }
        }
    } catch (const std::exception&) {
        // Whatever was collected before the failure is the answer.
    }
    return elements;
}

}  // namespace talvern
