// A long run of the real daemon under everything its peers can do at once:
// hits on several connections, misses that read media and insert rows,
// unmounts that drop those rows again, bad input on raw sockets, crowds of
// idle and stalled connections, and folder moves in the data folder that the
// monitor follows. SOAK_SECONDS (default 120) bounds it. Prints what was sent
// and the daemon's memory, descriptors and threads as the run goes; exits 1
// when the daemon died, stopped answering, failed a well-formed request or
// answered it wrongly, or when its memory or descriptors grew past a bound.

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchDaemon.h"
#include "LoadGenerator.h"
#include "thriftwrapper/RawConnection.h"

namespace {

using quorvia_bench::DAEMON_PORT;
using quorvia_bench::LoadFigures;
using quorvia_bench::LoadGenerator;
using quorvia_test::RawConnection;
namespace wire = quorvia_test::wire;
typedef std::chrono::steady_clock Clock;

const int STORE_ROWS = 10000;
const int HIT_CONNECTIONS = 4;
// Misses between two unmounts of the rows that misses insert.
const long MISSES_PER_UNMOUNT = 500;
// A crowd that closes while the next one opens may be seen by the server as
// both at once: two of them and the soak's other connections stay below the
// server's connection limit, past which new peers are turned away.
const int CROWD_SIZE = 200;
const int SAMPLE_SECONDS = 5;
// Growth allowed from the first quarter of the run to the last, once the
// daemon is warm (its caches and the workers' heaps filled): of the most
// resident memory in a sample, and of the fewest open descriptors (the
// crowds come and go).
const double WARM_UP_SECONDS = 10;
const long MAX_RSS_GROWTH_KIB = 8 * 1024;
const long MAX_DESCRIPTOR_GROWTH = 16;
const std::string DONE = "{ \"code\": 0, \"msg\": \"\" }";
const std::string RECORD = "{ \"code\": 0, \"msg\": \"\", \"title\": \"x\", ";
const std::string PROBE = "{\"api\":1,\"path\":\"/p/a.mp3\",\"name\":\"a.mp3\",\"hash\":\"a\"}";
const std::string PROBE_ANSWER =
    "{ \"code\": 0, \"msg\": \"\", \"title\": \"a.mp3\", \"mime\": \"\", \"album\": \"\", "
    "\"artist\": \"\", \"duration\": \"\", \"date\": 0 }";

double soakSeconds() {
    const char* text = getenv("SOAK_SECONDS");
    return text != NULL && atof(text) > 0 ? atof(text) : 120.0;
}

std::string request(int api, const std::string& path, const std::string& hash) {
    return "{\"api\":" + std::to_string(api) + ",\"path\":\"" + path +
           "\",\"name\":\"x\",\"hash\":\"" + hash + "\",\"defaultModifyTime\":0}";
}

// Image, video and audio misses on the sample media, each with a new hash;
// every MISSES_PER_UNMOUNT-th request unmounts what they stored.
LoadGenerator::RequestOf missRequests(const std::string& data) {
    return [data](int, long n) {
        if (n % MISSES_PER_UNMOUNT == MISSES_PER_UNMOUNT - 1) {
            return "{\"api\":3,\"root\":\"" + data + "/media\"}";
        }
        const std::string hash = "miss-" + std::to_string(n);
        switch (n % 3) {
            case 0:
                return request(0, data + "/media/photo.jpg", hash);
            case 1:
                return request(2, data + "/media/clip.mp4", hash);
            default:
                return request(1, data + "/media/song.mp3", hash);
        }
    };
}

// What each miss must get: a record titled with the request's name (the
// clip's duration read from the file), or the unmount's bare success.
LoadGenerator::Check missAnswers() {
    return [](int, long n, const std::string& reply) {
        if (n % MISSES_PER_UNMOUNT == MISSES_PER_UNMOUNT - 1) {
            return reply == DONE;
        }
        const bool record = reply.compare(0, RECORD.size(), RECORD) == 0;
        return n % 3 == 1 ? record && reply.find("\"duration\": \"10\"") != std::string::npos
                          : record;
    };
}

// What no well-behaved peer sends, each on a connection of its own.
std::vector<std::string> badInputs(const std::string& root) {
    const std::string data = root + "/userdisk/data";
    return {
        wire::requestCall(request(0, "\xff\xfe\xc3", "\xc3\x28")),
        wire::requestCall(std::string(10000, '[') + std::string(10000, ']')),
        wire::requestCall("{\"api\":4294967296,\"root\":\"/\"}"),
        wire::requestCall("{\"api\":-1}"),
        wire::requestCall("{\"api\":3,\"root\":\"\"}"),
        wire::requestCall(request(0, data, "dir")),
        wire::requestCall(request(2, "/dev/zero", "zero")),
        wire::requestCall(request(2, root + "/fifo.mp4", "fifo")),
        wire::requestCall(request(0, data + "/media/damaged.jpg", "damaged")),
        wire::requestCall(request(2, data + "/media/damaged.mp4", "damaged-video")),
        wire::requestCall(std::string(70 * 1024, 'a')),
        wire::frame(wire::head("nosuchmethod", 1, 7) + '\0'),
        wire::frame(wire::head("request", 2, 7) + '\0'),
        wire::i32(0x7fffffff) + "partial",
        wire::i32(100) + "half a frame",
        std::string("GET / HTTP/1.1\r\nHost: x\r\n\r\n"),
    };
}

// Sends bytes, then waits up to a second for an answer or the close.
void sendBad(const std::string& bytes) {
    RawConnection connection(DAEMON_PORT, 1);
    if (connection.connected() && connection.send(bytes)) {
        connection.readFrame();
    }
}

// A well-formed request gets its one right answer.
bool answers() {
    return LoadGenerator::sSend(
               DAEMON_PORT, 1, [](int, long) { return PROBE; },
               [](int, long, const std::string& reply) { return reply == PROBE_ANSWER; }) == 0;
}

// Connections that say nothing, or half a frame, and are held for a while.
void holdCrowd() {
    std::vector<std::unique_ptr<RawConnection>> crowd;
    for (int i = 0; i < CROWD_SIZE; ++i) {
        crowd.emplace_back(new RawConnection(DAEMON_PORT, 1));
        if (i % 2 == 0) {
            crowd.back()->send(wire::i32(64) + "stalled");
        }
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
}

// Folders made, filled, renamed, moved and deleted under the data folder.
void churnFolders(const std::string& data, long round) {
    const std::string base = data + "/churn" + std::to_string(round % 4);
    const std::string command = "mkdir -p " + base + "/a/b && cd " + base +
                                " && for i in 1 2 3 4 5 6 7 8; do echo $i > a/b/f$i.jpg; done"
                                " && mv a c && mv c/b d && rm -rf c d";
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "churn round %ld failed\n", round);
    }
}

