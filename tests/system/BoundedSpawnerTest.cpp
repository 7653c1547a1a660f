#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "system/BoundedSpawner.h"

namespace {

using talvern::BoundedSpawner;

typedef std::chrono::steady_clock Clock;

std::string descriptorsHeld() {
    std::string held;
    DIR* folder = opendir("/proc/self/fd");
    for (struct dirent* entry; (entry = readdir(folder)) != NULL;) {
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(folder)) {
            held += std::string(held.empty() ? "" : " ") + entry->d_name;
        }
    }
    closedir(folder);
    return held;
}

std::string firstLineOf(const char* file) {
    std::string line;
    std::ifstream(file) >> line;
    return line;
}

std::string memoryBounds() {
    // volatile: a compiler may take an allocation only compared with NULL to
    // succeed.
    void* volatile room = malloc(BoundedSpawner::kMaxMemoryBytes / 2);
    void* volatile beyond = malloc(BoundedSpawner::kMaxMemoryBytes);
    return std::string(room != NULL ? "room" : "none") + "/" +
           (beyond != NULL ? "beyond" : "refused") + "/" + firstLineOf("/proc/self/oom_score_adj");
}

std::string work(const std::string& request) {
    if (request == "descriptors") {
        return descriptorsHeld();
    }
    if (request == "big") {
        return std::string(BoundedSpawner::kMaxReportBytes + 1, 'x');
    }
    if (request == "crash") {
        raise(SIGSEGV);
    }
    if (request == "throw") {
        throw std::runtime_error("no");
    }
    if (request == "sleep") {
        sleep(30);
    }
    if (request == "memory") {
        return memoryBounds();
    }
    if (request == "pipe") {
        struct sigaction current;
        sigaction(SIGPIPE, NULL, &current);
        return current.sa_handler == SIG_IGN ? "ignored" : "default";
    }
    if (request == "spawner") {
        return std::to_string(getppid());
    }
    if (request == "self") {
        return std::to_string(getppid()) + " " + std::to_string(getpid());
    }
    if (request == "time") {
        const time_t now = time(NULL);
        struct tm parts;
        gmtime_r(&now, &parts);
    }
    if (request == "pause") {
        usleep(50000);
    }
    return request;
}

class BoundedSpawnerTest : public ::testing::Test {
protected:
    // The caller's crash handler would end a child as if it had reported;
    // the daemon may be started with SIGALRM ignored.
    static void SetUpTestSuite() {
        signal(SIGSEGV, [](int) { _exit(0); });
        signal(SIGALRM, SIG_IGN);
        ASSERT_TRUE(BoundedSpawner::sStart(work));
    }

    BoundedSpawner::Outcome run(const std::string& request, std::string& report,
                                Clock::duration limit = std::chrono::seconds(30)) {
        return BoundedSpawner::sRun(request, Clock::now() + limit, report);
    }
};

TEST_F(BoundedSpawnerTest, TheWorkRunsApartWithItsReportAndNoneOfTheCallersDescriptors) {
    const int extra = open("/dev/null", O_RDONLY);
    std::string report;
    EXPECT_EQ(BoundedSpawner::kReported, run("descriptors", report));
    EXPECT_EQ("0 1 2 3", report);
    EXPECT_EQ(BoundedSpawner::kReported, run("", report));
    EXPECT_EQ("", report);
    EXPECT_EQ(BoundedSpawner::kReported, run("big", report));
    EXPECT_EQ(BoundedSpawner::kMaxReportBytes, report.size());
    EXPECT_EQ(BoundedSpawner::kNotStarted,
              run(std::string(BoundedSpawner::kMaxRequestBytes + 1, 'r'), report));
    close(extra);
    // A reply whose caller stopped waiting once ended the spawner.
    EXPECT_EQ(BoundedSpawner::kReported, run("pipe", report));
    EXPECT_EQ("ignored", report);
}

TEST_F(BoundedSpawnerTest, AChildThatCrashesOrThrowsDiesWithoutAReport) {
    std::string report;
    EXPECT_EQ(BoundedSpawner::kDied, run("crash", report));
    EXPECT_EQ("", report);
    EXPECT_EQ(BoundedSpawner::kDied, run("throw", report));
}

// Not a second later, when the caller would give up on it.
TEST_F(BoundedSpawnerTest, AChildEndsAtItsDeadline) {
    std::string report;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(BoundedSpawner::kTimedOut, run("sleep", report, std::chrono::milliseconds(100)));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(BoundedSpawnerTest, MemoryBeyondTheBoundIsRefusedAndTheChildIsTheFirstToKill) {
#ifdef QUORVIA_EMULATED
    GTEST_SKIP() << "qemu-user ignores a limit of the address space";
#endif
    std::string report;
    // Under a sanitizer, an allocation it can't make ends the child.
    if (run("memory", report) != BoundedSpawner::kDied) {
        EXPECT_EQ("room/refused/1000", report);
    }
}

// A program that links the library may have handlers that interrupt its
// waits (a SIGCHLD of its own, a timer).
TEST_F(BoundedSpawnerTest, SignalsThatInterruptTheCallersWaitsLoseNoReport) {
    struct sigaction interrupting = {};
    interrupting.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupting, NULL);
    sigaction(SIGCHLD, &interrupting, NULL);
    const struct itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, NULL);
    std::string report;
    EXPECT_EQ(BoundedSpawner::kReported, run("pause", report, std::chrono::seconds(5)));
    EXPECT_EQ("pause", report);
    const struct itimerval stop = {};
    setitimer(ITIMER_REAL, &stop, NULL);
}

