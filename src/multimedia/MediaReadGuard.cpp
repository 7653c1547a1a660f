#include "multimedia/MediaReadGuard.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/Log.h"

namespace talvern {

const char* const MediaReadGuard::kListFileName = "unreadable-media";
const char* const MediaReadGuard::kReadingMarkerPrefix = "reading-";
const char* const MediaReadGuard::kCrashedMarkerPrefix = "crashed-";

namespace {

// A listed file and how often it was being read when the process died.
typedef std::pair<int, std::string> Entry;
// A stored list is no longer than its entries can be: a count, a tab, a path
// and a NUL each.
const std::size_t kMaxListBytes = MediaReadGuard::kMaxListed * (PATH_MAX + 16);

// One reader's marker. The names, in the markers' folder, are kept as plain
// characters because the crash hook may use nothing else.
struct Slot {
    int fd;
    bool busy;
    char reading[NAME_MAX + 1];
    char crashed[NAME_MAX + 1];
};

// The crash signals, and SIGTERM, the orderly stop.
const int kHookedSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM};
const std::size_t kHookedCount = sizeof(kHookedSignals) / sizeof(kHookedSignals[0]);

// Set by sRecover before any reader starts. The slots and the list are set
// up once by the first guard that finds the folder (under gPrepareMutex, then
// gPrepared), read-only afterwards except for the busy flags (under
// gSlotMutex); a slot counts once its marker is open.
MediaReadGuard::Folder gFolder;
// The markers' folder, held open from the first guard that finds it: every
// name in it is taken through this descriptor, so a folder swapped for a link
// on the disk later leads nothing elsewhere. Its path is for the log.
int gFolderFd = -1;
std::string gFolderPath;
boost::mutex gPrepareMutex;
std::atomic<bool> gPrepared(false);
Slot gSlots[MediaReadGuard::kMaxReaders];
std::atomic<int> gSlotCount(0);
std::vector<std::string> gListed;
struct sigaction gPrevious[kHookedCount];
boost::mutex gSlotMutex;
thread_local int tSlot = -1;
// Set by an orderly stop before it empties the markers: a read that starts
// while the handlers run (glog's writes a stack trace first) empties its own.
std::atomic<bool> gStopping(false);

void chainToPrevious(int signal, siginfo_t* info, void* context) {
    for (std::size_t i = 0; i < kHookedCount; ++i) {
        if (kHookedSignals[i] != signal) {
            continue;
        }
        sigaction(signal, &gPrevious[i], NULL);
        if ((gPrevious[i].sa_flags & SA_SIGINFO) != 0) {
            gPrevious[i].sa_sigaction(signal, info, context);
        } else if (gPrevious[i].sa_handler != SIG_DFL && gPrevious[i].sa_handler != SIG_IGN) {
            gPrevious[i].sa_handler(signal);
        } else {
            // Delivered with the default action once this handler returns.
            raise(signal);
        }
    }
}

// An orderly stop is no fault of the files being read: every marker is
// emptied, so none of them counts against its file at the next start.
void clearMarkers() {
    for (int i = 0; i < gSlotCount; ++i) {
        while (ftruncate(gSlots[i].fd, 0) != 0 && errno == EINTR) {
        }
    }
}

// Only async-signal-safe calls. A crash turns the crashing thread's marker
// into a crash record.
void onSignal(int signal, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const int slot = tSlot;
    if (signal == SIGTERM) {
        gStopping = true;
        clearMarkers();
    } else if (slot >= 0) {
        renameat(gFolderFd, gSlots[slot].reading, gFolderFd, gSlots[slot].crashed);
    }
    errno = savedErrno;
    chainToPrevious(signal, info, context);
}

void hookSignals() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO;
    for (std::size_t i = 0; i < kHookedCount; ++i) {
        sigaction(kHookedSignals[i], &action, &gPrevious[i]);
    }
}

std::string pathOf(const std::string& name) { return gFolderPath + "/" + name; }