struct Sample {
    double seconds;
    long rssKiB;
    long descriptors;
    long threads;
};

long descriptorCount(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    long count = 0;
    while (dir != NULL && readdir(dir) != NULL) {
        ++count;
    }
    if (dir != NULL) {
        closedir(dir);
    }
    return count - 2;
}

Sample sample(pid_t pid, Clock::time_point start) {
    const Sample taken = {std::chrono::duration<double>(Clock::now() - start).count(),
                          quorvia_bench::statusField(pid, "VmRSS:"), descriptorCount(pid),
                          quorvia_bench::statusField(pid, "Threads:")};
    printf("%6.0f s  RSS %6ld KiB  descriptors %4ld  threads %3ld\n", taken.seconds, taken.rssKiB,
           taken.descriptors, taken.threads);
    fflush(stdout);
    return taken;
}

bool alive(pid_t pid) { return waitpid(pid, NULL, WNOHANG) == 0; }

void makeMedia(const std::string& root) {
    const std::string media = root + "/userdisk/data/media";
    const std::string command =
        "mkdir -p " + media + " " + root + "/etc/talvernconfig && cp -r " + QUORVIA_SOURCE_DIR +
        "/data/localization " + root + "/etc/talvernconfig/ && cd " + media +
        " && mv ../photo.jpg ../clip.mp4 . && mkfifo " + root + "/fifo.mp4" +
        " && ffmpeg -v error -y -f lavfi -i sine=duration=2 -metadata title=Soak song.mp3" +
        " && head -c 3000 photo.jpg > damaged.jpg && head -c 5000 clip.mp4 > damaged.mp4";
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "could not make the soak's media\n");
    }
}

// What the peers did, filled while they run.
struct Tally {
    LoadFigures hits = {0, 0, 0, 0, 0};
    LoadFigures misses = {0, 0, 0, 0, 0};
    std::atomic<long> badSent{0}, badUnanswered{0}, crowds{0}, churns{0};
};

// One thread per kind of peer, each until end.
std::vector<std::thread> startPeers(const std::string& root, double seconds, Clock::time_point end,
                                    Tally& tally) {
    const std::string data = root + "/userdisk/data";
    std::vector<std::thread> peers;
    peers.emplace_back([&tally, root, seconds] {
        tally.hits = LoadGenerator::sRun(DAEMON_PORT, HIT_CONNECTIONS, seconds,
                                         quorvia_bench::hitRequests(root, STORE_ROWS),
                                         quorvia_bench::hitAnswers(STORE_ROWS));
    });
    peers.emplace_back([&tally, data, seconds] {
        tally.misses =
            LoadGenerator::sRun(DAEMON_PORT, 1, seconds, missRequests(data), missAnswers());
    });
    peers.emplace_back([&tally, root, end] {
        const std::vector<std::string> inputs = badInputs(root);
        for (size_t i = 0; Clock::now() < end; ++i, ++tally.badSent) {
            sendBad(inputs[i % inputs.size()]);
            tally.badUnanswered += answers() ? 0 : 1;
        }
    });
    peers.emplace_back([&tally, end] {
        for (; Clock::now() < end; ++tally.crowds) {
            holdCrowd();
        }
    });
    peers.emplace_back([&tally, data, end] {
        for (; Clock::now() < end; ++tally.churns) {
            churnFolders(data, tally.churns);
        }
    });
    return peers;
}