// Children forked from this multithreaded process once waited for ever on
// the time zone lock that another thread held at the fork (regression).
TEST_F(BoundedSpawnerTest, AChildTakesNoLockThatTheCallersThreadsHold) {
    std::atomic<bool> stop(false);
    std::thread local([&stop] {
        for (time_t now = 0; !stop; ++now) {
            struct tm parts;
            localtime_r(&now, &parts);
        }
    });
    int reported = 0;
    for (int i = 0; i < 100; ++i) {
        std::string report;
        reported += run("time", report, std::chrono::seconds(5)) == BoundedSpawner::kReported;
    }
    stop = true;
    local.join();
    EXPECT_EQ(100, reported);
}

// The control socket: the one sequenced-packet socket this process holds.
int controlSocket() {
    for (int fd = 0; fd < 1024; ++fd) {
        int type = 0;
        socklen_t size = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET) {
            return fd;
        }
    }
    return -1;
}

// A request the socket can't take (memory short, a buffer too small) once
// held its caller for ever, waiting for a spawner that had not ended.
TEST_F(BoundedSpawnerTest, ARequestThatCantBeSentStartsNothingAndTheSpawnerServesOn) {
    const int small = 1;  // the kernel takes its least
    ASSERT_EQ(0, setsockopt(controlSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)));
    std::string report;
    EXPECT_EQ(BoundedSpawner::kNotStarted,
              run(std::string(BoundedSpawner::kMaxRequestBytes, 'r'), report));
    EXPECT_EQ(BoundedSpawner::kReported, run("echo", report));
}

// The child forked in advance for the next request; 0 when none is found
// (0 must never reach kill(), which would signal the whole process group).
pid_t waitingChild() {
    std::string family;
    EXPECT_EQ(BoundedSpawner::kReported,
              BoundedSpawner::sRun("self", Clock::now() + std::chrono::seconds(30), family));
    const std::string spawner = family.substr(0, family.find(' '));
    const pid_t served = atoi(family.substr(family.find(' ') + 1).c_str());
    pid_t waiting = 0;
    for (int tries = 0; tries < 5000 && (waiting == 0 || waiting == served); ++tries) {
        usleep(1000);
        std::ifstream("/proc/" + spawner + "/task/" + spawner + "/children") >> waiting;
    }
    return waiting == served ? 0 : waiting;
}

// Killed while it waits: the request that comes next is served all the same.
TEST_F(BoundedSpawnerTest, AWaitingChildThatIsKilledLosesNoRequest) {
    const pid_t waiting = waitingChild();
    ASSERT_LT(0, waiting);
    ASSERT_EQ(0, kill(waiting, SIGKILL));
    // A request that comes while it dies goes with it.
    for (int tries = 0; tries < 5000 && kill(waiting, 0) == 0; ++tries) {
        usleep(1000);
    }
    std::string report;
    EXPECT_EQ(BoundedSpawner::kReported, run("echo", report, std::chrono::seconds(5)));
    EXPECT_EQ(BoundedSpawner::kReported, run("echo", report, std::chrono::seconds(5)));
}

// Stopped while it waits, it takes no request: callers once waited without
// bound for room on the control socket, far past their deadlines.
TEST_F(BoundedSpawnerTest, AStuckWaitingChildHoldsNoCallerPastItsDeadline) {
    const pid_t waiting = waitingChild();
    ASSERT_LT(0, waiting);
    ASSERT_EQ(0, kill(waiting, SIGSTOP));
    const int small = 1;  // the kernel takes its least
    ASSERT_EQ(0, setsockopt(controlSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)));
    std::atomic<int> answered(0);
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&answered] {
            std::string report;
            BoundedSpawner::sRun("echo", Clock::now() + std::chrono::milliseconds(50), report);
            ++answered;
        });
    }
    for (int tries = 0; tries < 500 && answered < 8; ++tries) {
        usleep(10000);
    }
    EXPECT_EQ(8, answered);
    kill(waiting, SIGCONT);
    for (std::thread& caller : callers) {
        caller.join();
    }
}

// Once ended, the spawner is reaped and nothing more is started.
TEST_F(BoundedSpawnerTest, WithoutItsSpawnerNothingStarts) {
    std::string spawner;
    ASSERT_EQ(BoundedSpawner::kReported, run("spawner", spawner));
    const pid_t pid = atoi(spawner.c_str());
    ASSERT_LT(0, pid);
    ASSERT_EQ(0, kill(pid, SIGKILL));
    struct pollfd closed = {controlSocket(), 0, 0};
    ASSERT_EQ(1, poll(&closed, 1, 10000));
    std::string report;
    EXPECT_EQ(BoundedSpawner::kNotStarted, run("echo", report));
    EXPECT_EQ(-1, waitpid(pid, NULL, WNOHANG));
}

}  // namespace
