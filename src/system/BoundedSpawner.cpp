#include "system/BoundedSpawner.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <mutex>

#include "system/Log.h"

namespace talvern {

namespace {

typedef std::chrono::steady_clock Clock;

// This process's end of the spawner's control socket, -1 without a spawner;
// and the spawner. Set at start-up, before other threads, and only read
// afterwards.
int gControl = -1;
pid_t gSpawner = -1;

// Where the spawner keeps its control socket and a child its reply; every
// descriptor above is closed.
const int kKeptFd = 3;
// Where close_range is missing (kernels before 5.9, kernel headers before
// it), descriptors are closed one by one up to the descriptor limit, and no
// further than this.
const int kMaxInheritedFd = 65536;
// The process's own views, not device files: never taken under the device
// root.
const char* const kStatmFile = "/proc/self/statm";
const char* const kOomScoreFile = "/proc/self/oom_score_adj";
const char kFirstToKill[] = "1000";
// SIGALRM included: a child ends at its deadline by it, even when the
// daemon was started with it ignored.
const int kResetSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGCHLD, SIGALRM};
const int kWorkThrewStatus = 2;
const std::size_t kReadChunk = 4096;
// How long a request waits for room on the control socket. Room runs out
// only when the spawner or its waiting child is stuck (stopped, say), and
// then the caller does better to do the work itself than to wait for it.
const int kMaxSendWaitMilliseconds = 100;
// How long after the deadline a caller waits for a child to be seen ending.
const int kEndMarginMilliseconds = 1000;
// How long an ending spawner is waited for, to be reaped.
const int kMaxReapWaits = 100;
const int kReapWaitMicroseconds = 1000;

typedef uint32_t ReportSize;
// The spawner's reply when it could not fork a child.
const ReportSize kNotForked = 0xffffffff;

// The process's own end follows its parent's: a spawner ends with this
// process, a child with the spawner.
void endWithParent(int parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(0);
    }
}

void resetSignals() {
    for (const int signalNumber : kResetSignals) {
        signal(signalNumber, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, NULL);
}

// Moves fd to kKeptFd and closes every descriptor above it.
void keepOnly(int fd) {
    if (fd != kKeptFd) {
        dup2(fd, kKeptFd);
    }
#ifdef SYS_close_range
    if (syscall(SYS_close_range, kKeptFd + 1, ~0U, 0) == 0) {
        return;
    }
#endif
    struct rlimit limit;
    const int last = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kMaxInheritedFd
                         ? static_cast<int>(limit.rlim_cur)
                         : kMaxInheritedFd;
    for (int other = kKeptFd + 1; other < last; ++other) {
        close(other);
    }
}

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
    const rlim_t wanted = static_cast<rlim_t>(mapped + BoundedSpawner::kMaxMemoryBytes);
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

int64_t nanosecondsOf(Clock::time_point point) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(point.time_since_epoch()).count();
}

// SIGALRM at its default action ends the child at the deadline, whatever
// its work is doing; one already past ends it at once.
void endAt(int64_t deadline) {
    const int64_t left = std::max<int64_t>(deadline - nanosecondsOf(Clock::now()), 1000);
    struct itimerval alarm = {};
    alarm.it_value.tv_sec = static_cast<time_t>(left / 1000000000);
    alarm.it_value.tv_usec = static_cast<suseconds_t>(left % 1000000000 / 1000);
    setitimer(ITIMER_REAL, &alarm, NULL);
}

int millisecondsUntil(Clock::time_point deadline) {
    const int64_t left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::min<int64_t>(left + 1, INT_MAX));
}

// Waits until fd may have room to send, or until; false once until has come.
bool waitForRoom(int fd, Clock::time_point until) {
    struct pollfd room = {fd, POLLOUT, 0};
    const int wait = millisecondsUntil(until);
    return wait > 0 && (poll(&room, 1, wait) != 0 || Clock::now() < until);
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

// One request on the control socket: its bytes, and the descriptor of its
// reply passed along. 0, or the error that stopped it: EAGAIN when there was
// no room for it until kMaxSendWaitMilliseconds from now.
int sendRequest(int control, const std::string& message, int reply) {
    struct iovec part = {const_cast<char*>(message.data()), message.size()};
    union {
        char space[CMSG_SPACE(sizeof(int))];
        struct cmsghdr align;
    } passed = {};
    struct msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = passed.space;
    header.msg_controllen = sizeof(passed.space);
    struct cmsghdr* descriptor = CMSG_FIRSTHDR(&header);
    descriptor->cmsg_level = SOL_SOCKET;
    descriptor->cmsg_type = SCM_RIGHTS;
    descriptor->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(descriptor), &reply, sizeof(int));
    const Clock::time_point until =
        Clock::now() + std::chrono::milliseconds(kMaxSendWaitMilliseconds);
    // The socket says it has room only once most of its buffer is free, so
    // the send is tried once more when the wait is over.
    for (bool last = false;;) {
        const ssize_t sent = sendmsg(control, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            return sent == static_cast<ssize_t>(message.size()) ? 0 : EMSGSIZE;
        }
        const int error = errno;
        if (error != EINTR && (error != EAGAIN || last)) {
            return error;
        }
        last = error == EAGAIN && !waitForRoom(control, until);
    }
}

