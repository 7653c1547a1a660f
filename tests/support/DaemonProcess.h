#ifndef QUORVIA_TEST_DAEMONPROCESS_H
#define QUORVIA_TEST_DAEMONPROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "thriftwrapper/RawConnection.h"

namespace quorvia_test {

// build/bin/quorvia run as a child of the test. Its standard output and error
// go to OUTDIR/daemon.out and OUTDIR/daemon.err; it is killed when this object
// goes, and also when the test process dies early.
class DaemonProcess {
public:
    DaemonProcess() : pid_(-1) {}
    virtual ~DaemonProcess() { stop(); }

    // Forks and execs; false when the fork fails. Waiting for the port is
    // the caller's business. closed: with standard input, output and error
    // closed instead, as an init script may start it.
    bool start(const std::string& outDir, const std::vector<std::string>& args,
               bool closed = false) {
        std::vector<std::string> argv(1, binary("quorvia"));
        argv.insert(argv.end(), args.begin(), args.end());
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int out = open((outDir + "/daemon.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open((outDir + "/daemon.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(err, 2);
            for (int fd = 0; closed && fd <= 2; ++fd) {
                close(fd);
            }
            std::vector<char*> pointers;
            for (std::string& arg : argv) {
                pointers.push_back(&arg[0]);
            }
            pointers.push_back(NULL);
            execv(pointers[0], pointers.data());
            _exit(127);
        }
        return pid_ > 0;
    }

    // start, then waits until port answers. false, with the reason in why,
    // when something answered on port before the start (another daemon: the
    // test would speak to it), when nothing answers in time, or when this
    // daemon has ended meanwhile (what answers is not ours).
    bool startListening(const std::string& outDir, const std::vector<std::string>& args, int port,
                        std::string& why, bool closed = false) {
        if (RawConnection(port).connected()) {
            why = "port " + std::to_string(port) + " was taken before the daemon started";
            return false;
        }
        if (!start(outDir, args, closed) || !waitForListener(port)) {
            why = "the daemon did not listen on port " + std::to_string(port);
            return false;
        }
        if (!running()) {
            why = "the daemon ended; what listens on port " + std::to_string(port) +
                  " is not ours";
            return false;
        }
        return true;
    }

    // true while the daemon started last has not ended.
    bool running() { return pid_ > 0 && waitpid(pid_, NULL, WNOHANG) == 0; }

    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, NULL, 0);
            pid_ = -1;
        }
    }

    // Exit status of a daemon that ends by itself within timeoutSeconds; -1
    // when it is still running.
    int waitForExit(int timeoutSeconds) {
        for (int i = 0;; ++i) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            if (i >= timeoutSeconds * 100) {
                return -1;
            }
            usleep(10 * 1000);
        }
    }

    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

}  // namespace quorvia_test

#endif
