#ifndef QUORVIA_SYSTEM_BOUNDEDCHILD_H
#define QUORVIA_SYSTEM_BOUNDEDCHILD_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace talvern {

// Runs a piece of work in a child process forked from the caller, so that
// what the work does to its memory or its thread (a crafted file that makes a
// parser allocate gigabytes, or crash) can't reach this process. The child:
// - may map at most kMaxMemoryBytes beyond what it inherits, and is the
//   out-of-memory killer's first choice;
// - is killed at the deadline, or when the thread that made it ends;
// - meets a crash signal with its default action, not this process's
//   handlers;
// - keeps, of the descriptors it inherits, only the standard ones and its
//   report's pipe.
//
// The work runs in a copy of a process whose other threads vanished at the
// fork, holding whatever locks they held: it may allocate (the C library
// re-arms malloc in the child) and make system calls, but must not log, use
// C++ streams or take any lock another thread of this process may take.
// The report's pipe closes when the child ends: the work leaves the child's
// descriptors alone. Any thread may call sRun; children of concurrent calls
// run side by side.
class BoundedChild {
public:
    // Room for a parser's tables and decoded frames: probing a 4K stream
    // takes about 100 MB, a ten-hour video's index about as much.
    static constexpr std::size_t kMaxMemoryBytes = 256 << 20;
    // Longest report read back; the rest is dropped.
    static constexpr std::size_t kMaxReportBytes = 16 << 10;

    enum Outcome {
        // The work returned; report holds what it returned.
        kReported,
        // No child could be made (fork or pipe failed); nothing ran.
        kNotStarted,
        // The child ended without a report: a signal (a crash, the memory
        // limit met by an allocation that can't fail) or an exception.
        kDied,
        // The deadline came first; the child was killed.
        kTimedOut
    };

    virtual ~BoundedChild() {}

    // Runs work in a child and waits for it until deadline. The child is
    // always reaped before sRun returns. endSignal is the signal that ended
    // the child (kDied), else 0.
    static Outcome sRun(const std::function<std::string()>& work,
                        std::chrono::steady_clock::time_point deadline, std::string& report,
                        int& endSignal);

private:
    static void sBecomeBounded(int reportFd, int parent);
    [[noreturn]] static void sServe(const std::function<std::string()>& work, int reportFd,
                                    int parent);
    static Outcome sCollect(int pid, int reportFd, std::chrono::steady_clock::time_point deadline,
                            std::string& report, int& endSignal);
};

}  // namespace talvern

#endif
