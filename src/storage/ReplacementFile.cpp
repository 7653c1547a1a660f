#include "storage/ReplacementFile.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "storage/FileStatus.h"

namespace talvern {

namespace {

const char* const kUniqueSuffix = ".XXXXXX";

// A hidden name beside path, unique to this write. Of a name near the file
// system's limit only the start is kept, so that the new name fits too, cut
// between two UTF-8 characters (the disk's FAT or NTFS refuses half of one).
std::string temporaryPattern(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::size_t kept = std::min(name.size(), NAME_MAX - 1 - strlen(kUniqueSuffix));
    while (kept > 0 && kept < name.size() && (name[kept] & 0xC0) == 0x80) {
        --kept;
    }
    return folder + "." + name.substr(0, kept) + kUniqueSuffix;
}

}  // namespace

ReplacementFile::ReplacementFile(const std::string& path)
    : path_(path), temporary_(temporaryPattern(path)), stream_(NULL), committed_(false) {
    const int fd = mkstemp(&temporary_[0]);
    if (fd < 0) {
        temporary_.clear();
        return;
    }
    stream_ = fdopen(fd, "wb");
    if (stream_ == NULL) {
        close(fd);
    }
}

ReplacementFile::~ReplacementFile() {
    if (stream_ != NULL) {
        fclose(stream_);
    }
    if (!committed_ && !temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

bool ReplacementFile::commit(mode_t mode, bool sync) {
    if (stream_ == NULL) {
        return false;
    }
    const int fd = fileno(stream_);
    bool done = fflush(stream_) == 0 && fchmod(fd, mode) == 0 && (!sync || fsync(fd) == 0);
    done = fclose(stream_) == 0 && done;
    stream_ = NULL;
    committed_ = done && rename(temporary_.c_str(), path_.c_str()) == 0;
    return committed_;
}

bool ReplacementFile::commitKeepingOwner(mode_t newMode, bool sync) {
    FileStatus old;
    if (stream_ == NULL || FileStatus::sOfPath(path_, old, false) != 0 || !old.isRegular()) {
        return commit(newMode, sync);
    }
    // Unprivileged, the owner can't be given away: the mode stays, without
    // its set-id bits.
    if (fchown(fileno(stream_), old.owner, old.group) != 0) {
        old.mode &= 0777;
    }
    return commit(old.mode & 07777, sync);
}

}  // namespace talvern
