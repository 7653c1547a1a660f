#include "storage/ReplacementFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "storage/FileStatus.h"

namespace talvern {

namespace {

const char* const kUniqueSuffix = ".XXXXXX";
const char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
// Names tried before giving up: another writer would have to hold them all.
const int kCreateAttempts = 100;

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

// Fills the X's at the end of pattern. Distinct among this process's
// writers (the counter) and likely so among others' (the clock and the
// process): a name that is taken only costs another attempt.
void fillUniqueTail(std::string& pattern) {
    static std::atomic<uint64_t> counter(0);
    uint64_t bits =
        counter.fetch_add(1) ^ (static_cast<uint64_t>(getpid()) << 40) ^
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9ULL;
    bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebULL;
    const std::size_t alphabet = sizeof(kNameCharacters) - 1;
    for (std::size_t i = pattern.size() - (strlen(kUniqueSuffix) - 1); i < pattern.size(); ++i) {
        pattern[i] = kNameCharacters[bits % alphabet];
        bits /= alphabet;
    }
}

// Made exclusively, so never through a link, with the mode of a new file
// that "wb" makes (mkstemp would give 0600 whatever the umask).
int createUnique(int folder, std::string& pattern) {
    for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
        fillUniqueTail(pattern);
        const int fd =
            openat(folder, pattern.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) {
            return fd;
        }
    }
    return -1;
}

}  // namespace

ReplacementFile::ReplacementFile(const std::string& path) : ReplacementFile(AT_FDCWD, path) {}

ReplacementFile::ReplacementFile(int folder, const std::string& name)
    : folder_(folder),
      path_(name),
      temporary_(temporaryPattern(name)),
      stream_(NULL),
      committed_(false) {
    const int fd = createUnique(folder_, temporary_);
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
        unlinkat(folder_, temporary_.c_str(), 0);
    }
}

bool ReplacementFile::commit(bool sync) {
    if (stream_ == NULL) {
        return false;
    }
    bool done = fflush(stream_) == 0 && (!sync || fsync(fileno(stream_)) == 0);
    done = fclose(stream_) == 0 && done;
    stream_ = NULL;
    committed_ = done && renameat(folder_, temporary_.c_str(), folder_, path_.c_str()) == 0;
    return committed_;
}

bool ReplacementFile::commit(mode_t mode, bool sync) {
    return stream_ != NULL && fchmod(fileno(stream_), mode) == 0 && commit(sync);
}

bool ReplacementFile::commitKeepingOwner(bool sync) {
    FileStatus old;
    if (stream_ == NULL || FileStatus::sOfEntry(folder_, path_, old, false) != 0 ||
        !old.isRegular()) {
        return commit(sync);
    }
    // Unprivileged, the owner can't be given away: the mode stays, without
    // its set-id bits.
    if (fchown(fileno(stream_), old.owner, old.group) != 0) {
        old.mode &= 0777;
    }
    return commit(old.mode & 07777, sync);
}

}  // namespace talvern
