#include "storage/Directory.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include "system/Log.h"

namespace fs = boost::filesystem;

namespace talvern {

namespace {

const int kNoSpaceLeftOnDevice = 28;

std::string withoutTrailingSlash(const std::string& path) {
    if (!path.empty() && path[path.size() - 1] == '/') {
        return path.substr(0, path.size() - 1);
    }
    return path;
}

}  // namespace

bool Directory::sExists(const std::string& path) {
    try {
        return fs::exists(path);
    } catch (const std::exception& e) {
        QLOG(ERROR) << "Directory::sExists, exception : " << e.what();
    } catch (...) {
        QLOG(ERROR) << "Directory::sExists, exception ... ";
    }
    return false;
}

ErrorCode Directory::sCreateDirectory(const std::string& path) {
    boost::system::error_code ec;
    fs::create_directories(path, ec);
    chmod(path.c_str(), kCreatedDirectoryMode);
    if (ec.value() == kNoSpaceLeftOnDevice) {
        QLOG(ERROR) << "create directory " << path << ", No space left on device";
    }
    return ErrorCode(ec);
}

ErrorCode Directory::sDelete(const std::string& path, bool recursive) {
    ErrorCode result;
    try {
        boost::system::error_code ec;
        if (recursive) {
            fs::remove_all(path, ec);
        } else {
            fs::remove(path, ec);
        }
        result.setSystemError(ec);
    } catch (const fs::filesystem_error& e) {
        QLOG(ERROR) << "Directory::sDelete catch exception: " << e.what();
        result.setSystemError(e.code());
    } catch (const std::exception& e) {
        QLOG(ERROR) << "Directory::sDelete catch exception: " << e.what();
    }
    return result;
}

bool Directory::sIsAncestorPath(const std::string& ancestor, const std::string& path) {
    if (ancestor.empty() || path.empty()) {
        return false;
    }
    const std::string a = withoutTrailingSlash(ancestor);
    const std::string p = withoutTrailingSlash(path);
    if (a == p) {
        return true;
    }
    return p.size() > a.size() && p.compare(0, a.size(), a) == 0 && p[a.size()] == '/';
}

}  // namespace talvern
