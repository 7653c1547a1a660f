#ifndef QUORVIA_SYSTEM_BOUNDEDSPAWNER_H
#define QUORVIA_SYSTEM_BOUNDEDSPAWNER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace talvern {

// Runs pieces of work for this process in child processes, so that what a
// piece of work does to its memory or its thread (a crafted file that makes a
// parser allocate gigabytes, or crash) can't reach this process.
//
// The children are forked by a spawner: a copy of this process made once at
// start-up, while it has a single thread, and that stays single-threaded. A
// child forked from this process later would copy the locks its other
// threads hold (the C library's time zone lock, a library's own mutex) and
// could wait on them for ever. The spawner forks each child before its
// request comes, to wait for it, so that a request does not wait for a fork.
// Each child:
// - may map at most kMaxMemoryBytes beyond what it inherits, and is the
//   out-of-memory killer's first choice;
// - ends at its deadline, and when the spawner ends, which ends with this
//   process;
// - meets a crash signal with its default action, not this process's
//   handlers;
// - keeps, of the descriptors, only the standard ones and its reply's.
class BoundedSpawner {
public:
    // Room for a parser's tables and decoded frames: probing a 4K stream
    // takes about 100 MB, a ten-hour video's index about as much.
    static constexpr std::size_t kMaxMemoryBytes = 256 << 20;
    static constexpr std::size_t kMaxRequestBytes = 8 << 10;
    // Longest report read back; the rest is dropped.
    static constexpr std::size_t kMaxReportBytes = 16 << 10;

    enum Outcome {
        // The work returned; report holds what it returned.
        kReported,
        // There is no spawner (never started, or gone), or the request could
        // not be sent (longer than kMaxRequestBytes, refused by the socket:
        // memory short, or no room in it soon: the spawner stuck); nothing
        // ran.
        kNotStarted,
        // The spawner could not fork a child (a process limit, memory
        // short); nothing ran.
        kNoChild,
        // The child ended without a report: a crash, the memory limit met by
        // an allocation that can't fail, an exception.
        kDied,
        // The deadline came first; the child ends at it.
        kTimedOut
    };

    typedef std::function<std::string(const std::string& request)> Work;

    virtual ~BoundedSpawner() {}

    // Start-up, on the main thread before any other thread starts: forks the
    // spawner, a copy of this process as it is now, which runs work(request)
    // in a child for each sRun. Call it once. false: no spawner could be made.
    static bool sStart(const Work& work);

    // Has work(request) run in a child and waits for its report until
    // deadline. Any thread; the children of concurrent calls run side by
    // side. A spawner found ended is reaped and logged, once.
    static Outcome sRun(const std::string& request, std::chrono::steady_clock::time_point deadline,
                        std::string& report);

private:
    static void sNoteSpawnerEnded();
    [[noreturn]] static void sServe(const Work& work, int control, int parent);
    static bool sForkWaitingChild(const Work& work, int spawner);
    static void sServeOneRequest(const Work& work, int spawner);
    [[noreturn]] static void sRunWaitingChild(const Work& work, int taken, int spawner);
    [[noreturn]] static void sRunChild(const Work& work, const char* message, std::size_t length,
                                       int reply);
};

}  // namespace talvern

#endif