// Samples the daemon every SAMPLE_SECONDS until end or its death.
std::vector<Sample> watch(pid_t pid, Clock::time_point start, Clock::time_point end) {
    std::vector<Sample> samples;
    while (Clock::now() < end && alive(pid)) {
        samples.push_back(sample(pid, start));
        std::this_thread::sleep_for(std::chrono::seconds(SAMPLE_SECONDS));
    }
    return samples;
}

// The most resident memory and the fewest descriptors among samples
// [begin, end).
Sample extremes(std::vector<Sample>::const_iterator begin,
                std::vector<Sample>::const_iterator end) {
    Sample result = {0, 0, -1, 0};
    for (std::vector<Sample>::const_iterator it = begin; it != end; ++it) {
        result.rssKiB = std::max(result.rssKiB, it->rssKiB);
        result.descriptors = result.descriptors < 0 ? it->descriptors
                                                    : std::min(result.descriptors, it->descriptors);
    }
    return result;
}

// Prints how memory and descriptors moved from the first quarter of the run
// to the last; true when within their bounds.
bool flat(const std::vector<Sample>& all) {
    std::vector<Sample> samples;
    for (const Sample& taken : all) {
        if (taken.seconds >= WARM_UP_SECONDS) {
            samples.push_back(taken);
        }
    }
    if (samples.size() < 4) {
        printf("too few samples to compare the run's quarters\n");
        return true;
    }
    const size_t quarter = samples.size() / 4;
    const Sample first = extremes(samples.begin(), samples.begin() + quarter);
    const Sample last = extremes(samples.end() - quarter, samples.end());
    printf(
        "first quarter: RSS most %ld KiB, descriptors fewest %ld; last quarter: %ld KiB, %ld "
        "(bounds +%ld KiB, +%ld)\n",
        first.rssKiB, first.descriptors, last.rssKiB, last.descriptors, MAX_RSS_GROWTH_KIB,
        MAX_DESCRIPTOR_GROWTH);
    return last.rssKiB - first.rssKiB <= MAX_RSS_GROWTH_KIB &&
           last.descriptors - first.descriptors <= MAX_DESCRIPTOR_GROWTH;
}

// Prints the totals; true when the run passed.
bool report(const Tally& tally, const std::vector<Sample>& samples, bool survived) {
    printf("hits: %ld on %d connections (%.0f req/s, p99 %.0f us), %ld failed\n",
           tally.hits.requests, HIT_CONNECTIONS, tally.hits.requestsPerSecond, tally.hits.p99Micros,
           tally.hits.failures);
    printf("misses and unmounts: %ld (%.0f req/s), %ld failed\n", tally.misses.requests,
           tally.misses.requestsPerSecond, tally.misses.failures);
    printf("bad inputs: %ld, after which the daemon did not answer: %ld\n", tally.badSent.load(),
           tally.badUnanswered.load());
    printf("crowds of %d idle connections: %ld; folder churn rounds: %ld\n", CROWD_SIZE,
           tally.crowds.load(), tally.churns.load());
    if (!samples.empty()) {
        long maxRss = 0;
        for (const Sample& taken : samples) {
            maxRss = std::max(maxRss, taken.rssKiB);
        }
        printf("RSS: first %ld KiB, last %ld KiB, most %ld KiB; descriptors first %ld, last %ld\n",
               samples.front().rssKiB, samples.back().rssKiB, maxRss, samples.front().descriptors,
               samples.back().descriptors);
    }
    const bool served =
        tally.hits.failures == 0 && tally.misses.failures == 0 && tally.badUnanswered == 0;
    const bool bounded = flat(samples);
    printf("%s\n", !survived  ? "soak FAILED: the daemon died or hangs"
                   : !served  ? "soak FAILED: requests failed or got wrong answers"
                   : !bounded ? "soak FAILED: memory or descriptors grew"
                              : "soak passed");
    return survived && served && bounded;
}

}  // namespace

int main() {
    quorvia_bench::quietBenchProcess("quorvia-soak");
    const std::string tools = std::string(QUORVIA_SOURCE_DIR) + "/tools/device:" + getenv("PATH");
    setenv("PATH", tools.c_str(), 1);
    if (quorvia_bench::accepting(DAEMON_PORT)) {
        printf("port %d is taken: no soak\n", DAEMON_PORT);
        return 1;
    }
    const double seconds = soakSeconds();
    const std::string root = quorvia_bench::makeRoot(STORE_ROWS);
    makeMedia(root);
    const pid_t pid = quorvia_bench::startDaemon(root, true);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        start + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    Tally tally;
    std::vector<std::thread> peers = startPeers(root, seconds, end, tally);
    std::vector<Sample> samples = watch(pid, start, end);
    for (std::thread& peer : peers) {
        peer.join();
    }
    const bool survived = alive(pid) && answers();
    if (survived) {
        samples.push_back(sample(pid, start));
    }
    const bool clean = report(tally, samples, survived);
    quorvia_bench::stopDaemon(pid);
    const std::string cleanup = "rm -rf '" + root + "'";
    return clean && system(cleanup.c_str()) == 0 ? 0 : 1;
}
