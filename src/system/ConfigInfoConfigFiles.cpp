#include <sys/stat.h>

#include <boost/thread/lock_guard.hpp>
#include <sstream>
#include <stdexcept>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/ConfigInfo.h"
#include "system/ConfigUtils.h"
#include "system/DiskFolders.h"
#include "system/Log.h"

namespace talvern {

namespace {

// The folder of path, as a walk takes it ("/" for "/x", "." for "x").
std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Whether the folder of path lies behind a link planted on a disk (logged):
// a file written there would land wherever it leads. realFolder: where the
// folder lies.
bool isBehindLink(const DiskFolders& disks, const std::string& path, std::string& realFolder) {
    const bool behind = !disks.reachWithoutPlantedLink(folderOf(path), realFolder);
    if (behind) {
        QLOG(ERROR) << path << " lies behind a link, not written";
    }
    return behind;
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

// Written beside path, synced, then renamed over it: a power cut leaves the
// old file or the new one, never half of one, and a link or FIFO planted at
// path is replaced, never written through.
void replaceFile(const libconfig::Config& config, const std::string& path) {
    ReplacementFile replacement(path);
    if (replacement.stream() == NULL) {
        throw std::runtime_error("can't create a file beside " + path);
    }
    config.write(replacement.stream());
    if (!replacement.commitKeepingOwner(true)) {
        throw std::runtime_error("can't replace " + path);
    }
}

void writeConfig(libconfig::Config& config, const std::string& path) {
    try {
        replaceFile(config, path);
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
        if (isFileToRead(diskFolders(), globalConfigPath_)) {
            boost::lock_guard<boost::mutex> lock(configMutex_);
            globalConfigLoadFailed_ = true;
            try {
                ConfigUtils::sReadFile(config_, globalConfigPath_);
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

bool ConfigInfo::isFileToRead(const DiskFolders& disks, const std::string& path) const {
    if (!File::sExists(path)) {
        return false;
    }
    std::string realFolder;
    FileStatus status;
    const bool plain = disks.reachWithoutPlantedLink(folderOf(path), realFolder) &&
                       (!disks.holds(realFolder) ||
                        (FileStatus::sOfPath(path, status, false) == 0 && !status.isLink()));
    if (!plain) {
        QLOG(ERROR) << path << " leads through a link planted on a disk, not read";
    }
    return plain;
}

void ConfigInfo::setConfig(const std::string& key, const std::string& value) {
    QLOG(INFO) << "setConfig begin,key:" << key << " value:" << value;
    boost::lock_guard<boost::mutex> lock(configMutex_);
    std::string realFolder;
    if (isBehindLink(diskFolders(), globalConfigPath_, realFolder)) {
        return;
    }
    if (globalConfigLoadFailed_ && !reloadFailedGlobalConfig()) {
        QLOG(ERROR) << "setConfig skipped: " << globalConfigPath_
                    << " failed to load, keep it unchanged";
        return;
    }
    putString(config_, key, value);
    QLOG(INFO) << "write file:" << globalConfigPath_;
    writeConfig(config_, globalConfigPath_);
    QLOG(INFO) << "ConfigInfo setConfig end";
}

void ConfigInfo::setConfigToFile(const std::string& path, const std::string& key,
                                 const std::string& value) {
    boost::lock_guard<boost::mutex> lock(configMutex_);
    const DiskFolders disks = diskFolders();
    std::string realFolder;
    if (isBehindLink(disks, path, realFolder)) {
        return;
    }
    libconfig::Config config;
    if (isFileToRead(disks, path)) {
        ConfigUtils::sReadFile(config, path);
    }
    putString(config, key, value);
    writeConfig(config, path);
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