// Content of the regular file name that is no link, at most limit bytes of
// it; "" otherwise. The folder lies on the user's disk: a FIFO, a device or a
// link planted there must neither hold nor flood the first read.
std::string readRegularFile(const std::string& name, std::size_t limit) {
    std::string content;
    const int fd = openat(gFolderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    FileStatus status;
    if (fd >= 0 && FileStatus::sOfDescriptor(fd, status) == 0 && status.isRegular()) {
        char buffer[4096];
        ssize_t got;
        while (content.size() < limit &&
               (got = read(fd, buffer, std::min(sizeof(buffer), limit - content.size()))) > 0) {
            content.append(buffer, static_cast<std::size_t>(got));
        }
    }
    if (fd >= 0) {
        close(fd);
    }
    return content;
}

// Records "strikes<TAB>path<NUL>": a path may hold any byte but NUL.
std::vector<Entry> loadList() {
    std::vector<Entry> entries;
    const std::string content = readRegularFile(MediaReadGuard::kListFileName, kMaxListBytes);
    std::size_t start = 0;
    std::size_t end;
    while ((end = content.find('\0', start)) != std::string::npos) {
        const std::string record = content.substr(start, end - start);
        const std::size_t tab = record.find('\t');
        if (tab != std::string::npos) {
            entries.push_back(Entry(atoi(record.substr(0, tab).c_str()), record.substr(tab + 1)));
        }
        start = end + 1;
    }
    return entries;
}

// Written beside its name and renamed over it, so a link planted at the
// name is replaced, never written through. Synced, and its folder too: the
// markers it takes the place of go next, and a power cut must not find
// them gone and the list not yet written.
bool storeList(const std::vector<Entry>& entries) {
    std::string content;
    for (const Entry& entry : entries) {
        content += std::to_string(entry.first) + '\t' + entry.second + '\0';
    }
    ReplacementFile replacement(gFolderFd, MediaReadGuard::kListFileName);
    const bool stored =
        replacement.stream() != NULL &&
        fwrite(content.data(), 1, content.size(), replacement.stream()) == content.size() &&
        replacement.commit(true) && fsync(gFolderFd) == 0;
    if (!stored) {
        QLOG(ERROR) << "can't store the list of unreadable media in "
                    << pathOf(MediaReadGuard::kListFileName);
    }
    return stored;
}

// Suspects of earlier ends, taken out of entries: only a file being read at
// each of the last kStrikesToList ends is listed, so a suspect that is not
// struck again at this one is cleared.
std::vector<Entry> takeSuspects(std::vector<Entry>& entries) {
    const auto suspect = [](const Entry& entry) {
        return entry.first < MediaReadGuard::kStrikesToList;
    };
    std::vector<Entry> suspects;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(suspects), suspect);
    entries.erase(std::remove_if(entries.begin(), entries.end(), suspect), entries.end());
    return suspects;
}

// One more strike for path than it had (or as many as listing takes); the
// entry goes to the end, the newest place. A listed file is never read, but
// its markers are met again after a death between storing the list and
// removing them: it stays listed once.
void strike(std::vector<Entry>& entries, const std::vector<Entry>& suspects,
            const std::string& path, bool crashed) {
    const auto named = [&path](const Entry& entry) { return entry.second == path; };
    const auto suspect = std::find_if(suspects.begin(), suspects.end(), named);
    int strikes = suspect == suspects.end() ? 0 : suspect->first;
    const auto listed = std::find_if(entries.begin(), entries.end(), named);
    if (listed != entries.end()) {
        strikes = std::max(strikes, listed->first);
        entries.erase(listed);
    }
    strikes = crashed ? MediaReadGuard::kStrikesToList
                      : std::min(strikes + 1, MediaReadGuard::kStrikesToList);
    if (crashed) {
        QLOG(ERROR) << "media file " << path
                    << " crashed the daemon while it was read; it is not read again";
    } else if (strikes >= MediaReadGuard::kStrikesToList) {
        QLOG(ERROR) << "media file " << path << " was being read at each of the daemon's last "
                    << strikes << " ends; it is not read again";
    } else {
        QLOG(WARNING) << "media file " << path << " was being read when the daemon ended";
    }
    entries.push_back(Entry(strikes, path));
}

bool copyName(const std::string& name, char (&target)[NAME_MAX + 1]) {
    if (name.size() >= sizeof(target)) {
        return false;
    }
    memcpy(target, name.c_str(), name.size() + 1);
    return true;
}

