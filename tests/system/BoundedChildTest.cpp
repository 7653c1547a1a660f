#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "system/BoundedChild.h"

namespace {

using talvern::BoundedChild;

typedef std::chrono::steady_clock Clock;

Clock::time_point farDeadline() { return Clock::now() + std::chrono::seconds(30); }

BoundedChild::Outcome run(const std::function<std::string()>& work, std::string& report,
                          int& endSignal, Clock::time_point deadline = farDeadline()) {
    return BoundedChild::sRun(work, deadline, report, endSignal);
}

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

TEST(BoundedChildTest, TheWorkRunsApartWithItsReportAndNoneOfTheCallersDescriptors) {
    const int extra = open("/dev/null", O_RDONLY);
    std::string report;
    int endSignal = -1;
    EXPECT_EQ(BoundedChild::kReported, run(descriptorsHeld, report, endSignal));
    EXPECT_EQ("0 1 2 3", report);
    EXPECT_EQ(0, endSignal);
    EXPECT_EQ(
        BoundedChild::kReported,
        run([] { return std::string(BoundedChild::kMaxReportBytes + 1, 'x'); }, report, endSignal));
    EXPECT_EQ(BoundedChild::kMaxReportBytes, report.size());
    close(extra);
}

// The caller's crash handler would end the child as if it had reported.
TEST(BoundedChildTest, AChildThatCrashesOrThrowsDiesWithoutAReport) {
    signal(SIGSEGV, [](int) { _exit(0); });
    std::string report;
    int endSignal = 0;
    EXPECT_EQ(BoundedChild::kDied, run(
                                       [] {
                                           raise(SIGSEGV);
                                           return std::string("after");
                                       },
                                       report, endSignal));
    EXPECT_EQ(SIGSEGV, endSignal);
    EXPECT_EQ("", report);
    EXPECT_EQ(BoundedChild::kDied,
              run([]() -> std::string { throw std::runtime_error("no"); }, report, endSignal));
    EXPECT_EQ(0, endSignal);
}

TEST(BoundedChildTest, AChildPastItsDeadlineIsKilledAndReaped) {
    std::string report;
    int endSignal = 0;
    EXPECT_EQ(BoundedChild::kTimedOut,
              run(
                  [] {
                      sleep(30);
                      return std::string("late");
                  },
                  report, endSignal, Clock::now() + std::chrono::milliseconds(100)));
    EXPECT_EQ("", report);
    EXPECT_EQ(-1, waitpid(-1, NULL, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

// A program that links the library may have handlers that interrupt its
// waits (a SIGCHLD of its own, a timer).
TEST(BoundedChildTest, SignalsThatInterruptTheCallersWaitsLoseNoReport) {
    struct sigaction interrupting = {};
    interrupting.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupting, NULL);
    sigaction(SIGCHLD, &interrupting, NULL);
    const struct itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, NULL);
    std::string report;
    int endSignal = 0;
    EXPECT_EQ(BoundedChild::kReported,
              run(
                  [] {
                      usleep(50000);
                      return std::string("done");
                  },
                  report, endSignal, Clock::now() + std::chrono::seconds(5)));
    EXPECT_EQ("done", report);
    const struct itimerval stop = {};
    setitimer(ITIMER_REAL, &stop, NULL);
}

// A reader left behind by a daemon that ended would keep a disk busy.
TEST(BoundedChildTest, AChildEndsWithTheThreadThatMadeIt) {
#ifdef QUORVIA_EMULATED
    GTEST_SKIP() << "qemu-user makes no process a subreaper";
#endif
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t caller = fork();
    if (caller == 0) {
        dup2(ready[1], STDERR_FILENO);
        std::string report;
        int endSignal = 0;
        run(
            [] {
                const ssize_t written = write(STDERR_FILENO, "r", 1);
                sleep(10);
                return std::to_string(written);
            },
            report, endSignal);
        _exit(0);
    }
    close(ready[1]);
    char started = 0;
    ASSERT_EQ(1, read(ready[0], &started, 1));
    kill(caller, SIGKILL);
    ASSERT_EQ(caller, waitpid(caller, NULL, 0));
    int status = 0;
    ASSERT_LT(0, waitpid(-1, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    close(ready[0]);
}

TEST(BoundedChildTest, MemoryBeyondTheBoundIsRefusedAndTheChildIsTheFirstToKill) {
#ifdef QUORVIA_EMULATED
    GTEST_SKIP() << "qemu-user ignores a limit of the address space";
#endif
    std::string report;
    int endSignal = 0;
    const BoundedChild::Outcome outcome = run(
        [] {
            // volatile: a compiler may take an allocation only compared
            // with NULL to succeed.
            void* volatile room = malloc(BoundedChild::kMaxMemoryBytes / 2);
            void* volatile beyond = malloc(BoundedChild::kMaxMemoryBytes);
            return std::string(room != NULL ? "room" : "none") + "/" +
                   (beyond != NULL ? "beyond" : "refused") + "/" +
                   firstLineOf("/proc/self/oom_score_adj");
        },
        report, endSignal);
    // Under a sanitizer, an allocation it can't make ends the child.
    if (outcome != BoundedChild::kDied) {
        EXPECT_EQ("room/refused/1000", report);
    }
}

}  // namespace
