// Figures of the disk follower: watch placement for a tree of 10,000
// directories next to inotifywait -r on the same tree, an idle pass with
// those watches, the folding and delivery of a batch of created files at
// three sizes, and batches that move folders out and as many in. Printed;
// the folding's cost with lines on is checked against its target.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "Seconds.h"
#include "Targets.h"
#include "backup/inotify/FileChangeMonitor.h"
#include "system/ConfigInfo.h"
#include "system/Log.h"

namespace fs = boost::filesystem;

namespace {

using quorvia_bench::Clock;
using quorvia_bench::secondsSince;

// Never has events: the batch is fed by hand and a pass is always quiet.
class QuietKernel : public InotifyKernel {
public:
    QuietKernel() : next_(0) {}
    virtual int addWatch(int, int, const std::string&, uint32_t) { return ++next_; }
    virtual int waitReadable(int, int) { return 0; }
    virtual ssize_t read(int, char*, std::size_t) {
        errno = EAGAIN;
        return -1;
    }

private:
    int next_;
};

class CountingObserver : public IFileChangeMonitorObserver {
public:
    CountingObserver() : items(0) {}
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType) {
        items += changes->size();
    }
    std::size_t items;
};

std::string makeTree(const std::string& root, int top, int below) {
    for (int i = 0; i < top; ++i) {
        for (int j = 0; j < below; ++j) {
            fs::create_directories(root + "/d" + std::to_string(i) + "/e" + std::to_string(j));
        }
    }
    return root;
}

void placeWatches(const std::string& tree, const char* logging) {
    Clock::time_point start = Clock::now();
    FileChangeMonitor monitor;
    monitor.init(std::vector<std::string>(1, tree));
    monitor.beginNotify();
    printf("watch placement, quorvia monitor (%s): %zu watches in %.3f s\n", logging,
           monitor.watchedPaths().size(), secondsSince(start));
}

// An idle monitor settles once a second: what one such pass costs with the
// tree's watches in place.
void idlePasses(const std::string& tree) {
    boost::shared_ptr<InotifyKernel> kernel(new QuietKernel);
    FileChangeMonitor monitor(kernel);
    monitor.init(std::vector<std::string>(1, tree));
    monitor.beginNotify();
    const int passes = 20;
    Clock::time_point start = Clock::now();
    for (int i = 0; i < passes; ++i) {
        monitor.runPass();
    }
    printf("idle quiet pass with %zu watches: %.3f ms\n", monitor.watchedPaths().size(),
           secondsSince(start) * 1000 / passes);
}

void watchPlacement(const std::string& tree) {
    // One log line per watch: what that costs depends on the machine's syslog,
    // so placement is timed with and without them.
    placeWatches(tree, "log lines on");
    FLAGS_minloglevel = google::GLOG_WARNING;
    placeWatches(tree, "log lines off");
    FLAGS_minloglevel = google::GLOG_INFO;
    Clock::time_point start = Clock::now();
    // inotifywait says "Watches established." once its recursive scan is done.
    const std::string command = "inotifywait -r -m -e create '" + tree + "' 2>&1 & echo $!";
    start = Clock::now();
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        printf("watch placement, inotifywait -r: could not run\n");
        return;
    }
    char line[512];
    long pid = 0;
    bool established = false;
    while (fgets(line, sizeof(line), pipe)) {
        if (pid == 0) {
            pid = strtol(line, NULL, 10);
        } else if (strstr(line, "Watches established")) {
            established = true;
            break;
        }
    }
    const double took = secondsSince(start);
    if (pid > 0) {
        kill(static_cast<pid_t>(pid), SIGTERM);
    }
    pclose(pipe);
    if (established) {
        printf("watch placement, inotifywait -r:   same tree in %.3f s\n", took);
    } else {
        printf("watch placement, inotifywait -r: not available\n");
    }
}

void appendEvent(std::string& buffer, int wd, uint32_t mask, const std::string& name,
                 uint32_t cookie = 0) {
    const std::size_t len = ((name.size() + 1 + 15) / 16) * 16;
    std::string record(sizeof(inotify_event) + len, '\0');
    inotify_event header;
    header.wd = wd;
    header.mask = mask;
    header.cookie = cookie;
    header.len = static_cast<uint32_t>(len);
    memcpy(&record[0], &header, sizeof(header));
    memcpy(&record[sizeof(header)], name.data(), name.size());
    buffer += record;
}

// Returns the seconds that folding took.
double foldBatch(const std::string& root, int files, const char* logging) {
    boost::shared_ptr<InotifyKernel> kernel(new QuietKernel);
    FileChangeMonitor monitor(kernel);
    monitor.init(std::vector<std::string>(1, root));
    monitor.beginNotify();
    boost::shared_ptr<CountingObserver> observer(new CountingObserver);
    monitor.registerObserver(observer);
    // Each file as the kernel reports a copy: created, then closed after writing.
    std::vector<std::string> reads(1);
    for (int i = 0; i < files; ++i) {
        if (reads.back().size() > FileChangeMonitor::kReadBufferSize - 1024) {
            reads.push_back(std::string());
        }
        const std::string name = "IMG_" + std::to_string(i) + ".jpg";
        appendEvent(reads.back(), 1, IN_CREATE, name);
        appendEvent(reads.back(), 1, IN_CLOSE_WRITE, name);
    }
    Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < reads.size(); ++i) {
        monitor.handleEvents(reads[i].data(), reads[i].size());
    }
    const double folded = secondsSince(start);
    monitor.runPass();
    printf("batch of %5d created files (%s): folded in %.3f s, folded and delivered in %.3f s "
           "(%zu items)\n",
           files, logging, folded, secondsSince(start), observer->items);
    return folded;
}

