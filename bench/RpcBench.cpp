// Figures of the request road: a bare server of the daemon's settings with an
// empty handler (the ceiling), the daemon's hit path against a store of
// 100,000 rows at 1, 3 and 16 connections with its INFO lines on (with a
// syslog daemon reading its socket and without one) and off, at 1 and 16 in
// rounds paired with the ceiling; its memory over 100,000 requests with its
// lines on; its miss path for a JPEG with EXIF and a 10-second MP4. Prints
// the figures and checks the targets. BENCH_SECONDS sets each run's length.

extern "C" {
#include <libavformat/avformat.h>
}
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchDaemon.h"
#include "LoadGenerator.h"
#include "Targets.h"
#include "support/SyslogListener.h"
#include "thriftwrapper/QuorviaServer.h"

namespace {

const int STORE_ROWS = 100000;

using quorvia_bench::DAEMON_PORT;
using quorvia_bench::hitRequests;
using quorvia_bench::imageRequest;
using quorvia_bench::makeRoot;
using quorvia_bench::LoadFigures;
using quorvia_bench::LoadGenerator;
using quorvia_bench::accepting;
using quorvia_bench::startDaemon;
using quorvia_bench::stopDaemon;
using quorvia_bench::waitAccepting;


class EmptyHandler : virtual public talvern::TalvernIf {
public:
    virtual void request(std::string&, const std::string&) {}
    virtual void notify(std::string&, const int32_t, const std::string&) {}
};

const int BARE_PORT = DAEMON_PORT + 1;
// Rounds of the bare server and the daemon taken back to back: the rates of
// this 2-core machine drift by a third between runs, and a ratio of runs far
// apart measures that drift as much as the daemon. Each round's ratio is
// printed too, so that a figure near its target shows how far it wanders.
const int ROUNDS = 5;

double benchSeconds() {
    const char* text = getenv("BENCH_SECONDS");
    return text != NULL && atof(text) > 0 ? atof(text) : 2.0;
}

// Set when a figure rests on failed requests or misses its target: the run
// then ends with status 1.
bool gFailed = false;

void check(const std::string& what, double figure, const char* relation, double bound) {
    if (!quorvia_bench::target(what, figure, relation, bound)) {
        gFailed = true;
    }
}

// A syslog daemon on the device root's /dev/log that reads every line.
class SyslogDaemon {
public:
    explicit SyslogDaemon(const std::string& root)
        : listener_(root + "/dev/log"), stop_(false), reader_([this] {
              while (!stop_) {
                  listener_.next(100);
              }
          }) {}
    virtual ~SyslogDaemon() {
        stop_ = true;
        reader_.join();
    }

private:
    quorvia_test::SyslogListener listener_;
    std::atomic<bool> stop_;
    std::thread reader_;
};

void print(const std::string& label, const LoadFigures& figures, double ratio = 0) {
    printf("%-56s %9.0f req/s  p50 %7.1f us  p99 %7.1f us", label.c_str(),
           figures.requestsPerSecond, figures.p50Micros, figures.p99Micros);
    if (ratio > 0) {
        printf("  (%.2f of bare)", ratio);
    }
    if (figures.failures > 0 || figures.requests == 0) {
        printf("  FAILED: %ld of %ld requests failed", figures.failures,
               figures.requests + figures.failures);
        gFailed = true;
    }
    printf("\n");
    fflush(stdout);
}

std::string videoRequest(const std::string& path, const std::string& hash) {
    return "{\"api\":2,\"path\":\"" + path + "\",\"name\":\"clip.mp4\",\"hash\":\"" + hash +
           "\",\"defaultModifyTime\":0}";
}

// The ceiling: the same server and settings with a handler that does
// nothing, in a process of its own as the daemon is. Forked before this
// process starts any thread.
pid_t startBareServer() {
    const pid_t pid = fork();
    if (pid == 0) {
        QuorviaServer server(std::make_shared<EmptyHandler>(), BARE_PORT);
        server.serve();
        _exit(0);
    }
    waitAccepting(BARE_PORT);
    return pid;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The median of each figure over the rounds; failures add up.
LoadFigures medianOf(const std::vector<LoadFigures>& rounds) {
    std::vector<double> rates, p50s, p99s;
    LoadFigures figures = {0, 0, 0, 0, 0};
    for (const LoadFigures& round : rounds) {
        rates.push_back(round.requestsPerSecond);
        p50s.push_back(round.p50Micros);
        p99s.push_back(round.p99Micros);
        figures.requests += round.requests;
        figures.failures += round.failures;
    }
    figures.requestsPerSecond = median(rates);
    figures.p50Micros = median(p50s);
    figures.p99Micros = median(p99s);
    return figures;
}

// What the bare server is asked: any request, its handler reads none.
const LoadGenerator::RequestOf BARE_REQUEST = [](int, long) {
    return std::string("{\"api\":0,\"path\":\"/p\",\"name\":\"a.jpg\",\"hash\":\"h\"}");
};

// ROUNDS pairs of runs; prints the medians of the bare server and of the
// daemon, the median of the pairs' ratios and each pair's; returns the
// daemon's figures with that ratio.
LoadFigures benchAgainstBare(int connections, double seconds, const LoadGenerator::RequestOf& hits,
                             const std::string& label, double& ratio) {
    std::vector<LoadFigures> bare, daemon;
    std::vector<double> ratios;
    for (int round = 0; round < ROUNDS; ++round) {
        // Each goes first in every other round: a drift within a round then
        // counts for each as much as against it.
        if (round % 2 == 0) {
            bare.push_back(LoadGenerator::sRun(BARE_PORT, connections, seconds, BARE_REQUEST));
        }
        daemon.push_back(LoadGenerator::sRun(DAEMON_PORT, connections, seconds, hits));
        if (round % 2 != 0) {
            bare.push_back(LoadGenerator::sRun(BARE_PORT, connections, seconds, BARE_REQUEST));
        }
        ratios.push_back(daemon.back().requestsPerSecond / bare.back().requestsPerSecond);
    }
    ratio = median(ratios);
    print("bare server, " + std::to_string(connections) + " connection(s)", medianOf(bare));
    const LoadFigures figures = medianOf(daemon);
    print(label, figures, ratio);
    printf("%-56s", "  of bare in each round");
    for (double each : ratios) {
        printf(" %.2f", each);
    }
    printf("\n");
    return figures;
}

long rssKiB(pid_t pid) { return quorvia_bench::statusField(pid, "VmRSS:"); }

enum Lines { LINES_ON, LINES_ON_READ_BY_SYSLOG, LINES_OFF };

void benchHitPath(const std::string& root, Lines lines, double seconds) {
    std::unique_ptr<SyslogDaemon> syslog;
    if (lines == LINES_ON_READ_BY_SYSLOG) {
        syslog.reset(new SyslogDaemon(root));
    }
    const pid_t pid = startDaemon(root, lines == LINES_OFF);
    // A daemon just started still faults in its heap and code and fills its
    // store's page cache, as the bare server does before the first rounds:
    // figures of those seconds are of that, not of a server that serves.
    // Both are warmed alike each time.
    LoadGenerator::sRun(DAEMON_PORT, 1, seconds, hitRequests(root, STORE_ROWS));
    LoadGenerator::sRun(BARE_PORT, 1, seconds, BARE_REQUEST);
    const char* const how[] = {" (INFO lines on, no syslog daemon)",
                               " (INFO lines on, syslog read)", " (INFO lines off)"};
    for (int connections : {1, 3, 16}) {
        const std::string label =
            "daemon hit, " + std::to_string(connections) + " connection(s)" + how[lines];
        if (connections == 3) {
            print(label, LoadGenerator::sRun(DAEMON_PORT, connections, seconds,
                                             hitRequests(root, STORE_ROWS)));
            continue;
        }
        double ratio = 0;
        const LoadFigures figures =
            benchAgainstBare(connections, seconds, hitRequests(root, STORE_ROWS), label, ratio);
        const std::string what = "hit at " + std::to_string(connections) + how[lines];
        if (lines != LINES_OFF) {
            check(what + ", of bare", ratio, ">=", connections == 1 ? 0.6 : 0.5);
        } else if (connections == 16) {
            check(what + ", of bare", ratio, ">=", 0.7);
        }
        if (lines != LINES_OFF && connections == 1) {
            check(what + ", p99 us", figures.p99Micros, "<=", 300);
        }
    }
    stopDaemon(pid);
}

// With the INFO lines on, as shipped.
void benchMemory(const std::string& root) {
    const pid_t pid = startDaemon(root, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const long idle = rssKiB(pid);
    printf("daemon RSS idle: %ld KiB (anonymous %ld KiB, mapped files %ld KiB)\n", idle,
           quorvia_bench::statusField(pid, "RssAnon:"),
           quorvia_bench::statusField(pid, "RssFile:"));
    long failed = LoadGenerator::sSend(DAEMON_PORT, 10000, hitRequests(root, STORE_ROWS),
                                       quorvia_bench::hitAnswers(STORE_ROWS));
    const long after10k = rssKiB(pid);
    failed += LoadGenerator::sSend(DAEMON_PORT, 90000, hitRequests(root, STORE_ROWS),
                                   quorvia_bench::hitAnswers(STORE_ROWS));
    const long after100k = rssKiB(pid);
    if (failed > 0) {
        printf("FAILED: %ld of the memory run's requests failed\n", failed);
        gFailed = true;
    }
    printf("daemon RSS (INFO lines on): idle %ld KiB, after 10,000 requests %ld KiB, after "
           "100,000 %ld KiB\n",
           idle, after10k, after100k);
    check("RSS growth from 10,000 to 100,000 requests, KiB", after100k - after10k, "<=", 512);
    stopDaemon(pid);
}

// Microseconds that opening and closing the clip costs, without probing.
double openAloneMicros(const std::string& path) {
    const int rounds = 200;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        AVFormatContext* context = NULL;
        if (avformat_open_input(&context, path.c_str(), NULL, NULL) == 0) {
            avformat_close_input(&context);
        }
    }
    const std::chrono::duration<double, std::micro> spent =
        std::chrono::steady_clock::now() - start;
    return spent.count() / rounds;
}

void benchMissPath(const std::string& root, double seconds, bool quiet) {
    const pid_t pid = startDaemon(root, quiet);
    const std::string how = quiet ? " (INFO lines off)" : " (INFO lines on)";
    const std::string photo = root + "/userdisk/data/photo.jpg";
    const std::string clip = root + "/userdisk/data/clip.mp4";
    const LoadFigures image =
        LoadGenerator::sRun(DAEMON_PORT, 1, seconds, [photo, how](int, long n) {
            return imageRequest(photo, how + "jpeg-miss-" + std::to_string(n));
        });
    print("daemon miss, JPEG with EXIF" + how, image);
    const LoadFigures video =
        LoadGenerator::sRun(DAEMON_PORT, 1, seconds, [clip, how](int, long n) {
            return videoRequest(clip, how + "mp4-miss-" + std::to_string(n));
        });
    print("daemon miss, 10 s MP4" + how, video);
    const LoadFigures inserts =
        LoadGenerator::sRun(DAEMON_PORT, 1, seconds, [root, how](int, long n) {
            return "{\"api\":1,\"path\":\"" + root + "/none.mp3\",\"name\":\"a.mp3\",\"hash\":\"" +
                   how + "audio-miss-" + std::to_string(n) + "\"}";
        });
    print("daemon miss, audio: no file read, the insert" + how, inserts);
    const double open = openAloneMicros(clip);
    printf("MP4 open alone %.1f us; video miss p50 %.1f us = %.2f x open + %.1f us of audio miss "
           "(insert and round trip)\n",
           open, video.p50Micros, (video.p50Micros - inserts.p50Micros) / open, inserts.p50Micros);
    fflush(stdout);
    stopDaemon(pid);
}

}  // namespace

int main() {
    quorvia_bench::quietBenchProcess("rpc-bench");
    const std::string tools = std::string(QUORVIA_SOURCE_DIR) + "/tools/device:" + getenv("PATH");
    setenv("PATH", tools.c_str(), 1);
    const double seconds = benchSeconds();
    if (accepting(DAEMON_PORT) || accepting(BARE_PORT)) {
        printf("port %d or %d is taken: no figures\n", DAEMON_PORT, BARE_PORT);
        return 1;
    }
    const std::string root = makeRoot(STORE_ROWS);
    const pid_t bare = startBareServer();
    benchHitPath(root, LINES_ON, seconds);
    benchHitPath(root, LINES_ON_READ_BY_SYSLOG, seconds);
    benchHitPath(root, LINES_OFF, seconds);
    stopDaemon(bare);
    benchMemory(root);
    benchMissPath(root, seconds, false);
    benchMissPath(root, seconds, true);
    return quorvia_bench::removeRoot(root) && !gFailed ? 0 : 1;
}
