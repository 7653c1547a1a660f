#ifndef QUORVIA_MULTIMEDIA_MEDIAREADGUARD_H
#define QUORVIA_MULTIMEDIA_MEDIAREADGUARD_H

#include <cstddef>
#include <functional>
#include <string>

namespace talvern {

// Keeps a media file that crashes a library from crashing the daemon again
// at every restart. While a guard lives, its thread's marker file beside the
// database names the file being read; a crash signal on that thread turns
// the marker into a crash record before the process dies. At the next start
// sRecover puts the file on a short persisted list, and guards for a listed
// file refuse the read, so the request gets the answer of a file that can't
// be read.
//
// Without sRecover (tests, other programs of the library) guards admit every
// read and write nothing.
class MediaReadGuard {
public:
    // Threads that may read media at once (three request workers and the
    // file-task worker, with room to spare); a guard beyond them reads
    // unmarked.
    static constexpr int kMaxReaders = 8;
    // A file still being read when the process died without a crash signal
    // (SIGKILL from the out-of-memory killer, a power cut) is only a suspect:
    // listed for good when it was being read at this many ends in a row (an
    // end without it clears it). A crash signal lists it at once.
    static constexpr int kStrikesToList = 2;
    // Files remembered; the oldest entry goes first.
    static constexpr std::size_t kMaxListed = 32;
    static const char* const kListFileName;
    static const char* const kReadingMarkerPrefix;
    static const char* const kCrashedMarkerPrefix;

    // Opens the folder where the markers are kept (a directory, read-only)
    // and names it in path, for the log; -1 while there is none to use. The
    // guard keeps the descriptor for the process's life.
    typedef std::function<int(std::string& path)> Folder;

    // Start-up, on the main thread before any reader starts: hooks the crash
    // signals (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT) and SIGTERM, the
    // orderly stop, which empties every marker; each chains to the handler
    // installed before. Call it once. The folder is not touched yet: the
    // first guard whose folder() opens a folder reads the markers
    // left there by the last run, logs and lists their files, stores the
    // list and opens this run's markers. At start the disk may not be
    // mounted (a marker made then would lie hidden under the disk, and one
    // held open would keep the mount point busy), and a second daemon that
    // is about to find the port taken must not take the first one's markers
    // for a death.
    static void sRecover(const Folder& folder);

    // Marks path as being read by this thread until the guard goes.
    explicit MediaReadGuard(const std::string& path);
    virtual ~MediaReadGuard();

    // false: path is listed as a file that crashed a reader; don't read it.
    bool admitted() const { return admitted_; }

private:
    MediaReadGuard(const MediaReadGuard&);
    MediaReadGuard& operator=(const MediaReadGuard&);

    int slot_;
    bool admitted_;
};

}  // namespace talvern

#endif