// The next request's bytes and reply descriptor (-1 when none came with it,
// or the request was cut). -1 when the socket failed; 0 when it closed.
ssize_t receiveRequest(int control, char* buffer, std::size_t size, int& reply) {
    struct iovec part = {buffer, size};
    union {
        char space[CMSG_SPACE(sizeof(int))];
        struct cmsghdr align;
    } passed;
    struct msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = passed.space;
    header.msg_controllen = sizeof(passed.space);
    ssize_t got;
    do {
        got = recvmsg(control, &header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    reply = -1;
    struct cmsghdr* descriptor = got > 0 ? CMSG_FIRSTHDR(&header) : NULL;
    if (descriptor != NULL && descriptor->cmsg_type == SCM_RIGHTS &&
        descriptor->cmsg_len == CMSG_LEN(sizeof(int))) {
        memcpy(&reply, CMSG_DATA(descriptor), sizeof(int));
    }
    if (reply >= 0 && (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        close(reply);
        reply = -1;
    }
    return got;
}

// A request as sent on the control socket: its deadline, then its bytes.
typedef char RequestMessage[sizeof(int64_t) + BoundedSpawner::kMaxRequestBytes];

// The next request on the spawner's control socket, with its reply: its
// size; 0 when what came is no request (no reply passed along, or cut short),
// with nothing left open; -1 when the socket closed or failed.
ssize_t takeRequest(RequestMessage& message, int& reply) {
    const ssize_t got = receiveRequest(kKeptFd, message, sizeof(message), reply);
    if (got <= 0) {
        return -1;
    }
    if (reply < 0 || static_cast<std::size_t>(got) < sizeof(int64_t)) {
        if (reply >= 0) {
            close(reply);
        }
        reply = -1;
        return 0;
    }
    return got;
}

// Whether the other end of the control socket fd is gone (the spawner's, or
// this process's). Asked of the socket, not of a send's error, which kernels
// give differently (EPIPE, ECONNREFUSED, ENOTCONN).
bool controlClosed(int fd) {
    struct pollfd control = {fd, 0, 0};
    return poll(&control, 1, 0) == 1 && (control.revents & (POLLHUP | POLLERR)) != 0;
}

// Reads the reply until the child closes it. false: the deadline came first,
// or the reply can't be waited on.
bool readReply(int fd, Clock::time_point deadline, std::string& reply) {
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
        const std::size_t room =
            sizeof(ReportSize) + BoundedSpawner::kMaxReportBytes - reply.size();
        reply.append(chunk, std::min(static_cast<std::size_t>(got), room));
    }
}

// A reply is the report's size, then the report: a child that died while
// writing it leaves one that doesn't add up.
bool unframe(const std::string& reply, std::string& report) {
    ReportSize size = 0;
    if (reply.size() < sizeof(size)) {
        return false;
    }
    memcpy(&size, reply.data(), sizeof(size));
    if (reply.size() - sizeof(size) != size) {
        return false;
    }
    report = reply.substr(sizeof(size));
    return true;
}

}  // namespace

bool BoundedSpawner::sStart(const Work& work) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        sServe(work, ends[1], parent);
    }
    close(ends[1]);
    if (pid < 0) {
        close(ends[0]);
        return false;
    }
    gControl = ends[0];
    gSpawner = pid;
    return true;
}

