#include "system/BoundedChild.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

namespace talvern {

namespace {

typedef std::chrono::steady_clock Clock;

// Where the child keeps its report's pipe; every descriptor above is closed.
const int kReportFd = 3;
// Where close_range is missing (kernels before 5.9), descriptors are closed
// one by one up to the descriptor limit, and no further than this.
const int kMaxInheritedFd = 65536;
// The process's own views, not device files: never taken under the device
// root.
const char* const kStatmFile = "/proc/self/statm";
const char* const kOomScoreFile = "/proc/self/oom_score_adj";
const char kFirstToKill[] = "1000";
const int kResetSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM};
const int kWorkThrewStatus = 2;
const int kOrphanedStatus = 3;
const std::size_t kReadChunk = 4096;

// The address space mapped now (the first field of statm, in pages), or 0
// when it can't be read.
uint64_t mappedBytes() {
    const int fd = open(kStatmFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char text[64];
    const ssize_t got = read(fd, text, sizeof(text));
    close(fd);
    uint64_t pages = 0;
    for (ssize_t i = 0; i < got && text[i] >= '0' && text[i] <= '9'; ++i) {
        pages = pages * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// Unknown, the mapping is left unlimited rather than limited to less than
// the child already holds.
void limitMemory() {
    const uint64_t mapped = mappedBytes();
    struct rlimit limit;
    if (mapped == 0 || getrlimit(RLIMIT_AS, &limit) != 0) {
        return;
    }
    const rlim_t wanted = static_cast<rlim_t>(mapped + BoundedChild::kMaxMemoryBytes);
    if (limit.rlim_cur == RLIM_INFINITY || wanted < limit.rlim_cur) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_AS, &limit);
    }
}

void preferForOomKiller() {
    const int fd = open(kOomScoreFile, O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t ignored = write(fd, kFirstToKill, sizeof(kFirstToKill) - 1);
        static_cast<void>(ignored);
        close(fd);
    }
}

void closeInherited() {
    if (close_range(kReportFd + 1, ~0U, 0) == 0) {
        return;
    }
    struct rlimit limit;
    const int last = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kMaxInheritedFd
                         ? static_cast<int>(limit.rlim_cur)
                         : kMaxInheritedFd;
    for (int fd = kReportFd + 1; fd < last; ++fd) {
        close(fd);
    }
}

void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

int millisecondsUntil(Clock::time_point deadline) {
    const int64_t left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::min<int64_t>(left + 1, INT_MAX));
}

// Reads the report until the child closes its end. false: the deadline came
// first, or the pipe can't be waited on.
bool readReport(int fd, Clock::time_point deadline, std::string& report) {
    char chunk[kReadChunk];
    for (;;) {
        struct pollfd ready = {fd, POLLIN, 0};
        const int wait = millisecondsUntil(deadline);
        const int polled = wait <= 0 ? 0 : poll(&ready, 1, wait);
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled <= 0) {
            return false;
        }
        const ssize_t got = read(fd, chunk, sizeof(chunk));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return true;
        }
        const std::size_t room = BoundedChild::kMaxReportBytes - report.size();
        report.append(chunk, std::min(static_cast<std::size_t>(got), room));
    }
}

}  // namespace

BoundedChild::Outcome BoundedChild::sRun(const std::function<std::string()>& work,
                                         Clock::time_point deadline, std::string& report,
                                         int& endSignal) {
    report.clear();
    endSignal = 0;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return kNotStarted;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        close(ends[0]);
        close(ends[1]);
        return kNotStarted;
    }
    if (pid == 0) {
        sServe(work, ends[1], parent);
    }
    close(ends[1]);
    return sCollect(pid, ends[0], deadline, report, endSignal);
}

void BoundedChild::sBecomeBounded(int reportFd, int parent) {
    // A reader left behind by a daemon that ended would keep a disk busy.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kOrphanedStatus);
    }
    for (const int signalNumber : kResetSignals) {
        signal(signalNumber, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, NULL);
    if (reportFd != kReportFd) {
        dup2(reportFd, kReportFd);
    }
    closeInherited();
    preferForOomKiller();
    limitMemory();
}

void BoundedChild::sServe(const std::function<std::string()>& work, int reportFd, int parent) {
    sBecomeBounded(reportFd, parent);
    std::string report;
    try {
        report = work();
    } catch (...) {
        _exit(kWorkThrewStatus);
    }
    writeAll(kReportFd, report.data(), std::min(report.size(), kMaxReportBytes));
    _exit(0);
}

// A caller that has SIGCHLD ignored has its children reaped by the kernel:
// waitpid then knows no status, and the report read stands for itself.
BoundedChild::Outcome BoundedChild::sCollect(int pid, int reportFd, Clock::time_point deadline,
                                             std::string& report, int& endSignal) {
    const bool ended = readReport(reportFd, deadline, report);
    close(reportFd);
    if (!ended) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!ended) {
        report.clear();
        return kTimedOut;
    }
    if (WIFSIGNALED(status)) {
        endSignal = WTERMSIG(status);
    }
    if (endSignal != 0 || (WIFEXITED(status) && WEXITSTATUS(status) != 0)) {
        report.clear();
        return kDied;
    }
    return kReported;
}

}  // namespace talvern
