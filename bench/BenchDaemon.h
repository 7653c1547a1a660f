#ifndef QUORVIA_BENCH_BENCHDAEMON_H
#define QUORVIA_BENCH_BENCHDAEMON_H

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <glog/logging.h>
#include <thrift/TOutput.h>
#include <thrift/transport/TSocket.h>

namespace quorvia_bench {

// A benchmark that drives the daemon prints only its figures: Thrift's
// reports of refused connections and start-up chatter are dropped, and the
// bench's own set-up (its store, its tools) logs nothing; the daemon it
// starts logs as deployed.
inline void quietBenchProcess(const char* name) {
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
    google::InitGoogleLogging(name);
    FLAGS_minloglevel = google::GLOG_FATAL;
}

const int DAEMON_PORT = 9088;

inline bool accepting(int port) {
    try {
        apache::thrift::transport::TSocket socket("127.0.0.1", port);
        socket.open();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// Up to ten seconds for a listener on port.
inline bool waitAccepting(int port) {
    for (int i = 0; i < 1000; ++i) {
        if (port != 0 && accepting(port)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// build/bin/quorvia, found from the running benchmark (build/bench/NAME).
inline std::string daemonPath() {
    char exe[4096] = {0};
    const ssize_t size = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    std::string path(exe, size > 0 ? static_cast<size_t>(size) : 0);
    path = path.substr(0, path.rfind('/'));
    return path.substr(0, path.rfind('/')) + "/bin/quorvia";
}

// The real daemon on the device root of QUORVIA_ROOT, logging to files under
// root like a deployed one; quiet drops its INFO lines (glog's minimum level
// from the environment). Returns once it listens.
inline pid_t startDaemon(const std::string& root, bool quiet) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        setenv("GLOG_log_dir", (root + "/glog").c_str(), 1);
        if (quiet) {
            setenv("GLOG_minloglevel", "1", 1);
        }
        const std::string path = std::string(QUORVIA_SOURCE_DIR) + "/tools/device:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        const std::string binary = daemonPath();
        execl(binary.c_str(), binary.c_str(), static_cast<char*>(NULL));
        _exit(127);
    }
    waitAccepting(DAEMON_PORT);
    return pid;
}

inline void stopDaemon(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, NULL, 0);
}

}  // namespace quorvia_bench

#endif
