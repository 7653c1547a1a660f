#include "storage/Directory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "storage/FileStatus.h"
#include "system/Log.h"

namespace talvern {

namespace {

const int kNoSpaceLeftOnDevice = 28;

std::string withoutTrailingSlash(const std::string& path) {
    if (!path.empty() && path[path.size() - 1] == '/') {
        return path.substr(0, path.size() - 1);
    }
    return path;
}

boost::system::error_code systemError(int error) {
    return boost::system::error_code(error, boost::system::system_category());
}

// Names in the directory open at fd, "." and ".." left out. The stream gets a
// descriptor of its own, so fd stays open for the removals; the two share
// one offset, which is rewound for a second listing.
bool listNames(int fd, std::vector<std::string>& names) {
    const int own = dup(fd);
    DIR* stream = own < 0 ? NULL : fdopendir(own);
    if (stream == NULL) {
        if (own >= 0) {
            close(own);
        }
        return false;
    }
    rewinddir(stream);
    while (const dirent* entry = readdir(stream)) {
        const std::string name(entry->d_name);
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(stream);
    return true;
}

// The top of a tree being removed: its descriptor, how many entries the
// current pass over it moved up into it, and the number of the next name
// given there.
struct RemovalTop {
    int fd;
    unsigned int hoisted;
    unsigned long long nextName;
    bool folderOnly;  // named with a trailing "/": a file there is not the tree
};

// Moves name, in the directory open at fd, up into the top of the tree under
// a name of its own, where a later pass removes it: the walk holds one
// descriptor a level, so the levels below kMaxRemoveDepth go up instead of
// deeper. Everything in the top goes, so a name taken there is no loss.
int hoist(int fd, const std::string& name, RemovalTop& top) {
    const std::string hoisted = ".removing-" + std::to_string(top.nextName++);
    if (renameat(fd, name.c_str(), top.fd, hoisted.c_str()) != 0) {
        return errno;
    }
    ++top.hoisted;
    return 0;
}

int removeTree(int parentFd, const std::string& name, int depth, RemovalTop& top);

// Removes what the directory open at fd, depth levels below the top, holds.
int removeEntries(int fd, int depth, RemovalTop& top) {
    std::vector<std::string> names;
    if (!listNames(fd, names)) {
        return errno;
    }
    int error = 0;
    for (const std::string& child : names) {
        const int childError = depth >= Directory::kMaxRemoveDepth
                                   ? hoist(fd, child, top)
                                   : removeTree(fd, child, depth + 1, top);
        error = error != 0 ? error : childError;
    }
    return error;
}

// The top is gone over again while a pass moved entries up into it.
int removeTopEntries(int fd, RemovalTop& top) {
    top.fd = fd;
    for (int pass = 0; pass < Directory::kMaxRemovePasses; ++pass) {
        top.hoisted = 0;
        const int error = removeEntries(fd, 0, top);
        if (error != 0 || top.hoisted == 0) {
            return error;
        }
    }
    return ENAMETOOLONG;
}

bool isLinkIn(int fd, const std::string& name) {
    FileStatus status;
    return FileStatus::sOfEntry(fd, name, status, false) == 0 && status.isLink();
}

// Removes name in the directory open at parentFd, and everything below it
// when it is a directory. Every step goes through descriptors and refuses
// to follow a link, so a link anywhere in the tree (or one swapped in during
// the walk) is removed as a link and never leads outside. Returns 0 or the
// first errno met; what can be removed is removed all the same.
int removeTree(int parentFd, const std::string& name, int depth, RemovalTop& top) {
    const int fd = openat(parentFd, name.c_str(),
                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOTDIR && depth == 0 && top.folderOnly && !isLinkIn(parentFd, name)) {
            return 0;
        }
        if (errno == ENOTDIR || errno == ELOOP) {
            return unlinkat(parentFd, name.c_str(), 0) == 0 ? 0 : errno;
        }
        return errno == ENOENT ? 0 : errno;
    }
    int error = depth == 0 ? removeTopEntries(fd, top) : removeEntries(fd, depth, top);
    close(fd);
    if (unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        error = error != 0 ? error : errno;
    }
    return error;
}

// Why name, in the directory open at fd, could not be opened as a folder
// without following a link: the kernel says ENOTDIR for a link too.
int openBelowError(int fd, const std::string& name) {
    const int error = errno;
    FileStatus status;
    return error == ENOTDIR && FileStatus::sOfEntry(fd, name, status, false) == 0 && status.isLink()
               ? ELOOP
               : error;
}

// The walk of sOpenBelow; with make, each missing level is made on the way
// (0777 less the umask, as mkdir -p).
int openBelow(const std::string& top, const std::string& path, bool make) {
    const std::string above = withoutTrailingSlash(top);
    if (!Directory::sIsAncestorPath(above, path)) {
        errno = EINVAL;
        return -1;
    }
    int fd = open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (std::size_t start = above.size(); fd >= 0 && start < path.size();) {
        const std::size_t end = std::min(path.find('/', start + 1), path.size());
        const std::string part = path.substr(start + 1, end - start - 1);
        start = end;
        if (part.empty() || part == ".") {
            continue;
        }
        if (make && part != ".." && mkdirat(fd, part.c_str(), 0777) != 0 && errno != EEXIST) {
            const int error = errno;
            close(fd);
            errno = error;
            return -1;
        }
        const int next = part == ".." ? -1
                                      : openat(fd, part.c_str(),
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int error = part == ".." ? EINVAL : (next < 0 ? openBelowError(fd, part) : 0);
        close(fd);
        fd = next;
        errno = error;
    }
    return fd;
}

int removeTreeNamed(int parentFd, const std::string& name, bool folderOnly) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        return EINVAL;
    }
    RemovalTop top = {-1, 0, 0, folderOnly};
    return removeTree(parentFd, name, 0, top);
}

// name with one trailing "/" names a folder.
int removeTreeIn(int parentFd, const std::string& name) {
    const std::string trimmed = withoutTrailingSlash(name);
    return removeTreeNamed(parentFd, trimmed, trimmed.size() < name.size());
}

// The recursive removal of path: its last component is taken as it is (a
// link there is removed as a link, whatever a trailing "/" says; a file is
// left when a trailing "/" names a folder).
int removeTreeAt(const std::string& path) {
    const std::string trimmed = withoutTrailingSlash(path);
    const std::string::size_type slash = trimmed.rfind('/');
    const std::string parent =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : trimmed.substr(0, slash));
    const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    const int parentFd = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    const int error = removeTreeNamed(parentFd, name, trimmed.size() < path.size());
    close(parentFd);
    return error;
}

