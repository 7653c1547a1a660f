#include "system/DeviceRoot.h"

#include <cstdlib>

namespace talvern {

std::string DeviceRoot::sPath(const std::string& fixedPath) {
    const char* root = std::getenv("QUORVIA_ROOT");
    if (root == NULL || *root == '\0') {
        return fixedPath;
    }
    std::string prefix(root);
    while (prefix.size() > 1 && prefix[prefix.size() - 1] == '/') {
        prefix.erase(prefix.size() - 1);
    }
    return prefix + fixedPath;
}

}  // namespace talvern
