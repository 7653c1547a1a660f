#ifndef QUORVIA_BENCH_BENCHDAEMON_H
#define QUORVIA_BENCH_BENCHDAEMON_H

#include <fcntl.h>
#include <glog/logging.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <thrift/TOutput.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "LoadGenerator.h"
#include "multimedia/QuorviaDBMgr.h"
#include "system/ConfigInfo.h"

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
// from the environment). Returns once it listens; a daemon that does not
// listen within ten seconds ends the benchmark with status 1.
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
        const std::string path =
            std::string(QUORVIA_SOURCE_DIR) + "/tools/device:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        const std::string binary = daemonPath();
        execl(binary.c_str(), binary.c_str(), static_cast<char*>(NULL));
        _exit(127);
    }
    if (!waitAccepting(DAEMON_PORT)) {
        printf("the daemon did not start: no figures\n");
        kill(pid, SIGKILL);
        exit(1);
    }
    return pid;
}

// A number field of /proc/PID/status ("VmRSS:" in KiB, "Threads:"); -1 when
// the process or the field is not there.
inline long statusField(pid_t pid, const std::string& field) {
    std::ifstream status(("/proc/" + std::to_string(pid) + "/status").c_str());
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, field.size(), field) == 0) {
            return atol(line.c_str() + field.size());
        }
    }
    return -1;
}

inline void stopDaemon(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, NULL, 0);
}

// A device root, made the QUORVIA_ROOT of this process, whose store holds
// rows for the hashes h0 ... h(rows - 1) and whose data folder holds a photo
// with EXIF (photo.jpg) and a 10-second clip with a creation time (clip.mp4).
inline std::string makeRoot(int rows) {
    char pattern[] = "/tmp/quorvia-bench-XXXXXX";
    const std::string root = mkdtemp(pattern);
    setenv("QUORVIA_ROOT", root.c_str(), 1);
    const std::string data = root + "/userdisk/data";
    const std::string command =
        "mkdir -p " + data + " " + root + "/glog " + root + "/dev && cd " + data +
        " && convert -size 640x480 gradient:skyblue-white photo.jpg"
        " && exiftool -q -overwrite_original '-DateTimeOriginal=2021:05:06 07:08:09' photo.jpg"
        " && ffmpeg -v error -y -f lavfi -i testsrc=duration=10:size=320x240:rate=25"
        " -metadata creation_time=2022-03-04T10:20:30Z -c:v mpeg4 clip.mp4";
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "could not make the sample media\n");
    }
    const std::string dbPath =
        talvern::ConfigInfo::sGetInstance()->getDatabaseRootPath() + "/quorvia.db";
    { quorvia::QuorviaDBMgr schema(dbPath); }
    sqlite3* db = NULL;
    sqlite3_open(dbPath.c_str(), &db);
    sqlite3_exec(db, "BEGIN", NULL, NULL, NULL);
    sqlite3_stmt* insert = NULL;
    sqlite3_prepare_v2(
        db,
        "INSERT OR REPLACE INTO quorvia(HASH,PATH,TITLE,DATE,MIME,DURATION,ARTIST,ALBUM)"
        "VALUES (?,?,?,?,?,?,?,?);",
        -1, &insert, NULL);
    for (int i = 0; i < rows; ++i) {
        const std::string hash = "h" + std::to_string(i);
        const std::string path = data + "/photos/IMG_" + std::to_string(i) + ".jpg";
        const std::string title = "IMG_" + std::to_string(i) + ".jpg";
        sqlite3_bind_text(insert, 1, hash.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, path.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 3, title.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 4, 1600000000 + i);
        sqlite3_bind_text(insert, 5, "image/jpeg", -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 6, "", -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 7, "", -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 8, "", -1, SQLITE_STATIC);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", NULL, NULL, NULL);
    sqlite3_close(db);
    return root;
}

// Removes a root of makeRoot; true when it is gone.
inline bool removeRoot(const std::string& root) {
    const std::string command = "rm -rf '" + root + "'";
    return system(command.c_str()) == 0;
}

inline std::string imageRequest(const std::string& path, const std::string& hash) {
    return "{\"api\":0,\"path\":\"" + path + "\",\"name\":\"photo.jpg\",\"hash\":\"" + hash +
           "\",\"defaultModifyTime\":0}";
}

// The row of makeRoot(rows) that a thread's n-th hit asks for, spread over
// the table.
inline long hitRow(int thread, long n, int rows) { return (n * 7919 + thread * 104729) % rows; }

inline LoadGenerator::RequestOf hitRequests(const std::string& root, int rows) {
    return [root, rows](int thread, long n) {
        const long row = hitRow(thread, n, rows);
        return imageRequest(root + "/userdisk/data/photos/IMG_" + std::to_string(row) + ".jpg",
                            "h" + std::to_string(row));
    };
}

// The one right answer to each of hitRequests's requests: the stored row.
inline LoadGenerator::Check hitAnswers(int rows) {
    return [rows](int thread, long n, const std::string& reply) {
        const long row = hitRow(thread, n, rows);
        return reply == "{ \"code\": 0, \"msg\": \"\", \"title\": \"IMG_" + std::to_string(row) +
                            ".jpg\", \"mime\": \"image\\/jpeg\", \"date\": " +
                            std::to_string(1600000000 + row) + " }";
    };
}

}  // namespace quorvia_bench

#endif
