#include "system/ConfigInfo.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/lock_guard.hpp>
#include <sstream>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/ConfigUtils.h"
#include "system/DeviceRoot.h"
#include "system/LocalizationHelper.h"
#include "system/Log.h"
#include "system/SettingsFile.h"

namespace talvern {

namespace {

// Root of the hidden system folder on the user disk.
const char* const systemConfigRoot = "/userdisk/data/.systemconfig";
const char* const kLocalizationRoot = "/etc/talvernconfig/localization";
const char* const kUserdiskInfoFile = "/tmp/userdisk_info";
const char* const kPrimaryPrefix = "PRIMARY=";
// The disk information file is a few lines long; only its head is read.
const std::size_t kMaxUserdiskInfoBytes = 64 << 10;
// Used when the language file names no camera folder.
const char* const kDefaultPemrickCameraDirName = "摄像机监控视频";

std::string devicePath(const char* fixedPath) { return DeviceRoot::sPath(fixedPath); }

std::string systemConfigRootPath() { return devicePath(systemConfigRoot); }

void makeIfMissing(const std::string& path) {
    if (!Directory::sExists(path)) {
        Directory::sCreateDirectory(path);
    }
}

// The two-form backup getters: exists tells whether the folder was there
// before the call; a creation doesn't set it back to true.
std::string checkFolder(bool& exists, bool createIfMissing, const std::string& path) {
    exists = true;
    if (!Directory::sExists(path)) {
        exists = false;
        if (createIfMissing) {
            Directory::sCreateDirectory(path);
        }
    }
    return path;
}

}  // namespace

const std::string ConfigInfo::sBrendleStorageConfigName = "brendleStorageConfig.cfg";
const std::string ConfigInfo::sBrendleStorageRootName = "data";
const std::string ConfigInfo::sBrendleDromlyRootName = "dromly";
const std::string ConfigInfo::sNeedCreateDataFolderKey = "needCreateDataFolder";
const std::string ConfigInfo::sNeedSetShareStatusKey = "needSetShareStatus";
const std::string ConfigInfo::sNeedShareHSDOWNLOADKey = "needShareHSDOWNLOAD";
const std::string ConfigInfo::sNeedPopUserInstruction = "needPopUserInstruction";
const std::string ConfigInfo::sLatestBackupDiskTimeKey = "latestBackupDiskTime";
const std::string ConfigInfo::sNeedCopyInstructionKey = "needCopyInstruction";
const char* const ConfigInfo::kBrokenConfigSuffix = ".broken";

ConfigInfo* ConfigInfo::sGetInstance() {
    static ConfigInfo instance;
    return &instance;
}

ConfigInfo::ConfigInfo()
    : globalConfigPath_(devicePath("/userdisk/talvernConfig/config.cfg")),
      configRoot_(devicePath("/userdisk/talvernConfig")),
      userdiskRootPath_(devicePath("/userdisk")),
      userdiskDataPath_(devicePath("/userdisk/data")),
      userdiskPrivacyDataPath_(devicePath("/userdisk/privacyData")),
      userdiskAppDataPath_(devicePath("/userdisk/appdata")),
      dromlyFolderPath_(devicePath("/userdisk/dromly")),
      databaseRootPath_(systemConfigRootPath() + "/DataBase"),
      databaseDeviceConfigPath_(userdiskRootPath_ + "/backupDBDevice"),
      extdiskRootPath_(devicePath("/extdisks")),
      extdiskDeviceId_("USB"),
      extdiskUmntPath_(configRoot_ + "/umntpath.cfg"),
      pinyinDatabasePath_(databaseRootPath_ + "/pinyin.db"),
      loginMacConfigPath_(devicePath("/tmp/loginMac.cfg")),
      nonLoginMacConfigPath_(configRoot_ + "/nonLoginMac.cfg"),
      userdiskDataName_("Zentrel"),
      nolvuAppProcessName_("mediaservice"),
      shareDirConfigPath_(devicePath("/userdisk/talvernConfig/bnSharePath.cfg")),
      extShareDirConfigDirName_("zentrel_config"),
      extShareDirConfigFileName_("zentrel_extSharePath.cfg"),
      backupDrivePath_(userdiskDataPath_),
      timecapsuleName_("timecapsule"),
      hestronVostelDirName_("vostel_cache"),
      hestronVostelNewDirName_("vostel_ormand"),
      autoBackupConfigPath_(devicePath("/userdisk/talvernConfig/autoBackup.cfg")),
      hardDiskBackupConfigPath_(devicePath("/userdisk/talvernConfig/hardDiskBackup.cfg")),
      hardDiskBackupSourceFile_(devicePath("/userdisk/talvernConfig/hardDiskBackupSource.cfg")),
      nolvuMacConfigPath_(configRoot_ + "/nolvuMac.cfg"),
      globalConfigLoadFailed_(false) {
    localization();
    init();
    getPrimaryDiskDeviceFromFile();
}

ConfigInfo::~ConfigInfo() {}

void ConfigInfo::localization() {
    LocalizationHelper helper(devicePath(kLocalizationRoot));
    backupImageDirName_ = helper.getValue("backup_photo_dir_name");
    backupVideoDirName_ = helper.getValue("backup_movie_dir_name");
    backupAudioDirName_ = helper.getValue("backup_music_dir_name");
    backupDocumentDirName_ = helper.getValue("backup_doc_dir_name");
    backupOtherDirName_ = helper.getValue("backup_other_dir_name");
    backupCustomDirName_ = helper.getValue("backup_custom_dir_name");
    backupMark_ = helper.getValue("backup_dir_name_mark");
    extdiskDeviceName_ = helper.getValue("extdisk_device_name");
    defaultLabelForNolabelExtdisk_ = helper.getValue("default_label_for_nolabel_extdisk");
    backupDefaultLabel_ = helper.getValue("backup_harddisk_default_label");
    initCreateVideoDirName_ = helper.getValue("init_create_video_dir_name");
    initCreateImageDirName_ = helper.getValue("init_create_image_dir_name");
    initCreateAudioDirName_ = helper.getValue("init_create_audio_dir_name");
    initCreateDocDirName_ = helper.getValue("init_create_doc_dir_name");
    initCreateShareDirName_ = helper.getValue("init_create_share_dir_name");
    initCreateDownloadDirName_ = helper.getValue("init_create_download_dir_name");
    userdiskNewPrivacyDataPath_ = helper.getValue("new_privacy_data_path");
    userdiskNewPrivacyDataPath_ = userdiskDataPath_ + "/" + userdiskNewPrivacyDataPath_;
    backupRouterDiskDirName_ = helper.getValue("backup_router_disk");
    pemrickCameraDirName_ = helper.getValue("pemrick_camera_dir_name");
    if (pemrickCameraDirName_.empty()) {
        pemrickCameraDirName_ = kDefaultPemrickCameraDirName;
    }
    pemrickActionCameraName_ = helper.getValue("pemrick_action_camera_name");

    QLOG(INFO) << "ConfigInfo::localization, backupImageDirName_ : " << backupImageDirName_
               << ", backupVideoDirName_ : " << backupVideoDirName_
               << ", backupAudioDirName_ : " << backupAudioDirName_
               << ", backupDocumentDirName_ : " << backupDocumentDirName_
               << ", backupOtherDirName_ : " << backupOtherDirName_
               << ", extdiskDeviceName_ : " << extdiskDeviceName_
               << ", defaultLabelForNolabelExtdisk_ : " << defaultLabelForNolabelExtdisk_
               << ", initCreateVideoDirName_ : " << initCreateVideoDirName_
               << ", initCreateImageDirName_ : " << initCreateImageDirName_
               << ", initCreateAudioDirName_ : " << initCreateAudioDirName_
               << ", initCreateDocDirName_ : " << initCreateDocDirName_
               << ", initCreateShareDirName_ : " << initCreateShareDirName_
               << ", initCreateDownloadDirName_ : " << initCreateDownloadDirName_
               << ", backupDefaultLabel_ : " << backupDefaultLabel_
               << ", userdiskNewPrivacyDataPath_ : " << userdiskNewPrivacyDataPath_
               << ", pemrickCameraDirName_ : " << pemrickCameraDirName_;
}

void ConfigInfo::init() {
    if (!Directory::sExists(configRoot_)) {
        const ErrorCode error = Directory::sCreateDirectory(configRoot_);
        if (!error.ok()) {
            QLOG(ERROR) << "create " << configRoot_ << " failed: " << error.systemError().message();
            return;
        }
    }
    // Cleared at every start; neither is the live database or thumbnail root.
    // The removal never follows a link; a configuration root that is itself a
    // link (planted on a disk prepared elsewhere, or swapped in meanwhile)
    // would lead it outside, so it goes through the folder as opened.
    const int folder = Directory::sOpenBelow(userdiskRootPath_, configRoot_);
    if (folder < 0 && errno == ELOOP) {
        QLOG(ERROR) << configRoot_ << " is a link, leave what it points to alone";
    } else if (folder >= 0) {
        Directory::sDeleteIn(folder, "DataBase/");
        close(folder);
    }
    Directory::sDelete(userdiskRootPath_ + "/.thumbnails/", true);

    const SettingsFile global(diskFolders(), globalConfigPath_);
    if (isFileToRead(global)) {
        boost::lock_guard<boost::mutex> lock(configMutex_);
        globalConfigLoadFailed_ = true;
        try {
            global.read(config_);
            globalConfigLoadFailed_ = false;
        } catch (const libconfig::FileIOException&) {
            QLOG(ERROR) << "open config file error;";
        } catch (const libconfig::ParseException& error) {
            QLOG(ERROR) << "parse config file error at :" << error.getLine() << " - "
                        << error.getError();
        }
    }
}

bool ConfigInfo::reloadFailedGlobalConfig(const SettingsFile& file) {
    if (!isFileToRead(file)) {
        return true;
    }
    try {
        file.read(config_);
        globalConfigLoadFailed_ = false;
        return true;
    } catch (const libconfig::ParseException&) {
        return setAsideBrokenGlobalConfig(file);
    } catch (const std::exception&) {
        return false;
    }
}

bool ConfigInfo::setAsideBrokenGlobalConfig(const SettingsFile& file) {
    const std::string aside = globalConfigPath_ + kBrokenConfigSuffix;
    if (!file.setAside(kBrokenConfigSuffix)) {
        QLOG(ERROR) << "config file " << globalConfigPath_
                    << " does not parse and can't be set aside";
        return false;
    }
    QLOG(ERROR) << "config file " << globalConfigPath_ << " does not parse, set aside as " << aside;
    // What the parser kept of it may hold a setting without a value, which
    // would be written out as another file that doesn't parse: start empty.
    libconfig::Setting& root = config_.getRoot();
    while (root.getLength() > 0) {
        root.remove(0u);
    }
    globalConfigLoadFailed_ = false;
    return true;
}

void ConfigInfo::getPrimaryDiskDeviceFromFile() {
    // /tmp is anyone's: a FIFO or device planted there reads as no file, and
    // of a huge one only the head is read.
    std::string info;
    File::sReadRegularFileLines(devicePath(kUserdiskInfoFile), kMaxUserdiskInfoBytes, info);
    std::istringstream in(info);
    std::string line;
    while (std::getline(in, line)) {
        if (CommonUtils::startWith(line, kPrimaryPrefix)) {
            primaryDiskDevice_ = line.substr(std::string(kPrimaryPrefix).size());
            QLOG(ERROR) << "primary disk device: " << primaryDiskDevice_;
            break;
        }
    }
    if (primaryDiskDevice_.empty()) {
        QLOG(ERROR) << "no primary disk info";
    }
}

std::string ConfigInfo::getConfigRoot() {
    makeIfMissing(configRoot_);
    return configRoot_;
}

std::string ConfigInfo::getTorrentFolderPath() {
    if (torrentFolderPath_.empty()) {
        torrentFolderPath_ = userdiskDataPath_ + "/torrent/";
    }
    makeIfMissing(torrentFolderPath_);
    return torrentFolderPath_;
}

std::string ConfigInfo::getDownloadFolderPath() {
    if (downloadFolderPath_.empty()) {
        downloadFolderPath_ = userdiskDataPath_ + "/" + initCreateDownloadDirName_ + "/";
    }
    makeIfMissing(downloadFolderPath_);
    return downloadFolderPath_;
}

std::string ConfigInfo::getUserdiskRootPath() { return userdiskRootPath_; }

const std::string& ConfigInfo::getUserdiskDataPath() { return userdiskDataPath_; }

std::string ConfigInfo::getDataFolderPath() {
    makeIfMissing(userdiskDataPath_);
    return userdiskDataPath_;
}

std::string ConfigInfo::getPrivacyDataFolderPath() { return userdiskPrivacyDataPath_; }

std::string ConfigInfo::getNewPrivacyDataFolderPath() { return userdiskNewPrivacyDataPath_; }

std::string ConfigInfo::getUserdiskAppDataPath() { return userdiskAppDataPath_; }

std::string ConfigInfo::getDromlyFolderPath() {
    if (!Directory::sExists(dromlyFolderPath_)) {
        QLOG(INFO) << "ConfigInfo::getDromlyFolderPath: not exist dromly path and create "
                   << dromlyFolderPath_;
        Directory::sCreateDirectory(dromlyFolderPath_);
    }
    return dromlyFolderPath_;
}

std::string ConfigInfo::getFormattedStorageRoot() {
    makeIfMissing(userdiskDataPath_);
    formattedStorageRoot_ = userdiskRootPath_;
    return formattedStorageRoot_;
}

// Not made through a link planted on the disk (or swapped in meanwhile),
// which would lead it elsewhere.
std::string ConfigInfo::getDatabaseRootPath() {
    if (!Directory::sExists(databaseRootPath_)) {
        Directory::sCreateBelow(userdiskDataPath_, databaseRootPath_);
    }
    return databaseRootPath_;
}

std::string ConfigInfo::getDatabaseDeviceConfigPath() {
    makeIfMissing(databaseDeviceConfigPath_);
    return databaseDeviceConfigPath_;
}

std::string ConfigInfo::getExtdiskRootPath() { return extdiskRootPath_; }

std::string ConfigInfo::getExtdiskDeviceId() { return extdiskDeviceId_; }

std::string ConfigInfo::getExtdiskDeviceName() { return extdiskDeviceName_; }

std::string ConfigInfo::getExtdiskUmntPath() {
    makeIfMissing(configRoot_);
    return extdiskUmntPath_;
}

const std::string& ConfigInfo::getPinyinDatabasePath() { return pinyinDatabasePath_; }

std::string ConfigInfo::getMinidlnaConfigPath() {
    minidlnaConfigPath_ = devicePath("/etc/config/minidlna");
    return minidlnaConfigPath_;
}

std::string ConfigInfo::getSambaConfigPath() {
    sambaConfigPath_ = devicePath("/etc/config/samba");
    return sambaConfigPath_;
}

std::string ConfigInfo::getLoginMacConfigPath() { return loginMacConfigPath_; }

std::string ConfigInfo::getNonLoginMacConfigPath() { return nonLoginMacConfigPath_; }

std::string ConfigInfo::getUserdiskDataName() { return userdiskDataName_; }

const std::string& ConfigInfo::getBackupImageDirName() { return backupImageDirName_; }

const std::string& ConfigInfo::getBackupVideoDirName() { return backupVideoDirName_; }

const std::string& ConfigInfo::getBackupAudioDirName() { return backupAudioDirName_; }

const std::string& ConfigInfo::getBackupDocumentDirName() { return backupDocumentDirName_; }

const std::string& ConfigInfo::getBackupOtherDirName() { return backupOtherDirName_; }

const std::string& ConfigInfo::getBackupCustomDirName() { return backupCustomDirName_; }

const std::string& ConfigInfo::getBackupDefaultLabel() { return backupDefaultLabel_; }

const std::string& ConfigInfo::getBackupMark() { return backupMark_; }

std::string ConfigInfo::getDefaultLabelForNolabelExtdisk() {
    return defaultLabelForNolabelExtdisk_;
}

std::string ConfigInfo::getNolvuAppProcessName() { return nolvuAppProcessName_; }

std::string ConfigInfo::getShareDirConfigPath() { return shareDirConfigPath_; }

std::string ConfigInfo::getExtShareDirConfigDirName() { return extShareDirConfigDirName_; }

std::string ConfigInfo::getExtShareDirConfigFileName() { return extShareDirConfigFileName_; }

std::string ConfigInfo::getInitCreateShareDirName() { return initCreateShareDirName_; }

std::string ConfigInfo::getInitCreateDownloadDirName() { return initCreateDownloadDirName_; }

std::string ConfigInfo::getBackupRouterDiskDirName() { return backupRouterDiskDirName_; }

const std::string& ConfigInfo::getPemrickCameraDirName() { return pemrickCameraDirName_; }

std::string ConfigInfo::getTimecapsuleName() { return timecapsuleName_; }

std::string ConfigInfo::getHestronVostelDirName() { return hestronVostelDirName_; }

std::string ConfigInfo::getHestronVostelNewDirName() { return hestronVostelNewDirName_; }

std::string ConfigInfo::getAutoBackupConfigPath() { return autoBackupConfigPath_; }

std::string ConfigInfo::getHardDiskBackupConfigPath() { return hardDiskBackupConfigPath_; }

std::string ConfigInfo::getHardDiskBackupSourceFile() { return hardDiskBackupSourceFile_; }

std::string ConfigInfo::getNolvuMacConfigPath() { return nolvuMacConfigPath_; }

std::string ConfigInfo::getPemrickActionCameraName() { return pemrickActionCameraName_; }

std::string ConfigInfo::getPrimaryDiskDevice() { return primaryDiskDevice_; }

std::string ConfigInfo::getThumbnailRootPath() { return systemConfigRootPath() + "/.thumbnails/"; }

std::string ConfigInfo::getSmallIconsRootPath() { return getThumbnailRootPath() + "smallIcons"; }

std::string ConfigInfo::getMiddleIconsRootPath() { return getThumbnailRootPath() + "middleIcons"; }

std::string ConfigInfo::getImportedExtThumbsRootPath() {
    return getThumbnailRootPath() + "importedExtThumbs";
}

std::string ConfigInfo::getHSDOWNLOADRootPath() { return userdiskDataPath_ + "/HSDOWNLOAD"; }

std::string ConfigInfo::getCameraAutoImportConfigPath() {
    return configRoot_ + "/cameraAutoImport.cfg";
}

std::string ConfigInfo::getLogPath() { return getFormattedStorageRoot() + "/log/talvern"; }

std::string ConfigInfo::getPemrickCameraPath() {
    return userdiskDataPath_ + "/" + pemrickCameraDirName_;
}

std::string ConfigInfo::getTimeMachineBackupPath() {
    return userdiskDataPath_ + "/" + timecapsuleName_;
}

std::string ConfigInfo::getHestronVostelPath() {
    return userdiskDataPath_ + "/" + hestronVostelDirName_;
}

std::string ConfigInfo::getHestronVostelNewPath() {
    return userdiskDataPath_ + "/" + hestronVostelNewDirName_;
}

std::string ConfigInfo::getPTPCameraMountPoint() { return devicePath("/extdisks/sdz9"); }

std::string ConfigInfo::getPTPCameraDevice() { return "gphotofs"; }

std::string ConfigInfo::getPTPCameraUsbInfoDevice() { return devicePath("/dev/sdz9"); }

std::string ConfigInfo::getPTPCameraExistPath() { return devicePath("/tmp/sdz9.txt"); }

std::vector<std::string> ConfigInfo::getMainDirectoriesName() {
    std::vector<std::string> names;
    names.push_back(initCreateVideoDirName_);
    names.push_back(initCreateImageDirName_);
    names.push_back(initCreateAudioDirName_);
    names.push_back(initCreateDocDirName_);
    names.push_back(initCreateShareDirName_);
    names.push_back(initCreateDownloadDirName_);
    return names;
}

bool ConfigInfo::hasFormattedStorage() {
    const std::string root = getFormattedStorageRoot();
    return !root.empty() && Directory::sExists(root);
}

void ConfigInfo::setHasFormattedStorageRoot(const std::string& root) { QLOG(INFO) << root; }

void ConfigInfo::setBackupDrivePath(const std::string& path) {
    boost::lock_guard<boost::mutex> lock(backupDrivePathMutex_);
    backupDrivePath_ = path;
}

std::string ConfigInfo::getBackupDrivePath() {
    boost::lock_guard<boost::mutex> lock(backupDrivePathMutex_);
    return backupDrivePath_;
}

std::string ConfigInfo::getBackupRootPath(const std::string& name) {
    boost::lock_guard<boost::mutex> lock(backupDrivePathMutex_);
    return backupDrivePath_ + "/" + name;
}

std::string ConfigInfo::getBackupRootPath(bool& exists, const std::string& name) {
    return checkFolder(exists, true, getBackupRootPath(name));
}

std::string ConfigInfo::getBackupImagePath(const std::string& name, int layout) {
    // Layout 1 keeps photos at the backup root itself.
    if (layout == 1) {
        return getBackupRootPath(name);
    }
    return getBackupRootPath(name) + "/" + backupImageDirName_;
}

std::string ConfigInfo::getBackupImagePath(bool& exists, bool createIfMissing,
                                           const std::string& name, int layout) {
    return checkFolder(exists, createIfMissing, getBackupImagePath(name, layout));
}

std::string ConfigInfo::getBackupVideoPath(const std::string& name) {
    return getBackupRootPath(name) + "/" + backupVideoDirName_;
}

std::string ConfigInfo::getBackupVideoPath(bool& exists, bool createIfMissing,
                                           const std::string& name) {
    return checkFolder(exists, createIfMissing, getBackupVideoPath(name));
}

std::string ConfigInfo::getBackupAudioPath(const std::string& name) {
    return getBackupRootPath(name) + "/" + backupAudioDirName_;
}

std::string ConfigInfo::getBackupAudioPath(bool& exists, bool createIfMissing,
                                           const std::string& name) {
    return checkFolder(exists, createIfMissing, getBackupAudioPath(name));
}

std::string ConfigInfo::getBackupDocumentPath(const std::string& name) {
    return getBackupRootPath(name) + "/" + backupDocumentDirName_;
}

std::string ConfigInfo::getBackupDocumentPath(bool& exists, bool createIfMissing,
                                              const std::string& name) {
    return checkFolder(exists, createIfMissing, getBackupDocumentPath(name));
}

std::string ConfigInfo::getBackupOtherPath(const std::string& name) {
    return getBackupRootPath(name) + "/" + backupOtherDirName_;
}

std::string ConfigInfo::getBackupOtherPath(bool& exists, bool createIfMissing,
                                           const std::string& name) {
    return checkFolder(exists, createIfMissing, getBackupOtherPath(name));
}

std::string ConfigInfo::getBackupCustomPath(const std::string& name) {
    return getBackupRootPath(name) + "/" + backupCustomDirName_;
}

std::string ConfigInfo::getBackupCustomPath(bool& exists, bool createIfMissing,
                                            const std::string& name) {
    return checkFolder(exists, createIfMissing, getBackupCustomPath(name));
}

}  // namespace talvern