// Opens this run's marker for slot (emptied); false when it can't be used.
bool openMarker(Slot& slot, const std::string& reading, const std::string& crashed) {
    if (!copyName(reading, slot.reading) || !copyName(crashed, slot.crashed)) {
        return false;
    }
    slot.fd = openat(gFolderFd, slot.reading,
                     O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    FileStatus status;
    if (slot.fd >= 0 && (FileStatus::sOfDescriptor(slot.fd, status) != 0 || !status.isRegular())) {
        close(slot.fd);
        slot.fd = -1;
    }
    return slot.fd >= 0;
}

int acquireSlot() {
    boost::lock_guard<boost::mutex> lock(gSlotMutex);
    for (int i = 0; i < gSlotCount; ++i) {
        if (!gSlots[i].busy) {
            gSlots[i].busy = true;
            return i;
        }
    }
    return -1;
}

bool isListed(const std::string& path) {
    return std::find(gListed.begin(), gListed.end(), path) != gListed.end();
}

std::string markerName(const char* prefix, int slot) { return prefix + std::to_string(slot); }

// The files the last run's markers name: each being read at its end, and
// whether it crashed the daemon. A file that two threads were reading counts
// once. named tells the slots whose markers name a file.
std::map<std::string, bool> endedReads(std::vector<bool>& named) {
    std::map<std::string, bool> ended;
    for (int i = 0; i < MediaReadGuard::kMaxReaders; ++i) {
        const std::string crashed =
            readRegularFile(markerName(MediaReadGuard::kCrashedMarkerPrefix, i), PATH_MAX);
        const std::string reading =
            readRegularFile(markerName(MediaReadGuard::kReadingMarkerPrefix, i), PATH_MAX);
        if (!crashed.empty()) {
            ended[crashed] = true;
        }
        if (!reading.empty()) {
            ended.insert(std::make_pair(reading, false));
        }
        named.push_back(!crashed.empty() || !reading.empty());
    }
    return ended;
}

// The last run's markers become strikes, stored before the
// markers go, all of them before this run's are made: a death in between
// loses no record (it may count the markers again, which lists a suspect
// one end early). Without the list stored the markers are the only record
// of the last end: they stay, and this run marks its reads in the slots
// they leave free.
void recover() {
    const std::vector<Entry> loaded = loadList();
    std::vector<Entry> entries = loaded;
    const std::vector<Entry> suspects = takeSuspects(entries);
    std::vector<bool> named;
    for (const auto& ended : endedReads(named)) {
        strike(entries, suspects, ended.first, ended.second);
    }
    if (entries.size() > MediaReadGuard::kMaxListed) {
        entries.erase(entries.begin(), entries.end() - MediaReadGuard::kMaxListed);
    }
    for (const Entry& entry : entries) {
        if (entry.first >= MediaReadGuard::kStrikesToList) {
            gListed.push_back(entry.second);
        }
    }
    const bool stored = entries == loaded || storeList(entries);
    for (int i = 0; stored && i < MediaReadGuard::kMaxReaders; ++i) {
        unlinkat(gFolderFd, markerName(MediaReadGuard::kCrashedMarkerPrefix, i).c_str(), 0);
        unlinkat(gFolderFd, markerName(MediaReadGuard::kReadingMarkerPrefix, i).c_str(), 0);
    }
    for (int i = 0; i < MediaReadGuard::kMaxReaders; ++i) {
        if ((stored || !named[i]) &&
            openMarker(gSlots[gSlotCount], markerName(MediaReadGuard::kReadingMarkerPrefix, i),
                       markerName(MediaReadGuard::kCrashedMarkerPrefix, i))) {
            ++gSlotCount;
        }
    }
}

// Once, at the first guard that finds the folder; nothing without sRecover.
void prepare() {
    if (gPrepared || !gFolder) {
        return;
    }
    boost::lock_guard<boost::mutex> lock(gPrepareMutex);
    if (gPrepared) {
        return;
    }
    std::string path;
    const int fd = gFolder(path);
    if (fd < 0) {
        return;
    }
    gFolderFd = fd;
    gFolderPath = path;
    recover();
    gPrepared = true;
}

bool preparedAndAdmits(const std::string& path) {
    prepare();
    return !isListed(path);
}

}  // namespace

void MediaReadGuard::sRecover(const Folder& folder) {
    gFolder = folder;
    hookSignals();
}

MediaReadGuard::MediaReadGuard(const std::string& path)
    : slot_(-1), admitted_(preparedAndAdmits(path)) {
    if (!admitted_) {
        QLOG(INFO) << "media file " << path << " is listed as unreadable, not read";
        return;
    }
    slot_ = acquireSlot();
    if (slot_ < 0) {
        return;
    }
    // A marker that can't be written leaves the read unmarked, not refused.
    // It is not synced: it has to outlive the process, not the machine (the
    // next start reads it from the page cache), and a sync per read would
    // cost more than most reads; a power cut only loses a suspect.
    if (pwrite(gSlots[slot_].fd, path.data(), path.size(), 0) ==
        static_cast<ssize_t>(path.size())) {
        tSlot = slot_;
    }
    if (gStopping && ftruncate(gSlots[slot_].fd, 0) != 0) {
        QLOG(WARNING) << "can't clear " << pathOf(gSlots[slot_].reading);
    }
}

MediaReadGuard::~MediaReadGuard() {
    if (slot_ < 0) {
        return;
    }
    tSlot = -1;
    if (ftruncate(gSlots[slot_].fd, 0) != 0) {
        QLOG(WARNING) << "can't clear " << pathOf(gSlots[slot_].reading);
    }
    boost::lock_guard<boost::mutex> lock(gSlotMutex);
    gSlots[slot_].busy = false;
}

}  // namespace talvern