// mkdir -p, each missing level made in turn, the last one with 0777 less the
// umask as boost's create_directories made it (which can't be used: it reads
// the status of every level, see FileStatus). EEXIST: a file stands there;
// EINVAL for the empty path, as there.
int makeDirectories(const std::string& path) {
    if (path.empty()) {
        return EINVAL;
    }
    FileStatus status;
    const int error = FileStatus::sOfPath(path, status);
    if (error == 0) {
        return status.isDirectory() ? 0 : EEXIST;
    }
    if (error != ENOENT) {
        return error;
    }
    const std::string trimmed = withoutTrailingSlash(path);
    const std::string::size_type slash = trimmed.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        const int parentError = makeDirectories(trimmed.substr(0, slash));
        if (parentError != 0) {
            return parentError;
        }
    }
    if (mkdir(trimmed.c_str(), 0777) == 0) {
        return 0;
    }
    const int made = errno;
    return made == EEXIST && FileStatus::sOfPath(trimmed, status) == 0 && status.isDirectory()
               ? 0
               : made;
}

// The outcome of making the directory path; a full disk is logged.
ErrorCode creationResult(const std::string& path, int error) {
    const boost::system::error_code ec = systemError(error);
    if (ec.value() == kNoSpaceLeftOnDevice) {
        QLOG(ERROR) << "create directory " << path << ", No space left on device";
    }
    return ErrorCode(ec);
}

// A file, a link or an empty directory; nothing there is no error.
int removeOne(const std::string& path) {
    if (unlink(path.c_str()) == 0 || (errno == EISDIR && rmdir(path.c_str()) == 0)) {
        return 0;
    }
    return errno == ENOENT || errno == ENOTDIR ? 0 : errno;
}

}  // namespace

bool Directory::sExists(const std::string& path) {
    FileStatus status;
    const int error = FileStatus::sOfPath(path, status);
    if (error != 0 && error != ENOENT && error != ENOTDIR) {
        QLOG(ERROR) << "Directory::sExists, exception : " << path << ": "
                    << systemError(error).message();
    }
    return error == 0;
}

ErrorCode Directory::sCreateDirectory(const std::string& path) {
    const int error = makeDirectories(path);
    // Never through a link planted at path: the mode is for our own folder.
    fchmodat(AT_FDCWD, withoutTrailingSlash(path).c_str(), kCreatedDirectoryMode,
             AT_SYMLINK_NOFOLLOW);
    return creationResult(path, error);
}

ErrorCode Directory::sDelete(const std::string& path, bool recursive) {
    ErrorCode result;
    try {
        result.setSystemError(
            systemError(recursive ? removeTreeAt(path) : removeOne(withoutTrailingSlash(path))));
    } catch (const std::exception& e) {
        QLOG(ERROR) << "Directory::sDelete catch exception: " << e.what();
    }
    return result;
}

ErrorCode Directory::sDeleteIn(int folder, const std::string& name) {
    ErrorCode result;
    result.setSystemError(systemError(removeTreeIn(folder, name)));
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

int Directory::sOpenBelow(const std::string& top, const std::string& path) {
    return openBelow(top, path, false);
}

ErrorCode Directory::sCreateBelow(const std::string& top, const std::string& path) {
    const int topError = makeDirectories(top);
    const int fd = topError != 0 ? -1 : openBelow(top, path, true);
    const int error = topError != 0 ? topError : (fd < 0 ? errno : 0);
    if (fd >= 0) {
        fchmod(fd, kCreatedDirectoryMode);
        close(fd);
    }
    return creationResult(path, error);
}

}  // namespace talvern
