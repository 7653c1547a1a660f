#include "multimedia/QuorviaDBMgr.h"

#include "system/ConfigInfo.h"

// The daemon's store lives apart from the rest of the class so that tools and
// tests that open a store of their own don't pull in the device layout.
namespace quorvia {

QuorviaDBMgr& QuorviaDBMgr::sGetInstance() {
    static QuorviaDBMgr instance;
    return instance;
}

QuorviaDBMgr::QuorviaDBMgr()
    : db_(NULL),
      fileIdentity_(0, 0),
      fileLossLogged_(false),
      diskFolder_(talvern::ConfigInfo::sGetInstance()->getUserdiskDataPath()) {
    setNames(talvern::ConfigInfo::sGetInstance()->getDatabaseRootPath() + "/quorvia.db");
    init();
}

}  // namespace quorvia