BoundedSpawner::Outcome BoundedSpawner::sRun(const std::string& request, Clock::time_point deadline,
                                             std::string& report) {
    report.clear();
    int ends[2];
    if (gControl < 0 || request.size() > kMaxRequestBytes ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return kNotStarted;
    }
    const int64_t end = nanosecondsOf(deadline);
    const int sendError = sendRequest(
        gControl, std::string(reinterpret_cast<const char*>(&end), sizeof(end)) + request, ends[1]);
    close(ends[1]);
    std::string reply;
    const bool ended =
        sendError == 0 &&
        readReply(ends[0], deadline + std::chrono::milliseconds(kEndMarginMilliseconds), reply);
    close(ends[0]);
    if (sendError != 0 && controlClosed(gControl)) {
        sNoteSpawnerEnded();
    }
    if (sendError != 0) {
        return kNotStarted;
    }
    if (reply == std::string(reinterpret_cast<const char*>(&kNotForked), sizeof(kNotForked))) {
        return kNoChild;
    }
    if (ended && unframe(reply, report)) {
        return kReported;
    }
    return !ended || Clock::now() >= deadline ? kTimedOut : kDied;
}

// A control socket whose other end is gone: the spawner has ended, or is
// ending (it closes the socket only by ending).
void BoundedSpawner::sNoteSpawnerEnded() {
    static std::once_flag noted;
    std::call_once(noted, [] {
        for (int wait = 0; wait < kMaxReapWaits && waitpid(gSpawner, NULL, WNOHANG) == 0; ++wait) {
            usleep(kReapWaitMicroseconds);
        }
        QLOG(WARNING) << "the process that starts video readers has ended; videos are read "
                         "by the daemon";
    });
}

// Children are reaped by the kernel (SIGCHLD ignored). A reply whose caller
// stopped waiting is no reason to end (SIGPIPE ignored). A child is forked
// before its request comes and waits for it, so that a request does not wait
// for the fork, which copies every mapping of the libraries the work uses.
void BoundedSpawner::sServe(const Work& work, int control, int parent) {
    endWithParent(parent);
    resetSignals();
    signal(SIGCHLD, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    keepOnly(control);
    const int spawner = getpid();
    for (;;) {
        if (!sForkWaitingChild(work, spawner)) {
            sServeOneRequest(work, spawner);
        }
    }
}

// Returns once the waiting child has taken a request, or ended without one
// (killed). false when it could not be forked: the next request is then
// served by a fork of its own, or answered kNotForked. Ends the spawner when
// this process closed the control socket.
bool BoundedSpawner::sForkWaitingChild(const Work& work, int spawner) {
    int taken[2];
    if (pipe2(taken, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(taken[0]);
        sRunWaitingChild(work, taken[1], spawner);
    }
    close(taken[1]);
    char byte = 0;
    ssize_t got = 0;
    while (child > 0 && (got = read(taken[0], &byte, 1)) < 0 && errno == EINTR) {
    }
    close(taken[0]);
    if (child > 0 && got <= 0 && controlClosed(kKeptFd)) {
        _exit(0);
    }
    return child > 0;
}

void BoundedSpawner::sServeOneRequest(const Work& work, int spawner) {
    RequestMessage message;
    int reply = -1;
    const ssize_t got = takeRequest(message, reply);
    if (got < 0) {
        _exit(0);
    }
    if (got > 0) {
        const pid_t child = fork();
        if (child == 0) {
            endWithParent(spawner);
            sRunChild(work, message, got, reply);
        }
        if (child < 0) {
            writeAll(reply, reinterpret_cast<const char*>(&kNotForked), sizeof(kNotForked));
        }
        close(reply);
    }
}

// Takes the next request from the control socket and tells the spawner, which
// forks the next waiting child meanwhile.
void BoundedSpawner::sRunWaitingChild(const Work& work, int taken, int spawner) {
    endWithParent(spawner);
    RequestMessage message;
    int reply = -1;
    const ssize_t got = takeRequest(message, reply);
    if (got < 0) {
        _exit(0);
    }
    writeAll(taken, "t", 1);
    if (got == 0) {
        _exit(0);
    }
    sRunChild(work, message, got, reply);
}

// message: the request's deadline, then its bytes.
void BoundedSpawner::sRunChild(const Work& work, const char* message, std::size_t length,
                               int reply) {
    signal(SIGCHLD, SIG_DFL);
    int64_t deadline = 0;
    memcpy(&deadline, message, sizeof(deadline));
    const std::string request(message + sizeof(deadline), length - sizeof(deadline));
    keepOnly(reply);
    preferForOomKiller();
    limitMemory();
    endAt(deadline);
    std::string report;
    try {
        report = work(request);
    } catch (...) {
        _exit(kWorkThrewStatus);
    }
    report.resize(std::min(report.size(), kMaxReportBytes));
    const ReportSize size = static_cast<ReportSize>(report.size());
    writeAll(kKeptFd, reinterpret_cast<const char*>(&size), sizeof(size));
    writeAll(kKeptFd, report.data(), report.size());
    _exit(0);
}

}  // namespace talvern
