#ifndef QUORVIA_SYSTEM_DEVICEROOT_H
#define QUORVIA_SYSTEM_DEVICEROOT_H

#include <string>

namespace talvern {

// Where the device's fixed paths lie. When the environment variable
// QUORVIA_ROOT is set and not empty, every fixed absolute path that the
// program itself names is taken under that directory, so that tests and the
// demo run on a private device tree. Paths that arrive as data (requests, file
// contents, command output) never pass through here.
class DeviceRoot {
public:
    virtual ~DeviceRoot() {}

    // fixedPath is one of the program's own absolute paths ("/userdisk/data");
    // the result is that path under QUORVIA_ROOT, or fixedPath itself when the
    // variable is unset or empty. Reads the environment at each call; any
    // thread may call it.
    static std::string sPath(const std::string& fixedPath);
};

}  // namespace talvern

#endif
