#ifndef QUORVIA_STORAGE_DIRECTORY_H
#define QUORVIA_STORAGE_DIRECTORY_H

#include <string>

#include "storage/ErrorCode.h"

namespace talvern {

// Static directory helpers; no file-system exception leaves them. Any thread.
class Directory {
public:
    // Mode of a directory made by sCreateDirectory (its last component only).
    static const int kCreatedDirectoryMode = 0777;
    // Deepest level the recursive delete descends to: it holds one descriptor
    // a level. What lies deeper is moved up into the tree's top and removed
    // by another pass over it.
    static constexpr int kMaxRemoveDepth = 64;
    // Passes over the top before the delete gives up (ENAMETOOLONG): a tree
    // some 60,000 levels deep, or one that another process keeps deepening.
    static constexpr int kMaxRemovePasses = 1000;

    virtual ~Directory() {}

    // True if the path exists as anything at all, a regular file included; a
    // path that can't be examined counts as missing (logged).
    static bool sExists(const std::string& path);
    // Makes the directory and its missing parents; the system error says how.
    static ErrorCode sCreateDirectory(const std::string& path);
    // Removes a whole tree (recursive) or one empty entry. A missing path is
    // no error. A link, at path (trailing "/" or not) or anywhere below it, is
    // removed as a link: nothing outside the tree is ever touched. To the
    // recursive removal, a trailing "/" names a folder: a file standing there
    // is left, as missing.
    static ErrorCode sDelete(const std::string& path, bool recursive);
    // sDelete(..., true) of name (one component, with or without a trailing
    // "/") in the folder open as the descriptor folder.
    static ErrorCode sDeleteIn(int folder, const std::string& name);
    // True if ancestor is path or one of its parent directories, compared on
    // bytes after cutting one trailing "/" from each; false if either is empty.
    static bool sIsAncestorPath(const std::string& ancestor, const std::string& path);
    // Opens the directory at path, which is top or lies below it, without
    // following a link below top (top itself is followed): the descriptor
    // (read-only, close-on-exec; the caller closes it) stays on the folder
    // checked whatever is swapped on the way later, for *at calls and
    // fsync. -1 with errno: ELOOP for a link below top, EINVAL when path is
    // not below top or takes a "..", as open() gives otherwise.
    static int sOpenBelow(const std::string& top, const std::string& path);
    // sCreateDirectory below top as sOpenBelow walks it: each missing level
    // is made in the folder opened before it, so a link planted or swapped in
    // below top leads none of them elsewhere (ELOOP). top, trusted, is made
    // by name where missing.
    static ErrorCode sCreateBelow(const std::string& top, const std::string& path);
};

}  // namespace talvern

#endif
