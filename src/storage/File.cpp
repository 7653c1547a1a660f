#include "storage/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <boost/thread/thread.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/Log.h"

namespace fs = boost::filesystem;

namespace talvern {

namespace {

boost::system::error_code systemError(int error) {
    return boost::system::error_code(error, boost::system::system_category());
}

// Reads the status of path, a link followed; an error other than "nothing
// there" is logged after the caller's words.
int readStatus(const std::string& path, FileStatus& status, const char* words) {
    const int error = FileStatus::sOfPath(path, status);
    if (error != 0 && error != ENOENT && error != ENOTDIR) {
        QLOG(ERROR) << words << path << ": " << systemError(error).message();
    }
    return error;
}

}  // namespace

std::string File::sDescriptorPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool File::sExists(const std::string& path) {
    FileStatus status;
    return readStatus(path, status, "File::sExists catch exception: ") == 0;
}

uint64_t File::sGetFileSize(const std::string& path) {
    FileStatus status;
    if (readStatus(path, status, "File::sGetFileSize catch exception: ") == 0 &&
        status.isRegular()) {
        return status.size;
    }
    return 0;
}

fs::space_info File::sGetDiskSpaceInfo(const std::string& path) {
    try {
        return fs::space(path);
    } catch (const std::exception& e) {
        QLOG(ERROR) << "boost::filesystem::space(" << path << "), exception : " << e.what();
    }
    fs::space_info none;
    none.capacity = none.free = none.available = 0;
    return none;
}

ErrorCode File::sDelete(const std::string& path) {
    ErrorCode result;
    FileStatus status;
    const int error = readStatus(path, status, "File::sDelete catch exception: ");
    if (error != 0) {
        if (error != ENOENT && error != ENOTDIR) {
            result.setSystemError(systemError(error));
        }
        return result;
    }
    if (status.isDirectory()) {
        QLOG(ERROR) << "File delete with folder type. ignore it.";
        return result;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        result.setSystemError(systemError(errno));
    }
    return result;
}

FILE* File::sOpenRegularFile(const std::string& path) {
    return sOpenRegularFileIn(AT_FDCWD, path, true);
}

FILE* File::sOpenRegularFileIn(int folder, const std::string& name, bool followLink) {
    const int fd =
        openat(folder, name.c_str(),
               O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | (followLink ? 0 : O_NOFOLLOW));
    if (fd < 0) {
        return NULL;
    }
    FileStatus status;
    if (FileStatus::sOfDescriptor(fd, status) != 0 || !status.isRegular()) {
        close(fd);
        errno = EINVAL;
        return NULL;
    }
    FILE* file = fdopen(fd, "rb");
    if (file == NULL) {
        close(fd);
    }
    return file;
}

namespace {

enum ReadResult { READ_WHOLE, READ_CUT, READ_FAILED };

// Reads at most maxBytes of the regular file; READ_CUT when more was there.
ReadResult readRegular(int folder, const std::string& name, bool followLink, std::size_t maxBytes,
                       std::string& content) {
    content.clear();
    FILE* file = File::sOpenRegularFileIn(folder, name, followLink);
    if (file == NULL) {
        return READ_FAILED;
    }
    char block[4096];
    std::size_t got;
    bool cut = false;
    while (!cut && (got = std::fread(block, 1, sizeof block, file)) > 0) {
        const std::size_t room = maxBytes - content.size();
        cut = got > room;
        content.append(block, cut ? room : got);
    }
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        content.clear();
        return READ_FAILED;
    }
    return cut ? READ_CUT : READ_WHOLE;
}

}  // namespace

bool File::sReadRegularFile(const std::string& path, std::size_t maxBytes, std::string& content) {
    return sReadRegularFileIn(AT_FDCWD, path, true, maxBytes, content);
}

bool File::sReadRegularFileIn(int folder, const std::string& name, bool followLink,
                              std::size_t maxBytes, std::string& content) {
    if (readRegular(folder, name, followLink, maxBytes, content) == READ_WHOLE) {
        return true;
    }
    content.clear();
    return false;
}

bool File::sReadRegularFileLines(const std::string& path, std::size_t maxBytes,
                                 std::string& content) {
    const ReadResult result = readRegular(AT_FDCWD, path, true, maxBytes, content);
    if (result == READ_CUT) {
        // npos + 1 is 0: a head without a line end holds no whole line.
        content.erase(content.rfind('\n') + 1);
    }
    return result != READ_FAILED;
}

namespace {

// line, then the text of errno, both at ERROR.
void logFailure(const std::string& line) {
    const int error = errno;
    QLOG(ERROR) << line;
    QLOG(ERROR) << std::strerror(error);
}

void logOpenFailure(const std::string& path) { logFailure("open file " + path + " failed"); }

// Copies block by block; returns 0 or -1 (short write, logged).
int copyBlocks(FILE* in, FILE* out) {
    char block[File::kCopyBlockSize];
    for (;;) {
        const size_t bytesIn = std::fread(block, 1, sizeof block, in);
        if (bytesIn == 0) {
            return 0;
        }
        const size_t bytesOut = std::fwrite(block, 1, bytesIn, out);
        if (bytesOut < bytesIn) {
            logFailure("copy file bytes_in=" + std::to_string(bytesIn) +
                       " bytes_out=" + std::to_string(bytesOut));
            return -1;
        }
        boost::this_thread::interruption_point();
    }
}

}  // namespace

int File::sRawCopyFile(const std::string& from, const std::string& to) {
    return sRawCopyFileIn(from, AT_FDCWD, to, to);
}

int File::sRawCopyFileIn(const std::string& from, int folder, const std::string& name,
                         const std::string& to) {
    const std::string parent = fs::path(to).parent_path().string();
    const uint64_t size = sGetFileSize(from);
    if (sGetDiskSpaceInfo(parent).available < size + kCopyFreeSpaceMargin) {
        QLOG(ERROR) << "copy error: No space left on device , from " << from << " to " << to
                    << ", available space is " << sGetDiskSpaceInfo(parent).available << " byte";
        return -2;
    }
    FILE* in = std::fopen(from.c_str(), "rb");
    if (in == NULL) {
        logOpenFailure(from);
        return -1;
    }
    // The copy takes the place of whatever stands at to (a link or a FIFO
    // planted there is replaced, never written through) only once complete:
    // a peer reading the thumbnail at to never sees half of one, and a copy
    // that fails leaves what stood there.
    ReplacementFile out(folder, name);
    if (out.stream() == NULL) {
        logOpenFailure(to);
        std::fclose(in);
        return -1;
    }
    int result = 0;
    try {
        result = copyBlocks(in, out.stream());
    } catch (const boost::thread_interrupted&) {
        QLOG(ERROR) << "copy thread interrupted";
        std::fclose(in);
        return 1;
    }
    std::fclose(in);
    if (result == 0 && !out.commit(kCopiedFileMode, false)) {
        logFailure("copy file to " + to + " not completed");
        return -1;
    }
    return result;
}

ErrorCode File::sCopy(const std::string& from, const std::string& to) {
    switch (sRawCopyFile(from, to)) {
        case 0:
            return ErrorCode();
        case -2:
            return ErrorCode(NO_SPACE_LEFT_ON_DEVICE);
        case 1:
            return ErrorCode(COPY_CANCELLED);
        default:
            return ErrorCode(FILE_COPY_FAILED);
    }
}

}  // namespace talvern
