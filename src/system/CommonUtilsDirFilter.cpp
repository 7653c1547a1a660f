#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/Log.h"

namespace {

const char* const kRecyclePrefixes[] = {".", "$RECYCLE", "RECYCLER", "RECYCLED"};

}  // namespace

bool CommonUtils::isFilterDir(const std::string& name) {
    talvern::ConfigInfo* config = talvern::ConfigInfo::sGetInstance();
    bool hit = false;
    for (const char* prefix : kRecyclePrefixes) {
        hit = hit || startWith(name, prefix);
    }
    hit = hit || startWith(name, config->getBackupRouterDiskDirName()) ||
          startWith(name, config->getTimecapsuleName()) ||
          startWith(name, config->getPemrickCameraDirName()) ||
          startWith(name, config->getHestronVostelDirName()) ||
          startWith(name, config->getHestronVostelNewDirName());
    if (hit) {
        QLOG(INFO) << name << " is recycle or hidden directory";
    }
    return hit;
}

bool CommonUtils::sIsDownloadTmpFile(const std::string& path) {
    if (!endWith(path, ".td") && !endWith(path, ".cfg")) {
        return false;
    }
    return startWith(path, talvern::ConfigInfo::sGetInstance()->getDownloadFolderPath());
}
