#ifndef QUORVIA_SYSTEM_CONFIGINFO_H
#define QUORVIA_SYSTEM_CONFIGINFO_H

#include <libconfig.h++>

#include <boost/thread/mutex.hpp>
#include <string>
#include <vector>

#include "system/DiskFolders.h"

namespace talvern {

class SettingsFile;

// The process's one table of where things lie on the device, and the global
// configuration file. Built at the first sGetInstance() (thread-safe), which
// also does the start-up housekeeping of the disk. Getters marked "makes" first
// create their folder when missing and ignore the outcome. Members that are
// not lazy keep their value from construction on, so any thread may read them.
// Fixed paths go through DeviceRoot, so they lie under QUORVIA_ROOT when set.
class ConfigInfo {
public:
    static const std::string sBrendleStorageConfigName;
    static const std::string sBrendleStorageRootName;
    static const std::string sBrendleDromlyRootName;
    static const std::string sNeedCreateDataFolderKey;
    static const std::string sNeedSetShareStatusKey;
    static const std::string sNeedShareHSDOWNLOADKey;
    static const std::string sNeedPopUserInstruction;
    static const std::string sLatestBackupDiskTimeKey;
    static const std::string sNeedCopyInstructionKey;
    // Where a global configuration file that no longer parses is set aside.
    static const char* const kBrokenConfigSuffix;

    virtual ~ConfigInfo();

    static ConfigInfo* sGetInstance();

    // ---- Paths and names ----
    std::string getConfigRoot();                 // makes
    std::string getTorrentFolderPath();          // makes; lazy, no lock
    std::string getDownloadFolderPath();         // makes; lazy, no lock
    std::string getUserdiskRootPath();
    const std::string& getUserdiskDataPath();    // never touches the disk
    std::string getDataFolderPath();             // makes
    std::string getPrivacyDataFolderPath();
    std::string getNewPrivacyDataFolderPath();
    std::string getUserdiskAppDataPath();
    std::string getDromlyFolderPath();           // makes
    std::string getFormattedStorageRoot();       // makes the data folder
    std::string getDatabaseRootPath();           // makes
    std::string getDatabaseDeviceConfigPath();   // makes
    std::string getExtdiskRootPath();
    std::string getExtdiskDeviceId();
    std::string getExtdiskDeviceName();
    std::string getExtdiskUmntPath();            // makes the configuration root
    const std::string& getPinyinDatabasePath();
    std::string getMinidlnaConfigPath();
    std::string getSambaConfigPath();
    std::string getLoginMacConfigPath();
    std::string getNonLoginMacConfigPath();
    std::string getUserdiskDataName();
    const std::string& getBackupImageDirName();
    const std::string& getBackupVideoDirName();
    const std::string& getBackupAudioDirName();
    const std::string& getBackupDocumentDirName();
    const std::string& getBackupOtherDirName();
    const std::string& getBackupCustomDirName();
    const std::string& getBackupDefaultLabel();
    const std::string& getBackupMark();
    std::string getDefaultLabelForNolabelExtdisk();
    std::string getNolvuAppProcessName();
    std::string getShareDirConfigPath();
    std::string getExtShareDirConfigDirName();
    std::string getExtShareDirConfigFileName();
    std::string getInitCreateShareDirName();
    std::string getInitCreateDownloadDirName();
    std::string getBackupRouterDiskDirName();
    const std::string& getPemrickCameraDirName();
    std::string getTimecapsuleName();
    std::string getHestronVostelDirName();
    std::string getHestronVostelNewDirName();
    std::string getAutoBackupConfigPath();
    std::string getHardDiskBackupConfigPath();
    std::string getHardDiskBackupSourceFile();
    std::string getNolvuMacConfigPath();
    std::string getPemrickActionCameraName();
    std::string getPrimaryDiskDevice();

    // Composed at each call.
    std::string getThumbnailRootPath();
    std::string getSmallIconsRootPath();
    std::string getMiddleIconsRootPath();
    std::string getImportedExtThumbsRootPath();
    std::string getHSDOWNLOADRootPath();
    std::string getCameraAutoImportConfigPath();
    std::string getLogPath();
    std::string getPemrickCameraPath();
    std::string getTimeMachineBackupPath();
    std::string getHestronVostelPath();
    std::string getHestronVostelNewPath();
    std::string getPTPCameraMountPoint();
    std::string getPTPCameraDevice();
    std::string getPTPCameraUsbInfoDevice();
    std::string getPTPCameraExistPath();

    // The six folder names made at first start, in this order: video, image,
    // audio, document, share, download.
    std::vector<std::string> getMainDirectoriesName();

    bool hasFormattedStorage();
    void setHasFormattedStorageRoot(const std::string& root);

