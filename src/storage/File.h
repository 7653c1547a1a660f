#ifndef QUORVIA_STORAGE_FILE_H
#define QUORVIA_STORAGE_FILE_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <boost/filesystem.hpp>
#include <string>

#include "storage/ErrorCode.h"

namespace talvern {

// Static file helpers. No file-system exception leaves them. Any thread.
class File {
public:
    // Free space a copy needs beyond the source's size.
    static const uint64_t kCopyFreeSpaceMargin = 10485760;
    // Bytes moved per step of the copy loop; the cancellation latency.
    static const size_t kCopyBlockSize = 1024;
    // Mode of a finished copy.
    static constexpr mode_t kCopiedFileMode = 0777;

    virtual ~File() {}

    // True if the path exists as anything at all, a directory included.
    static bool sExists(const std::string& path);
    // How /proc names what the descriptor fd of this process is open on
    // ("/proc/self/fd/N"): opened, or handed to a call that takes a path, it
    // is that file or folder, whatever stands at its path by now.
    static std::string sDescriptorPath(int fd);
    // Size of a regular file; 0 if missing or not regular.
    static uint64_t sGetFileSize(const std::string& path);
    // The file system's space figures for path; all zero on failure.
    static boost::filesystem::space_info sGetDiskSpaceInfo(const std::string& path);
    // Opens path for reading only if it is a regular file, without blocking
    // on a FIFO or device; NULL otherwise (errno tells why). Caller fcloses.
    static FILE* sOpenRegularFile(const std::string& path);
    // The same for name in the folder open as the descriptor folder; a link
    // at name is followed only when followLink (ELOOP otherwise).
    static FILE* sOpenRegularFileIn(int folder, const std::string& name, bool followLink);
    // The whole content of the regular file at path (a link is followed) in
    // content, when it holds at most maxBytes. false, with content empty, for
    // a missing or unreadable file, anything but a regular file (a FIFO is
    // never waited on, a device never read) or a larger one.
    static bool sReadRegularFile(const std::string& path, std::size_t maxBytes,
                                 std::string& content);
    // The same for name in the folder open as the descriptor folder, as
    // sOpenRegularFileIn opens it.
    static bool sReadRegularFileIn(int folder, const std::string& name, bool followLink,
                                   std::size_t maxBytes, std::string& content);
    // The whole lines of the regular file at path within its first maxBytes,
    // as a reader that goes line by line and stops early sees them: a larger
    // file gives its head, less a last line cut there. false, with content
    // empty, as for sReadRegularFile, but never for the size.
    static bool sReadRegularFileLines(const std::string& path, std::size_t maxBytes,
                                      std::string& content);
    // Removes a file; a directory is left in place and reported as success.
    static ErrorCode sDelete(const std::string& path);
    // Copies in blocks into a new file that then takes the place of to (a
    // link or FIFO planted at to is replaced, never written through): 0
    // copied, -1 open or write failed, -2 not enough free space, 1 the
    // calling boost::thread was interrupted (to left as it was).
    static int sRawCopyFile(const std::string& from, const std::string& to);
    // The same into name in the folder open as the descriptor folder (see
    // ReplacementFile); to names that file in what is logged and in the
    // check of free space.
    static int sRawCopyFileIn(const std::string& from, int folder, const std::string& name,
                              const std::string& to);
    // sRawCopyFile with its result as API code: 0, 1005, 1040 or 1061.
    static ErrorCode sCopy(const std::string& from, const std::string& to);
};

}  // namespace talvern

#endif
