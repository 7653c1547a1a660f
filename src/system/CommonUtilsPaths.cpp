#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cctype>
#include <sstream>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/DeviceMountInfo.h"
#include "system/Log.h"

namespace {

const char* const kCopyWord = "-副本";
const int kFirstWordCounter = 2;
const char* const kLibconfigKeyPrefix = "key_";
const size_t kDfFields = 6;
const size_t kDfTotalField = 1;
const size_t kDfAvailableField = 3;
const unsigned long long kDfBlockSize = 1024;

// Characters that can't stand in a name. The slash isn't one: it separates.
const std::string& invalidNameChars() {
    static const std::string chars("\\:*?\"<>|;");
    return chars;
}

// Characters the shell would read as syntax in a path: escaped with "\".
const std::string& escapedPathChars() {
    static const std::string chars(" *?()");
    return chars;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

struct NameParts {
    std::string parent;
    std::string stem;
    std::string extension;
};

NameParts splitName(const std::string& path) {
    const boost::filesystem::path name(path);
    NameParts parts = {name.parent_path().string(), name.stem().string(),
                       name.extension().string()};
    return parts;
}

// Index of the "(" of a trailing "(digits)" in stem, or npos.
std::string::size_type counterStart(const std::string& stem) {
    if (stem.size() < 3 || stem[stem.size() - 1] != ')') {
        return std::string::npos;
    }
    std::string::size_type at = stem.size() - 2;
    while (at > 0 && isDigit(stem[at])) {
        --at;
    }
    return (stem[at] == '(' && at < stem.size() - 2) ? at : std::string::npos;
}

std::string counterName(const NameParts& parts, const std::string& name) {
    const std::string file = name + parts.extension;
    return parts.parent.empty() ? file : parts.parent + "/" + file;
}

// Always parent + "/": callers of the word rule pass absolute paths, and a
// bare name is taken as one at the root.
std::string wordName(const NameParts& parts, const std::string& stem, int counter) {
    std::string name = parts.parent + "/" + stem + kCopyWord;
    if (counter > 0) {
        std::ostringstream number;
        number << counter;
        name += number.str();
    }
    return name + parts.extension;
}

// The stem before a trailing "-副本" + digits (or nothing); else the stem.
std::string stemWithoutCopyWord(const std::string& stem) {
    const std::string::size_type at = stem.find(kCopyWord);
    if (at == std::string::npos) {
        return stem;
    }
    for (std::string::size_type i = at + strlen(kCopyWord); i < stem.size(); ++i) {
        if (!isDigit(stem[i])) {
            return stem;
        }
    }
    return stem.substr(0, at);
}

// A mount point that can go to the shell as it stands.
bool isPlainMountPoint(const std::string& mountPoint) {
    static const std::string allowed("/._-+,:@%=");
    if (mountPoint.empty() || mountPoint[0] != '/') {
        return false;
    }
    for (std::string::size_type i = 0; i < mountPoint.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(mountPoint[i]);
        if (!isalnum(c) && c < 0x80 && allowed.find(static_cast<char>(c)) == std::string::npos) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string CommonUtils::sRemoveSuffix(std::string& path) {
    while (path.size() > 1 && path[path.size() - 1] == '/') {
        path.erase(path.size() - 1);
    }
    return path;
}

// A lone quote is both first and last character, but no pair: it stays.
std::string CommonUtils::sRemoveMarks(const std::string& text) {
    if (text.size() >= 2 && text[0] == text[text.size() - 1] &&
        (text[0] == '\'' || text[0] == '"')) {
        return text.substr(1, text.size() - 2);
    }
    return text;
}

void CommonUtils::sTrimAll(char* text) {
    if (text == NULL) {
        return;
    }
    char* from = text;
    char* to = text;
    while (*from == ' ') {
        ++from;
    }
    while (*from != '\0') {
        const bool blank = *from == ' ';
        *to++ = *from++;
        while (blank && *from == ' ') {
            ++from;
        }
    }
    *to = '\0';
}

bool CommonUtils::sIsHttpCodeSucceed(int code) { return code == 200 || code == 206; }

bool CommonUtils::sIsContainInvalidChar(const std::string& name) {
    const std::string::size_type at = name.find_first_of(invalidNameChars());
    if (at == std::string::npos) {
        return false;
    }
    QLOG(INFO) << name << "contains invalid char which is " << name[at];
    return true;
}

std::string CommonUtils::sGetEscapedPath(const std::string& path) {
    std::string escaped;
    escaped.reserve(path.size());
    for (std::string::size_type i = 0; i < path.size(); ++i) {
        if (escapedPathChars().find(path[i]) != std::string::npos) {
            QLOG(ERROR) << path << "contains invalid char which is " << path[i];
            escaped += '\\';
        }
        escaped += path[i];
    }
    return escaped;
}

void CommonUtils::sConvertToValidLibconfigKey(std::string& key) {
    if (key.empty()) {
        return;
    }
    if (!isalpha(static_cast<unsigned char>(key[0])) && key[0] != '*') {
        key.insert(0, kLibconfigKeyPrefix);
    }
    for (std::string::size_type i = 0; i < key.size(); ++i) {
        const char c = key[i];
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '*') {
            key[i] = '_';
        }
    }
}

namespace {

// seconds as a Time, or 0 when a Time can't hold it. Each result is checked
// against its own type: some 32-bit C libraries have a 64-bit time_t and a
// 32-bit long.
template <typename Time>
Time fitting(int64_t seconds) {
    return seconds == static_cast<Time>(seconds) ? static_cast<Time>(seconds) : 0;
}

}  // namespace

// Read through FileStatus: where time_t has 32 bits, stat64() fails for a
// file any of whose times is past 2038. A time that a long can't hold is 0.
long CommonUtils::sGetFileModifyTime(const std::string& path) {
    talvern::FileStatus status;
    return talvern::FileStatus::sOfPath(path, status) == 0 ? fitting<long>(status.modifyTime) : 0;
}

int CommonUtils::sSetFileModifyTime(const std::string& path, long time) {
    struct timeval times[2];
    times[0].tv_sec = time;
    times[0].tv_usec = 0;
    times[1] = times[0];
    return utimes(path.c_str(), times);
}

bool CommonUtils::sIsFile(const std::string& path) {
    talvern::FileStatus status;
    return talvern::FileStatus::sOfPath(path, status) == 0 && !status.isDirectory();
}

// A path that can't be reached gives a record of zeros (device id 0 is no
// device), so a caller comparing device ids never matches by accident of
// uninitialised memory. Filled from FileStatus (see sGetFileModifyTime): a
// time that time_t can't hold is 0.
struct stat64 CommonUtils::sGetFileStat(const std::string& path) {
    struct stat64 info;
    memset(&info, 0, sizeof(info));
    talvern::FileStatus status;
    if (talvern::FileStatus::sOfPath(path, status) == 0) {
        info.st_dev = status.device;
        info.st_ino = status.inode;
        info.st_mode = status.mode;
        info.st_nlink = status.links;
        info.st_uid = status.owner;
        info.st_gid = status.group;
        info.st_size = static_cast<off64_t>(status.size);
        info.st_atime = fitting<time_t>(status.accessTime);
        info.st_mtime = fitting<time_t>(status.modifyTime);
        info.st_ctime = fitting<time_t>(status.changeTime);
    }
    QLOG(INFO) << "the device id of " << path << " is :" << info.st_dev;
    return info;
}

std::string CommonUtils::sConvertTimeFormat(long time) {
    const time_t seconds = static_cast<time_t>(time);
    struct tm local;
    if (localtime_r(&seconds, &local) == NULL) {
        return std::string();
    }
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

std::string CommonUtils::sGetNowTimeStamp() {
    const long long now = ::time(NULL);
    QLOG(INFO) << "get now time stamp: " << now;
    std::ostringstream text;
    text << now;
    return text.str();
}

int CommonUtils::xasprintf(char** result, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(result, format, arguments);
    va_end(arguments);
    if (length < 0) {
        QLOG(ERROR) << "xasprintf: allocation failed";
        *result = NULL;
    }
    return length;
}

// F_SETLK takes the flock record of this build's off_t width (64-bit with
// large-file support), so record and call always agree.
int CommonUtils::slockFileLock(struct flock& lock, short type, int fd, const std::string& name) {
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) == -1) {
        QLOG(ERROR) << "failed to lock file " << name;
        close(fd);
        return -1;
    }
    return 0;
}

int CommonUtils::sUnlockFileLock(struct flock& lock, int fd, const std::string& name) {
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    int result = 0;
    if (fcntl(fd, F_SETLK, &lock) == -1) {
        QLOG(ERROR) << "failed to unlock file " << name;
        result = -1;
    }
    close(fd);
    return result;
}

std::string CommonUtils::sGetDuplicateFileName(const std::string& path) {
    if (!talvern::File::sExists(path)) {
        return path;
    }
    const NameParts parts = splitName(path);
    std::string stem = parts.stem;
    if (!stem.empty() && stem[stem.size() - 1] != ')') {
        stem += "(1)";
    }
    const std::string::size_type open = counterStart(stem);
    if (open == std::string::npos) {
        return counterName(parts, stem + "(1)");
    }
    const std::string base = stem.substr(0, open);
    for (int counter = 1;; ++counter) {
        std::ostringstream name;
        name << base << "(" << counter << ")";
        const std::string candidate = counterName(parts, name.str());
        if (!talvern::File::sExists(candidate)) {
            return candidate;
        }
    }
}

std::string CommonUtils::sGetDuplicatePath(const std::string& path) {
    if (path.empty() || !talvern::File::sExists(path)) {
        return path;
    }
    const NameParts parts = splitName(path);
    const std::string stem = stemWithoutCopyWord(parts.stem);
    const std::string first = wordName(parts, stem, 0);
    if (!talvern::File::sExists(first)) {
        return first;
    }
    for (int counter = kFirstWordCounter;; ++counter) {
        const std::string candidate = wordName(parts, stem, counter);
        if (!talvern::File::sExists(candidate)) {
            QLOG(INFO) << "CommonUtils::sGetDuplicatePath return newPath: " << candidate;
            return candidate;
        }
    }
}

namespace {

// The tidy of sGetAbsolutePath; a component that begins with "..." fails it
// only when dotsFail.
bool tidyPath(const std::string& path, bool dotsFail, std::string& result) {
    if (path.empty()) {
        return false;
    }
    const std::vector<std::string> fields = CommonUtils::splitString(path, "/");
    std::vector<std::string> components;
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string& field = fields[i];
        if (field == "..") {
            if (components.empty()) {
                return false;
            }
            components.pop_back();
        } else if (dotsFail && field.compare(0, 3, "...") == 0) {
            return false;
        } else if (!field.empty() && field != ".") {
            components.push_back(field);
        }
    }
    std::string joined;
    for (size_t i = 0; i < components.size(); ++i) {
        joined += (i == 0 ? "" : "/") + components[i];
    }
    const bool absolute = path[0] == '/';
    if (components.empty()) {
        result = absolute ? "/" : "";
        return true;
    }
    result = (absolute ? "/" : "") + joined + (path[path.size() - 1] == '/' ? "/" : "");
    return true;
}

}  // namespace

// An empty path names nothing and gives false. When no component is left, an
// absolute path is the root "/" alone (not "//") and a relative one is empty
// (never "/", which would turn it into the root).
bool CommonUtils::sGetAbsolutePath(const std::string& path, std::string& result) {
    return tidyPath(path, true, result);
}

bool CommonUtils::sIsCanUmountDevice(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    // "/." and "/userdisk/.." name the root as "/" does; a path that climbs
    // above the root names nothing to unmount. "...x" is a name like any other.
    std::string target;
    if (!tidyPath(path, false, target)) {
        return false;
    }
    sRemoveSuffix(target);
    if (target == "/") {
        return false;
    }
    const std::vector<talvern::MountInfo> mounts =
        talvern::DeviceMountInfo::sGetSystemDeviceMountInfo();
    for (size_t i = 0; i < mounts.size(); ++i) {
        if (target == mounts[i].deviceName || target == mounts[i].mountPoint) {
            return false;
        }
    }
    return true;
}

void CommonUtils::sGetPartitionSpaceInfo(const std::string& mountPoint,
                                         unsigned long long& total,
                                         unsigned long long& available) {
    total = 0;
    available = 0;
    if (!isPlainMountPoint(mountPoint)) {
        QLOG(INFO) << "sGetPartitionSpaceInfo: refused a mount point that isn't plain";
        return;
    }
    std::string output;
    if (!sCallSystem("df | grep " + mountPoint, output)) {
        return;
    }
    const std::vector<std::string> lines = splitStringTokenCompress(output, "\n");
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::vector<std::string> fields = splitStringTokenCompress(lines[i], " ");
        if (fields.size() == kDfFields && fields[kDfFields - 1] == mountPoint) {
            total = lexicalCast<unsigned long long>(fields[kDfTotalField], 0ULL) * kDfBlockSize;
            available =
                lexicalCast<unsigned long long>(fields[kDfAvailableField], 0ULL) * kDfBlockSize;
            return;
        }
    }
}
