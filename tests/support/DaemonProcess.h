#ifndef QUORVIA_TEST_DAEMONPROCESS_H
#define QUORVIA_TEST_DAEMONPROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "thriftwrapper/RawConnection.h"

namespace quorvia_test {

// A program built next to the tests (build/bin/NAME).
inline std::string binary(const std::string& name) {
    return std::string(QUORVIA_BINARY_DIR) + "/bin/" + name;
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// The content of path once it holds text, or as it is after five seconds: a
// daemon's lines reach its log a few milliseconds after they are said.
inline std::string slurpHolding(const std::string& path, const std::string& text) {
    std::string content = slurp(path);
    for (int i = 0; i < 500 && content.find(text) == std::string::npos; ++i) {
        usleep(10 * 1000);
        content = slurp(path);
    }
    return content;
}

// Standard output of a shell command, and its exit status.
inline std::string capture(const std::string& command, int& status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == NULL) {
        status = -1;
        return output;
    }
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output.append(buffer, got);
    }
    status = WEXITSTATUS(pclose(pipe));
    return output;
}

// text as one single-quoted shell word.
inline std::string quoted(const std::string& text) {
    std::string result = "'";
    for (char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

// build/bin/quorvia run as a child of the test. Its standard output and error
// go to OUTDIR/daemon.out and OUTDIR/daemon.err; it is killed when this object
// goes, and also when the test process dies early.
class DaemonProcess {
public:
    DaemonProcess() : pid_(-1) {}
    virtual ~DaemonProcess() { stop(); }

    // Forks and execs; false when the fork fails. Waiting for the port is
    // the caller's business.
    bool start(const std::string& outDir, const std::vector<std::string>& args) {
        std::vector<std::string> argv(1, binary("quorvia"));
        argv.insert(argv.end(), args.begin(), args.end());
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int out = open((outDir + "/daemon.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open((outDir + "/daemon.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(err, 2);
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
    bool startListening(const std::string& outDir, const std::vector<std::string>& args,
                        int port, std::string& why) {
        if (RawConnection(port).connected()) {
            why = "port " + std::to_string(port) + " was taken before the daemon started";
            return false;
        }
        if (!start(outDir, args) || !waitForListener(port)) {
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
        for (int i = 0; i < timeoutSeconds * 100; ++i) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            usleep(10 * 1000);
        }
        return -1;
    }

    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

// Fixture of the tests that start the built programs. Under qemu-user those
// start only where the kernel hands ARM executables to qemu (binfmt_misc);
// elsewhere the tests skip and say so.
class DaemonTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
#ifdef QUORVIA_EMULATED
        if (system((binary("quorvia-cli") + " --help >/dev/null 2>&1").c_str()) != 0) {
            GTEST_SKIP() << "the built programs can't start: no binfmt_misc entry for qemu";
        }
#endif
    }
};

}  // namespace quorvia_test

#endif