// A batch in which the folders of a tree leave it and as many folders arrive:
// one tree of them, or each on its own at the name of one that left. Every
// watch placed for a newcomer is checked against the folders still away.
void swapFolders(const std::string& root, int folders, bool sameNames) {
    const std::string tree = root + "/swap", away = root + "/away", incoming = root + "/incoming";
    for (int i = 0; i < folders; ++i) {
        fs::create_directories(tree + "/out" + std::to_string(i));
        fs::create_directories(incoming + (sameNames ? "/out" : "/in") + std::to_string(i));
    }
    fs::create_directories(away);
    boost::shared_ptr<InotifyKernel> kernel(new QuietKernel);
    FileChangeMonitor monitor(kernel);
    monitor.init(std::vector<std::string>(1, tree));
    monitor.beginNotify();
    std::vector<std::string> reads(1);
    const auto add = [&reads](uint32_t mask, const std::string& name, uint32_t cookie) {
        if (reads.back().size() > FileChangeMonitor::kReadBufferSize - 1024) {
            reads.push_back(std::string());
        }
        appendEvent(reads.back(), 1, mask | IN_ISDIR, name, cookie);
    };
    for (int i = 0; i < folders; ++i) {
        const std::string name = "out" + std::to_string(i);
        fs::rename(tree + "/" + name, away + "/" + name);
        add(IN_MOVED_FROM, name, i + 1);
    }
    if (sameNames) {
        for (int i = 0; i < folders; ++i) {
            const std::string name = "out" + std::to_string(i);
            fs::rename(incoming + "/" + name, tree + "/" + name);
            add(IN_MOVED_TO, name, folders + i + 1);
        }
    } else {
        fs::rename(incoming, tree + "/in");
        add(IN_MOVED_TO, "in", folders + 1);
    }
    Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < reads.size(); ++i) {
        monitor.handleEvents(reads[i].data(), reads[i].size());
    }
    monitor.runPass();
    const double took = secondsSince(start);
    printf(
        "batch of %5d folders moved out and %s (log lines off): handled in %.3f s, "
        "%zu watches after\n",
        folders, sameNames ? "as many in at their names" : "a tree of as many in", took,
        monitor.watchedPaths().size());
    fs::remove_all(tree);
    fs::remove_all(away);
    fs::remove_all(incoming);
}

}  // namespace

int main(int, char** argv) {
    // Log lines go where the daemon's go (files), not onto the figures.
    google::InitGoogleLogging(argv[0]);
    char pattern[] = "/tmp/quorvia-monitor-bench-XXXXXX";
    if (!mkdtemp(pattern)) {
        return 1;
    }
    const std::string root = pattern;
    fs::create_directories(root + "/logs");
    FLAGS_log_dir = root + "/logs";
    // As the daemon does: its lines written by a thread of their own.
    talvern::Log::sStartThread();
    // The directory filter asks ConfigInfo for the localised folder names.
    const std::string source(QUORVIA_SOURCE_DIR);
    setenv("QUORVIA_ROOT", root.c_str(), 1);
    setenv("PATH", (source + "/tools/device:" + getenv("PATH")).c_str(), 1);
    fs::create_directories(root + "/etc/talvernconfig");
    fs::copy_directory(source + "/data/localization", root + "/etc/talvernconfig/localization");
    for (fs::directory_iterator it(source + "/data/localization"), end; it != end; ++it) {
        fs::copy_file(it->path(), root + "/etc/talvernconfig/localization/" +
                                      it->path().filename().string());
    }
    talvern::ConfigInfo::sGetInstance();

    const std::string tree = makeTree(root + "/tree", 100, 100);
    watchPlacement(tree);
    idlePasses(tree);
    fs::create_directories(root + "/flat");
    // Every event and item writes a log line; how much that costs depends on
    // the machine's syslog, so the folding itself is shown without them too.
    const double on = foldBatch(root + "/flat", 5000, "log lines on");
    FLAGS_minloglevel = google::GLOG_WARNING;
    const double off = foldBatch(root + "/flat", 5000, "log lines off");
    const bool met = quorvia_bench::target("folding 5,000 created files, lines on / off", on / off,
                                           "<=", 3);
    foldBatch(root + "/flat", 10000, "log lines off");
    foldBatch(root + "/flat", 20000, "log lines off");
    swapFolders(root, 10000, false);
    swapFolders(root, 10000, true);
    fs::remove_all(root);
    return met ? 0 : 1;
}