    // ---- Backup folders (backupDrivePathMutex_) ----
    void setBackupDrivePath(const std::string& path);
    std::string getBackupDrivePath();
    std::string getBackupRootPath(const std::string& name);
    std::string getBackupRootPath(bool& exists, const std::string& name);
    std::string getBackupImagePath(const std::string& name, int layout);
    std::string getBackupImagePath(bool& exists, bool createIfMissing, const std::string& name,
                                   int layout);
    std::string getBackupVideoPath(const std::string& name);
    std::string getBackupVideoPath(bool& exists, bool createIfMissing, const std::string& name);
    std::string getBackupAudioPath(const std::string& name);
    std::string getBackupAudioPath(bool& exists, bool createIfMissing, const std::string& name);
    std::string getBackupDocumentPath(const std::string& name);
    std::string getBackupDocumentPath(bool& exists, bool createIfMissing,
                                      const std::string& name);
    std::string getBackupOtherPath(const std::string& name);
    std::string getBackupOtherPath(bool& exists, bool createIfMissing, const std::string& name);
    std::string getBackupCustomPath(const std::string& name);
    std::string getBackupCustomPath(bool& exists, bool createIfMissing, const std::string& name);

    // ---- Configuration files (configMutex_) ----
    // getConfig reloads the global file at each call. setConfig edits config_
    // and writes it over the global file, except while the file on disk failed
    // to load (then it logs and changes nothing). setConfig, setConfigToFile
    // and getConfigFromString let libconfig's exceptions for a rejected key or
    // unparsable input reach the caller; the files stay as they were.
    std::string getConfig(const std::string& key);
    void setConfig(const std::string& key, const std::string& value);
    void setConfigToFile(const std::string& path, const std::string& key,
                         const std::string& value);
    std::string getConfigFromFile(const std::string& path, const std::string& key);
    static std::string sGetConfigFromFile(const std::string& path, const std::string& key);
    std::string getConfigFromString(const char* text, const std::string& key);
    std::vector<std::string> getListFromFile(const std::string& path, const std::string& key);

    // The disks as they lie now, for a walk to a folder on them (HeldFolder).
    DiskFolders diskFolders() const;

private:
    ConfigInfo();
    ConfigInfo(const ConfigInfo&);
    ConfigInfo& operator=(const ConfigInfo&);

    void localization();
    void init();
    // Before a setting is stored over a global file whose last load failed:
    // another process may have been writing it then, so it is read again. One
    // that still doesn't parse (cut short by a power loss) goes aside to
    // globalConfigPath_ + kBrokenConfigSuffix and the settings start afresh;
    // one that can't be read is kept. false: keep the file, store nothing.
    // Caller holds configMutex_.
    bool reloadFailedGlobalConfig(const SettingsFile& file);
    bool setAsideBrokenGlobalConfig(const SettingsFile& file);
    // Whether file is a settings file to read: one that exists, and is
    // neither a link planted on a disk nor reached through one (what it
    // leads to would be copied onto the disk); logged when it is.
    bool isFileToRead(const SettingsFile& file) const;
    void getPrimaryDiskDeviceFromFile();

    std::string globalConfigPath_;
    std::string configRoot_;
    std::string torrentFolderPath_;
    std::string downloadFolderPath_;
    std::string userdiskRootPath_;
    std::string userdiskDataPath_;
    std::string userdiskPrivacyDataPath_;
    std::string userdiskNewPrivacyDataPath_;
    std::string userdiskAppDataPath_;
    std::string dromlyFolderPath_;
    std::string formattedStorageRoot_;
    std::string databaseRootPath_;
    std::string databaseDeviceConfigPath_;
    std::string extdiskRootPath_;
    std::string extdiskDeviceId_;
    std::string extdiskDeviceName_;
    std::string extdiskUmntPath_;
    std::string pinyinDatabasePath_;
    std::string minidlnaConfigPath_;
    std::string sambaConfigPath_;
    std::string loginMacConfigPath_;
    std::string nonLoginMacConfigPath_;
    std::string userdiskDataName_;
    std::string backupImageDirName_;
    std::string backupVideoDirName_;
    std::string backupAudioDirName_;
    std::string backupDocumentDirName_;
    std::string backupOtherDirName_;
    std::string backupCustomDirName_;
    std::string backupDefaultLabel_;
    std::string backupMark_;
    std::string defaultLabelForNolabelExtdisk_;
    std::string nolvuAppProcessName_;
    std::string shareDirConfigPath_;
    std::string extShareDirConfigDirName_;
    std::string extShareDirConfigFileName_;
    std::string backupDrivePath_;
    std::string initCreateVideoDirName_;
    std::string initCreateImageDirName_;
    std::string initCreateAudioDirName_;
    std::string initCreateDocDirName_;
    std::string initCreateShareDirName_;
    std::string initCreateDownloadDirName_;
    std::string backupRouterDiskDirName_;
    std::string pemrickCameraDirName_;
    std::string timecapsuleName_;
    std::string hestronVostelDirName_;
    std::string hestronVostelNewDirName_;
    std::string autoBackupConfigPath_;
    std::string hardDiskBackupConfigPath_;
    std::string hardDiskBackupSourceFile_;
    std::string nolvuMacConfigPath_;
    std::string pemrickActionCameraName_;
    std::string primaryDiskDevice_;
    libconfig::Config config_;
    boost::mutex configMutex_;
    boost::mutex backupDrivePathMutex_;
    // True while the global file's last load failed: config_ then holds at
    // most part of it, so setConfig must not write config_ over it before
    // reloadFailedGlobalConfig. Guarded by configMutex_.
    bool globalConfigLoadFailed_;
};

}  // namespace talvern

#endif
