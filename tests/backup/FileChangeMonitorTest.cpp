#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <set>

#include "backup/MonitorTestSupport.h"
#include "backup/inotify/FileChangeMonitor.h"
#include "storage/Directory.h"
#include "support/DeviceRootTest.h"

namespace fs = boost::filesystem;

namespace {

using monitor_test::RecordingObserver;

typedef std::vector<std::string> Lines;

// A kernel that places watches in a table of its own, refuses the paths it is
// told to refuse, and reads what is queued.
class FakeKernel : public InotifyKernel {
public:
    int init() override {
        errno = initErrno;
        return initErrno != 0 ? -1 : 1000;
    }
    int addWatch(int, int folder, const std::string& path, uint32_t) override {
        if (beforeWatch) {
            beforeWatch(path);
        }
        if (refuse.count(path) != 0) {
            errno = refuse[path];
            return -1;
        }
        // One watch per directory, whatever path it is reached by, as the
        // kernel's: a moved folder's watch comes back for its new path. The
        // directory is the one open as folder.
        struct stat info;
        if (fstat(folder, &info) != 0) {
            return -1;
        }
        const auto known = byInode.emplace(std::make_pair(info.st_dev, info.st_ino), ++lastWd);
        return wds[path] = known.first->second;
    }
    int removeWatch(int, int wd) override {
        for (auto it = byInode.begin(); it != byInode.end(); ++it) {
            if (it->second == wd) {
                byInode.erase(it);
                return 0;
            }
        }
        return -1;
    }
    int waitReadable(int, int) override {
        if (queued.empty() && !arriving.empty()) {
            queued.push_back(arriving.front());
            arriving.pop_front();
        }
        return queued.empty() ? 0 : 1;
    }
    ssize_t read(int, char* buffer, std::size_t size) override {
        if (queued.empty()) {
            return -1;
        }
        const std::size_t length = queued.front().copy(buffer, size);
        queued.pop_front();
        return static_cast<ssize_t>(length);
    }
    void close(int) override {}

    int initErrno = 0;
    std::function<void(const std::string&)> beforeWatch;  // called with each path to watch
    std::deque<std::string> queued;     // what read() hands out, one per call
    std::deque<std::string> arriving;   // queued one by one at waits that find none
    std::map<std::string, int> refuse;  // path with "/" -> errno
    std::map<std::string, int> wds;     // the last watch placed for each path
    std::map<std::pair<dev_t, ino_t>, int> byInode;
    int lastWd = 0;
};

// The real kernel, with a hook before each watch.
class HookedKernel : public InotifyKernel {
public:
    int addWatch(int fd, int folder, const std::string& path, uint32_t mask) override {
        if (beforeWatch) {
            beforeWatch(path);
        }
        return InotifyKernel::addWatch(fd, folder, path, mask);
    }

    std::function<void(const std::string&)> beforeWatch;  // called with each path to watch
};

// Time that moves only when a test moves it.
class FakeClock : public SteadyClock {
public:
    TimePoint now() const override { return at; }

    TimePoint at;
};

struct Event {
    uint32_t mask;
    std::string name;
    uint32_t cookie = 0;
};

// Kernel records as read() hands them over: names NUL-terminated and padded.
std::string records(int wd, const std::vector<Event>& events) {
    std::string bytes;
    for (const Event& event : events) {
        const std::size_t len = event.name.empty() ? 0 : ((event.name.size() + 16) / 16) * 16;
        inotify_event header = {wd, event.mask, event.cookie, static_cast<uint32_t>(len)};
        bytes.append(reinterpret_cast<const char*>(&header), sizeof(header));
        bytes += event.name + std::string(len - event.name.size(), '\0');
    }
    return bytes;
}

std::string maskName(WatchMask mask) {
    return FileChangeMonitor::convertWatchMaskToString(mask).substr(8);
}

class FileChangeMonitorTest : public quorvia_test::DeviceRootTest {
protected:
    std::string data() const { return path("/userdisk/data"); }

    // A monitor on the data folder (made if missing) with the real kernel, or
    // the fake one.
    void start(bool realKernel = true) {
        mkdirs("");
        fakeKernel_ = !realKernel;
        monitor_.reset(realKernel ? new FileChangeMonitor(real_)
                                  : new FileChangeMonitor(fake_, clock_));
        monitor_->init({data()});
        monitor_->registerObserver(observer_);
        ASSERT_TRUE(monitor_->beginNotify());
    }

    // The fake kernel's watch on the data folder.
    int wd() { return fake_->wds.at(data() + "/"); }

    // Hands events on the data folder's watch to the monitor; what it holds after.
    Lines fold(const std::vector<Event>& events) {
        const std::string bytes = records(wd(), events);
        monitor_->handleEvents(bytes.data(), bytes.size());
        return describe(monitor_->changes());
    }

    void mkdirs(const std::string& below) {
        ASSERT_TRUE(talvern::Directory::sCreateDirectory(data() + "/" + below).ok());
    }

    // Watched paths relative to the data folder ("" is the folder itself).
    // The fake kernel holds the watches of those paths and no other.
    Lines watched() {
        Lines all = monitor_->watchedPaths(), relative;
        std::set<int> known, held;
        for (const std::string& path : all) {
            relative.push_back(path.substr(data().size() + 1));
            known.insert(fake_->wds.count(path) != 0 ? fake_->wds[path] : -1);
        }
        EXPECT_EQ(all.size(), monitor_->pathIndexSize()) << "the two tables mirror each other";
        for (const auto& watch : fake_->byInode) {
            held.insert(watch.second);
        }
        EXPECT_TRUE(!fakeKernel_ || held == known) << "the kernel holds other watches";
        return relative;
    }

    // "MASK path-below-data [#cookie] [after HALF#cookie]..." lines; a
    // directory's path ends in "/". Cookies the real kernel chose are left out.
    Lines describe(const std::vector<FileChangeItem>& items, bool cookies = true) {
        Lines lines;
        for (const FileChangeItem& item : items) {
            EXPECT_EQ(item.isDir, item.path.back() == '/') << item.path;
            std::string line = maskName(item.mask) + " " + item.path.substr(data().size() + 1);
            line += cookies && item.cookie ? " #" + std::to_string(item.cookie) : "";
            for (const EarlierEvent& earlier : item.earlierEvents) {
                line += " after " + maskName(earlier.mask) +
                        (earlier.cookie ? "#" + std::to_string(earlier.cookie) : "");
            }
            lines.push_back(line);
        }
        return lines;
    }

    // Runs passes of the loop until done() or the bounded wait is over.
    void passUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!done() && std::chrono::steady_clock::now() < deadline) {
            monitor_->runPass();
        }
    }

    // The last batch, once the observer holds `batches` of them.
    Lines batchAfterPasses(std::size_t batches) {
        passUntil([&] { return observer_->batches.size() >= batches; });
        EXPECT_EQ(batches, observer_->batches.size());
        return observer_->batches.empty() ? Lines() : describe(observer_->batches.back(), false);
    }

    boost::shared_ptr<RecordingObserver> observer_{new RecordingObserver};
    boost::shared_ptr<FakeKernel> fake_{new FakeKernel};
    boost::shared_ptr<HookedKernel> real_{new HookedKernel};
    boost::shared_ptr<FakeClock> clock_{new FakeClock};
    boost::shared_ptr<FileChangeMonitor> monitor_;
    bool fakeKernel_ = false;
};

// ---- Folding of kernel records, through the fake kernel ----

TEST_F(FileChangeMonitorTest, EventSequencesFoldIntoTheirItems) {
    const uint32_t D = IN_ISDIR;
    const struct {
        std::vector<Event> events;
        Lines items;
    } cases[] = {
        {{{IN_CREATE, "f"}, {IN_CLOSE_WRITE, "f"}}, {"MODIFY f"}},
        {{{IN_CREATE, "f"}, {IN_DELETE, "f"}}, {"DELETE f"}},
        {{{IN_MOVED_TO, "f", 7}, {IN_MOVED_FROM, "f", 8}}, {"FROM f #8 after TO#7"}},
        {{{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}}, {"FROM a #1", "TO b #1"}},
        // A rename onto a path seen earlier; a file moved away and back.
        {{{IN_CLOSE_WRITE, "b"}, {IN_MOVED_FROM, "a", 2}, {IN_MOVED_TO, "b", 2}},
         {"TO b #2", "FROM a #2"}},
        {{{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}, {IN_MOVED_FROM, "b", 2},
          {IN_MOVED_TO, "a", 2}},
         {"TO a #2 after FROM#1", "FROM b #2 after TO#1"}},
        // Regressions: a file renamed and then written, deleted or renamed
        // again within the quiet second lost its move, and its row stayed at
        // the old name.
        {{{IN_MOVED_TO, "f", 3}, {IN_CLOSE_WRITE, "f"}}, {"MODIFY f after TO#3"}},
        {{{IN_MOVED_FROM, "a", 5}, {IN_MOVED_TO, "b", 5}, {IN_DELETE, "b"}},
         {"FROM a #5", "DELETE b after TO#5"}},
        {{{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}, {IN_MOVED_FROM, "b", 2},
          {IN_MOVED_TO, "c", 2}},
         {"FROM a #1", "FROM b #2 after TO#1", "TO c #2"}},
        {{{IN_CREATE | D, "gone"}, {IN_DELETE | D, "gone"}}, {"DELETE gone/"}},
        // Hidden directories and the recycle bin are dropped, hidden files
        // kept; so is the kernel's bookkeeping.
        {{{IN_CREATE | D, ".cache"}, {IN_MOVED_TO | D, "$RECYCLE.BIN", 4}, {IN_CREATE, ".profile"}},
         {"CREATE .profile"}},
        {{{IN_IGNORED, ""}, {IN_DELETE_SELF | D, ""}, {IN_Q_OVERFLOW, ""}, {IN_UNMOUNT, ""}}, {}},
        // Odd names are kept byte for byte.
        {{{IN_CREATE, "new\nline"}, {IN_CREATE, "bad\xff\xfe"}, {IN_CREATE, std::string(255, 'n')}},
         {"CREATE new\nline", "CREATE bad\xff\xfe", "CREATE " + std::string(255, 'n')}},
    };
    for (const auto& c : cases) {
        start(false);
        EXPECT_EQ(c.items, fold(c.events));
    }
}

TEST_F(FileChangeMonitorTest, UnknownDescriptorsTruncatedRecordsAndExcludedFoldersGiveNothing) {
    start(false);
    const std::string bytes =
        records(99, {{IN_CLOSE_WRITE, "stranger"}}) +
        records(wd(), {{IN_CLOSE_WRITE, "kept"}, {IN_CLOSE_WRITE, "cut off"}});
    monitor_->handleEvents(bytes.data(), bytes.size() - 3);
    EXPECT_EQ(Lines{"MODIFY kept"}, describe(monitor_->changes()));

    // The filter of excluded folders: names below an excluded prefix, empty
    // names and unknown descriptors are filtered; the rest is kept.
    monitor_->setExcludeFolderPath({data() + "/skip", data() + "/.sys/"});
    auto filtered = [&](int wd, const Event& event) {
        std::string record = records(wd, {event});
        return monitor_->FilterExcludeFileAndPath(reinterpret_cast<inotify_event*>(&record[0]));
    };
    EXPECT_TRUE(filtered(wd(), {IN_CREATE, "skip.jpg"}));
    EXPECT_TRUE(filtered(wd(), {IN_CREATE | IN_ISDIR, ".sys"}));
    EXPECT_TRUE(filtered(wd(), {IN_CREATE, ""}));
    EXPECT_TRUE(filtered(99, {IN_CREATE, "keep.jpg"}));
    EXPECT_FALSE(filtered(wd(), {IN_CREATE, ".sys"}));
    EXPECT_FALSE(filtered(wd(), {IN_CREATE, "keep.jpg"}));
}

// A shut gate holds the list back; an observer that throws ends nothing.
TEST_F(FileChangeMonitorTest, QuietPassDeliversOnlyWhenTheGateIsOpen) {
    start(false);
    observer_->failure = "observer failed";
    fold({{IN_CLOSE_WRITE, "a.jpg"}});
    monitor_->disableWatchEvent();
    monitor_->runPass();
    monitor_->disableWatchEventThreeSec();
    monitor_->runPass();
    EXPECT_FALSE(log_.contains("observer failed"));
    monitor_->enableWatchEvent();
    monitor_->runPass();
    EXPECT_TRUE(log_.contains("observer failed", google::GLOG_ERROR));
}

// ---- The watch table, with the kernel's refusals simulated ----

// A refused watch is retried at each delivery, ten times at most, and nothing
// below it is visited meanwhile; the watch limit is named with its remedy.
TEST_F(FileChangeMonitorTest, KernelRefusalsAreNamedAndRefusedDirectoriesRetried) {
    for (const char* dir : {"a/b", "x", "locked"}) {
        mkdirs(dir);
    }
    fake_->refuse = {
        {data() + "/a/", ENOSPC}, {data() + "/x/", ENOSPC}, {data() + "/locked/", EACCES}};
    start(false);
    EXPECT_EQ(1, log_.count("inotify watch limit reached: raise fs.inotify.max_user_watches to "
                            "follow every folder of the disk",
                            google::GLOG_WARNING));
    EXPECT_EQ(Lines(1, ""), watched());
    fake_->refuse.erase(data() + "/x/");
    const size_t descriptors = quorvia_test::openDescriptors();
    for (int pass = 0; pass < FileChangeMonitor::kMaxWatchRetries; ++pass) {
        monitor_->delayAddWatchDiskDir();
    }
    EXPECT_EQ(2u, monitor_->delayedDirs().size()) << "a and locked still retried";
    monitor_->delayAddWatchDiskDir();
    EXPECT_TRUE(monitor_->delayedDirs().empty());
    EXPECT_EQ(Lines({"", "x/"}), watched());
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors()) << "each try closes its folder";
    monitor_->removeInotifyDir(data() + "/x");
    EXPECT_EQ(Lines(1, ""), watched());
    // A folder that can't be opened (no descriptor left) is a refusal too,
    // and is retried.
    mkdirs("late");
    const int said = log_.count("talvern inotify_add_watch error");
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const int lowestFree = dup(0);
    close(lowestFree);
    const struct rlimit none = {static_cast<rlim_t>(lowestFree), saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    monitor_->addInotifyDir(data() + "/late");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(said + 1, log_.count("talvern inotify_add_watch error"));
    EXPECT_EQ(Lines(1, ""), watched());
    monitor_->delayAddWatchDiskDir();
    EXPECT_EQ(Lines({"", "late/"}), watched());
    monitor_->removeInotifyDir(data() + "/late");
    // A folder that is gone is no refusal: nothing is said.
    const int refusals = log_.count("talvern inotify_add_watch error");
    EXPECT_FALSE(monitor_->addWatchDiskDir(data() + "/gone"));
    EXPECT_EQ(refusals, log_.count("talvern inotify_add_watch error"));

    // Without inotify at all the disk is not followed, and the reason said.
    fake_->initErrno = EMFILE;
    EXPECT_FALSE(FileChangeMonitor(fake_).beginNotify());
    EXPECT_TRUE(log_.contains(
        "The disk is not being followed: inotify_init failed: " + std::string(strerror(EMFILE)),
        google::GLOG_ERROR));
}

// A folder swapped for a link before its watch or its listing: the link was
// followed, so a link to the data folder watched it again under the link's
// name (its rows then stopped following it) and a link to a folder outside
// had that folder watched. So had a folder reached through a folder above it
// that was swapped for a link once its path was taken: its parent listed, or
// its arrival read.
TEST_F(FileChangeMonitorTest, AFolderSwappedForALinkIsNeitherWatchedNorWalkedRegression) {
    writeFile("/outside/sub/x", "");
    writeFile("/outside/X/x", "");
    const std::string outside = path("/outside");
    for (const char* dir : {"P", "A/sub", "B"}) {
        mkdirs(dir);
    }
    const auto swapForLink = [&](const std::string& name, const std::string& target) {
        fs::rename(data() + "/" + name, data() + "/" + name + ".old");
        fs::create_symlink(target, data() + "/" + name);
    };
    const auto identity = [](const std::string& folder) {
        struct stat info;
        EXPECT_EQ(0, stat(folder.c_str(), &info)) << folder;
        return std::make_pair(info.st_dev, info.st_ino);
    };
    fake_->refuse[data() + "/P/"] = ENOSPC;
    const size_t descriptors = quorvia_test::openDescriptors();
    // The walk: A is swapped for a link to the folder outside once its watch
    // is asked for. The watch is the folder's that was opened, as is the
    // listing; its subfolder's path now leads outside, and is left.
    fake_->beforeWatch = [&](const std::string& path) {
        if (path == data() + "/A/" && !fs::is_symlink(path.substr(0, path.size() - 1))) {
            swapForLink("A", outside);
        }
    };
    start(false);
    EXPECT_EQ(Lines({"", "A/", "B/"}), watched());
    EXPECT_EQ(fake_->wds.at(data() + "/A/"), fake_->byInode.at(identity(data() + "/A.old")));
    // The retry of a refused folder.
    swapForLink("P", ".");
    fake_->refuse.clear();
    monitor_->delayAddWatchDiskDir();
    // A folder's arrival, itself a link or below one swapped in since.
    fs::create_symlink(outside, data() + "/L");
    fold({{IN_CREATE | IN_ISDIR, "L"}});
    const int b = fake_->wds.at(data() + "/B/");
    swapForLink("B", outside);
    const std::string arrival = records(b, {{IN_CREATE | IN_ISDIR, "X"}});
    monitor_->handleEvents(arrival.data(), arrival.size());
    EXPECT_EQ(Lines({"", "A/", "B/"}), watched());
    for (const std::string& folder : {outside, outside + "/sub", outside + "/X"}) {
        EXPECT_EQ(0u, fake_->byInode.count(identity(folder))) << folder;
    }
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors()) << "a folder passed over is closed";
    EXPECT_EQ(data() + "/", monitor_->watchedPath(wd()));
}

// A second way into a folder already watched (a bind mount in the tree)
// leaves its watch, and its rows, under the path they had.
TEST_F(FileChangeMonitorTest, ASecondPathToAWatchedFolderLeavesItsWatchAsItIs) {
    mkdirs("A");
    if (unshare(CLONE_NEWNS) != 0 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) {
        GTEST_SKIP() << "no mount namespace: " << strerror(errno);
    }
    start(false);
    mkdirs("B");
    ASSERT_EQ(0, mount((data() + "/A").c_str(), (data() + "/B").c_str(), NULL, MS_BIND, NULL));
    fold({{IN_CREATE | IN_ISDIR, "B"}});
    EXPECT_EQ(Lines({"", "A/"}), watched());
    EXPECT_TRUE(log_.contains(data() + "/B/ leads to the folder watched as " + data() + "/A/",
                              google::GLOG_ERROR));
    EXPECT_EQ(0, umount2((data() + "/B").c_str(), MNT_DETACH));
}

// On a disk that ignores case (FAT, exFAT), a folder renamed to another case
// of its name is still found under the old one, as the bind mount makes it
// here: its arrival was refused as a second way in, and the folder and its
// subfolders lost their watches at the quiet pass (regression).
TEST_F(FileChangeMonitorTest, AFolderRenamedToAnotherCaseOfItsNameKeepsItsWatchesRegression) {
    mkdirs("Photos/sub");
    if (unshare(CLONE_NEWNS) != 0 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) {
        GTEST_SKIP() << "no mount namespace: " << strerror(errno);
    }
    start(false);
    fs::rename(data() + "/Photos", data() + "/photos");
    mkdirs("Photos");
    ASSERT_EQ(0, mount((data() + "/photos").c_str(), (data() + "/Photos").c_str(), NULL, MS_BIND,
                       NULL));
    fold({{IN_MOVED_FROM | IN_ISDIR, "Photos", 3}, {IN_MOVED_TO | IN_ISDIR, "photos", 3}});
    monitor_->runPass();
    EXPECT_EQ(Lines({"", "photos/", "photos/sub/"}), watched());
    EXPECT_EQ(0, umount2((data() + "/Photos").c_str(), MNT_DETACH));
}

// The kernel is handed the folder opened, not its path: a link swapped in at
// the path in the moment before had the folder it led to watched.
TEST_F(FileChangeMonitorTest, TheKernelWatchesTheFolderOpenedNotWhereItsPathNowLeadsRegression) {
    mkdirs("A");
    fs::create_directories(path("/outside"));
    real_->beforeWatch = [&](const std::string& watched) {
        if (watched == data() + "/A/") {
            real_->beforeWatch = nullptr;
            fs::rename(data() + "/A", data() + "/A.old");
            fs::create_symlink(path("/outside"), data() + "/A");
        }
    };
    start();
    writeFile("/outside/f", "x");
    writeFile("/userdisk/data/A.old/g", "x");
    EXPECT_EQ(Lines({"FROM A/", "TO A.old/", "CREATE A", "MODIFY A.old/g"}), batchAfterPasses(1));
}

// A device without /proc: the folders are watched by their paths, as they
// stand.
TEST_F(FileChangeMonitorTest, WithoutProcTheTreeIsStillFollowed) {
    mkdirs("a/b");
    if (unshare(CLONE_NEWNS) != 0 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0 ||
        umount2("/proc", MNT_DETACH) != 0) {
        GTEST_SKIP() << "/proc can't be taken away here: " << strerror(errno);
    }
    start();
    EXPECT_EQ(Lines({"", "a/", "a/b/"}), watched());
    mkdirs("a/c");
    EXPECT_EQ(Lines({"CREATE a/c/"}), batchAfterPasses(1));
    EXPECT_EQ(Lines({"", "a/", "a/b/", "a/c/"}), watched());
    EXPECT_EQ(0, mount("proc", "/proc", "proc", 0, NULL)) << "for the cases after this one";
}

// A copy that never left a quiet second kept every path in the list until
// it ended (200,000 files cost 49 MB): the list is delivered in slices.
TEST_F(FileChangeMonitorTest, EndlessEventsAreDeliveredInSlicesRegression) {
    mkdirs("A/s");
    start(false);
    for (int first = 0; first < 25000; first += 1000) {
        std::vector<Event> events;
        for (int i = first; i < first + 1000; ++i) {
            events.push_back({IN_CREATE, "f" + std::to_string(i)});
        }
        fake_->queued.push_back(records(wd(), events));
    }
    for (int pass = 0; pass < 10; ++pass) {
        monitor_->runPass();
    }
    const std::size_t most = FileChangeMonitor::kMaxBatchItems;
    EXPECT_EQ(std::vector<std::size_t>({most, most, 25000 - 2 * most}), observer_->sizes());

    // A folder's move cut in two by a slice: its watches were once taken down
    // as if it had left the tree, and a delete in it right after was lost.
    const auto sliceEndingWith = [&](const Event& last) {
        for (std::size_t first = 0; first < most; first += 1000) {
            std::vector<Event> events;
            for (std::size_t i = first; i < first + 1000 && i < most - 1; ++i) {
                events.push_back({IN_CREATE, "g" + std::to_string(i)});
            }
            fake_->queued.push_back(records(wd(), events));
        }
        fake_->queued.back() += records(wd(), {last});
    };
    fs::rename(data() + "/A", data() + "/B");
    sliceEndingWith({IN_MOVED_FROM | IN_ISDIR, "A", 5});
    fake_->queued.push_back(records(wd(), {{IN_MOVED_TO | IN_ISDIR, "B", 5}}) +
                            records(fake_->wds.at(data() + "/A/s/"), {{IN_DELETE, "y.mp3"}}));
    EXPECT_EQ(Lines({"TO B/", "DELETE B/s/y.mp3"}), batchAfterPasses(5));
    // A move out of the tree that ends a slice: its watches go at the next
    // quiet pass, though that pass has nothing left to deliver.
    fs::rename(data() + "/B", root() + "/B");
    sliceEndingWith({IN_MOVED_FROM | IN_ISDIR, "B", 6});
    batchAfterPasses(6);
    monitor_->runPass();
    EXPECT_EQ(Lines(1, ""), watched());
}

// A disk that never stayed quiet for a second kept what waits for a quiet
// pass waiting for good: the check after lost events, and the watches of a
// folder moved out of the tree.
TEST_F(FileChangeMonitorTest, ABusyDiskIsSettledEveryFewSecondsRegression) {
    mkdirs("A/s");
    mkdirs("B/t");
    start(false);
    const auto busySecond = [&](const Event& event) {
        fake_->queued.push_back(records(wd(), {event}));
        clock_->at += std::chrono::seconds(1);
        monitor_->runPass();
    };
    fs::rename(data() + "/A", root() + "/A");
    busySecond({IN_MOVED_FROM | IN_ISDIR, "A", 7});
    fake_->queued.push_back(records(-1, {{IN_Q_OVERFLOW, ""}}));
    for (int second = 1; second < FileChangeMonitor::kMaxUnsettledSeconds; ++second) {
        busySecond({IN_CLOSE_WRITE, "song.mp3"});
    }
    EXPECT_EQ(1u, observer_->lost.size());
    EXPECT_EQ(Lines({"", "B/", "B/t/"}), watched());

    // A read that ends between a move's halves waits for the other half.
    clock_->at += std::chrono::seconds(FileChangeMonitor::kMaxUnsettledSeconds);
    fs::rename(data() + "/B", data() + "/C");
    busySecond({IN_MOVED_FROM | IN_ISDIR, "B", 8});
    busySecond({IN_MOVED_TO | IN_ISDIR, "C", 8});
    EXPECT_EQ(Lines({"FROM B/", "TO C/"}), batchAfterPasses(2));
    EXPECT_EQ(Lines({"", "C/", "C/t/"}), watched());
    // So does a read after which the other half comes at once (another
    // event was queued between the halves).
    clock_->at += std::chrono::seconds(FileChangeMonitor::kMaxUnsettledSeconds);
    fs::rename(data() + "/C", data() + "/D");
    fake_->queued.push_back(records(wd(), {{IN_MOVED_FROM | IN_ISDIR, "C", 9}}));
    fake_->arriving.push_back(records(wd(), {{IN_MOVED_TO | IN_ISDIR, "D", 9}}));
    busySecond({IN_CLOSE_WRITE, "song.mp3"});
    EXPECT_EQ(Lines({"FROM C/", "MODIFY song.mp3", "TO D/"}), batchAfterPasses(3));
}

// A folder moved out and a new one of its name made, in one batch: the old
// folder's subfolders stayed watched under the new one's paths.
TEST_F(FileChangeMonitorTest, AFolderReplacedByANewcomerTakesItsSubfoldersAlong) {
    mkdirs("A/s");
    mkdirs("AB/s");
    start(false);
    fs::rename(data() + "/A", root() + "/A");
    mkdirs("A");
    fake_->queued.push_back(
        records(wd(), {{IN_MOVED_FROM | IN_ISDIR, "A", 7}, {IN_CREATE | IN_ISDIR, "A"}}));
    batchAfterPasses(1);
    EXPECT_EQ(Lines({"", "A/", "AB/", "AB/s/"}), watched()) << "its neighbours stay";
}

// A folder renamed and then moved out of the tree before its events were
// read: its arrival found nothing to watch, and the watches of its old place
// stayed for good, naming what happened out there by paths in the tree.
TEST_F(FileChangeMonitorTest, AFolderMovedOnAndOutBeforeItsEventsAreReadLeavesNoWatchRegression) {
    mkdirs("A/s");
    start(false);
    fs::rename(data() + "/A", root() + "/A");
    fake_->queued.push_back(records(wd(), {{IN_MOVED_FROM | IN_ISDIR, "A", 7},
                                           {IN_MOVED_TO | IN_ISDIR, "B", 7},
                                           {IN_MOVED_FROM | IN_ISDIR, "B", 8}}));
    batchAfterPasses(1);
    EXPECT_EQ(Lines(1, ""), watched());
}

// A folder made and filled at once (mkdir N; mv A N/): N's watch came
// after A's arrival, which the kernel did not report, and A's rows stayed
// at its old path. So did they when A had left the tree and came back into
// a new folder. The walk of the new folder finds A's watch: its arrival is
// added beside its departure, once (regression).
TEST_F(FileChangeMonitorTest, AFolderMovedIntoAFolderMadeJustBeforeIsFollowedRegression) {
    mkdirs("A/s");
    mkdirs("B");
    start(false);
    mkdirs("N");
    fs::rename(data() + "/A", data() + "/N/A");
    const Lines movedIn = {"CREATE N/", "FROM A/ #7", "TO N/A/ #7"};
    EXPECT_EQ(movedIn, fold({{IN_CREATE | IN_ISDIR, "N"}, {IN_MOVED_FROM | IN_ISDIR, "A", 7}}));
    // Had the move come between N's watch and its listing, the kernel
    // reports the arrival too.
    const int n = fake_->wds.at(data() + "/N/");
    const auto onN = [&](const std::vector<Event>& events) {
        const std::string bytes = records(n, events);
        monitor_->handleEvents(bytes.data(), bytes.size());
        return describe(monitor_->changes());
    };
    EXPECT_EQ(movedIn, onN({{IN_MOVED_TO | IN_ISDIR, "A", 7}}));
    fs::rename(data() + "/B", root() + "/B");
    fold({{IN_MOVED_FROM | IN_ISDIR, "B", 8}});
    mkdirs("M");
    fs::rename(root() + "/B", data() + "/M/B");
    EXPECT_EQ(
        Lines({"CREATE N/", "FROM A/ #7", "TO N/A/ #7", "FROM B/ #8", "TO M/B/ #8", "CREATE M/"}),
        fold({{IN_CREATE | IN_ISDIR, "M"}}));
    EXPECT_EQ(Lines({"", "M/", "M/B/", "N/", "N/A/", "N/A/s/"}), watched());
    // One whose departure goes unread (lost) is forgotten at the quiet pass:
    // a later departure from its old path is another folder's.
    monitor_->runPass();
    mkdirs("P");
    fs::rename(data() + "/N/A", data() + "/P/A");
    fold({{IN_CREATE | IN_ISDIR, "P"}});
    monitor_->runPass();
    mkdirs("N/A");
    onN({{IN_CREATE | IN_ISDIR, "A"}});
    fs::rename(data() + "/N/A", data() + "/N/Z");
    EXPECT_EQ(Lines({"FROM N/A/ #9", "TO N/Z/ #9"}),
              onN({{IN_MOVED_FROM | IN_ISDIR, "A", 9}, {IN_MOVED_TO | IN_ISDIR, "Z", 9}}));
}

// The walk once held a folder open per level: a tree a few hundred levels
// deep took every descriptor the process may have, and went unwatched. It
// then went down by recursion: a chain of some hundred folders overflowed
// the 128 KiB stack a router gives a thread, and the daemon died at every
// start. Here the chain is deeper and the stack twice that.
TEST_F(FileChangeMonitorTest, ADeepTreeIsWalkedOneOpenFolderAtATimeOnASmallStackRegression) {
    const int levels = 1500;
    std::string deep;
    for (int level = 0; level < levels; ++level) {
        deep += "d/";
    }
    mkdirs(deep);
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const struct rlimit few = {quorvia_test::openDescriptors() + 100, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    boost::thread::attributes smallStack;
    smallStack.set_stack_size(256 * 1024);
    boost::thread walker(smallStack, [this] { start(false); });
    walker.join();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(levels + 1u, watched().size());
}

// A folder of 30,000 indexed files deleted at once overflowed the kernel's
// queue and left thousands of rows for good: the changes gathered are
// delivered, the tree is watched anew (a folder made meanwhile included) and
// the observer is told, once, to check the store against the disk.
TEST_F(FileChangeMonitorTest, AnOverflowedQueueRewatchesTheTreeAndSaysEventsWereLostRegression) {
    for (const char* dir : {"album/sub/deeper", "x", "y", "a/b"}) {
        mkdirs(dir);
    }
    start(false);
    // Made, renamed and swapped while the queue was overflowing: the renamed
    // folders once lost their rows to the check against the disk. A folder
    // renamed and its old name made anew, one renamed inside the renamed
    // one, two that swapped names, one moved up into its parent's old name.
    mkdirs("made/while/lost");
    const auto rename = [&](const std::string& from, const std::string& to) {
        fs::rename(data() + "/" + from, data() + "/" + to);
    };
    rename("album", "holiday");
    rename("holiday/sub", "holiday/under");
    mkdirs("album");
    rename("x", "swap");
    rename("y", "x");
    rename("swap", "y");
    rename("a", "d");
    rename("d/b", "a");
    fake_->queued.push_back(records(wd(), {{IN_DELETE, "gone.jpg"}}) +
                            records(-1, {{IN_Q_OVERFLOW, ""}}));
    EXPECT_EQ(Lines({"DELETE gone.jpg"}), batchAfterPasses(1));
    monitor_->runPass();
    EXPECT_EQ(std::vector<Lines>(1, Lines(1, data())), observer_->lost);
    Lines moves;
    for (const std::string& move : observer_->foundMoves) {
        moves.push_back(boost::replace_all_copy(move, data() + "/", ""));
    }
    EXPECT_EQ(Lines({"a/ > d/", "a/b/ > a/", "album/ > holiday/", "album/sub/ > holiday/under/",
                     "x/ > y/", "y/ > x/"}),
              moves);
    EXPECT_EQ(
        Lines({"", "a/", "album/", "d/", "holiday/", "holiday/under/", "holiday/under/deeper/",
               "made/", "made/while/", "made/while/lost/", "x/", "y/"}),
        watched());
}

// A start-up scan longer than a busy disk may go unsettled (a big disk) made
// the first batch overdue: a file's create went out at once, alone, and its
// write in a batch of its own (regression). So did a gate shut as long.
TEST_F(FileChangeMonitorTest, ALongStartUpScanStillLeavesTheFirstEventsTheirQuietSecondRegression) {
    fake_->beforeWatch = [&](const std::string&) {
        clock_->at += std::chrono::seconds(FileChangeMonitor::kMaxUnsettledSeconds);
    };
    start(false);
    fake_->queued.push_back(records(wd(), {{IN_CREATE, "f"}}));
    monitor_->runPass();
    fake_->queued.push_back(records(wd(), {{IN_CLOSE_WRITE, "f"}}));
    EXPECT_EQ(Lines({"MODIFY f"}), batchAfterPasses(1));
    monitor_->disableWatchEvent();
    clock_->at += std::chrono::seconds(FileChangeMonitor::kMaxUnsettledSeconds);
    monitor_->runPass();
    monitor_->enableWatchEvent();
    fake_->queued.push_back(records(wd(), {{IN_CREATE, "g"}}));
    monitor_->runPass();
    fake_->queued.push_back(records(wd(), {{IN_CLOSE_WRITE, "g"}}));
    EXPECT_EQ(Lines({"MODIFY g"}), batchAfterPasses(2));
}

// A data folder missing at start was also left among the refused folders,
// under its own spelling: the first batch after it came watched it again.
TEST_F(FileChangeMonitorTest, ARootMissingAtStartIsWatchedOnceItComesRegression) {
    monitor_.reset(new FileChangeMonitor(fake_, clock_));
    monitor_->init({data()});
    monitor_->registerObserver(observer_);
    ASSERT_TRUE(monitor_->beginNotify());
    mkdirs("");
    passUntil([&] { return !monitor_->watchedPaths().empty(); });
    fake_->queued.push_back(records(wd(), {{IN_CLOSE_WRITE, "f"}}));
    batchAfterPasses(1);
    EXPECT_EQ(1, log_.count("add inotify watch " + data() + "/"));
    EXPECT_EQ(0, log_.count("add inotify watch " + data())) << "again, by its own spelling";
}

// A data folder that refused its watch was tried, and logged, every second
// for ever.
TEST_F(FileChangeMonitorTest, ARootThatRefusesItsWatchIsTriedLessAndLessOftenRegression) {
    fake_->refuse[data() + "/"] = EACCES;
    start(false);
    for (int pass = 0; pass < 40; ++pass) {
        monitor_->runPass();
    }
    // At the start, then after quiet passes 1, 3, 6, 11, 20 and 37.
    EXPECT_EQ(7, log_.count("talvern inotify_add_watch error", google::GLOG_INFO));
    fake_->refuse.clear();
    passUntil([&] { return !monitor_->watchedPaths().empty(); });
    EXPECT_EQ(Lines(1, ""), watched());
}

// ---- The watch table with the real kernel ----

// The first scan skips links and filtered directories. The table then follows
// the tree: a subtree moved out reports nothing, churn leaves no stale watch,
// and the data folder deleted and made again is found on a quiet pass.
TEST_F(FileChangeMonitorTest, TableFollowsTheTreeThroughMovesChurnAndARemadeDataFolder) {
    for (const char* dir : {"old/sub/deeper", ".hidden/deep", "$RECYCLE.BIN/x", "timecapsule/a"}) {
        mkdirs(dir);
    }
    fs::create_symlink(data() + "/old", data() + "/old/sub/loop");
    fs::create_directories(root() + "/outside/tree/branch");
    writeFile("/userdisk/data/.DS_Store", "");
    // Folders dated past 2038 (a restored backup) went unwatched where time_t
    // has 32 bits (regression).
    ASSERT_EQ(0, shell("touch -d 2040-01-01 " + quorvia_test::quoted(data()) + " " +
                       quorvia_test::quoted(data() + "/old/sub/deeper")));
    start();
    ASSERT_EQ(Lines({"", "old/", "old/sub/", "old/sub/deeper/"}), watched());
    // Only folders are said to be filtered (every file of a name like theirs was).
    EXPECT_TRUE(log_.contains(".hidden is recycle or hidden directory"));
    EXPECT_FALSE(log_.contains(".DS_Store is recycle"));

    mkdirs("made/a/b");
    EXPECT_EQ(Lines({"CREATE made/"}), batchAfterPasses(1)) << "no items for what the scan found";
    EXPECT_EQ(Lines({"", "made/", "made/a/", "made/a/b/", "old/", "old/sub/", "old/sub/deeper/"}),
              watched());

    fs::rename(data() + "/old", data() + "/new");
    fs::remove(data() + "/made/a/b");
    EXPECT_EQ(Lines({"FROM old/", "TO new/", "DELETE made/a/b/"}), batchAfterPasses(2));
    EXPECT_EQ(Lines({"", "made/", "made/a/", "new/", "new/sub/", "new/sub/deeper/"}), watched());
    EXPECT_TRUE(log_.contains("Folder removed: " + data() + "/made/a/b/", google::GLOG_WARNING));

    // Out and back within one batch (a recycle bin's undo): still followed.
    fs::rename(data() + "/made", root() + "/outside/made");
    fs::rename(root() + "/outside/made", data() + "/made");
    batchAfterPasses(3);
    fs::rename(data() + "/new", root() + "/outside/new");
    fs::rename(root() + "/outside/tree", data() + "/tree");
    EXPECT_EQ(Lines({"FROM new/", "TO tree/"}), batchAfterPasses(4));
    writeFile("/outside/new/sub/file", "x");
    mkdirs("tree/branch/leaf");
    EXPECT_EQ(Lines({"CREATE tree/branch/leaf/"}), batchAfterPasses(5));

    for (int i = 0; i < 50; ++i) {
        mkdirs("churn" + std::to_string(i) + "/inner");
        fs::remove_all(data() + "/churn" + std::to_string(i));
    }
    batchAfterPasses(6);
    EXPECT_EQ(Lines({"", "made/", "made/a/", "tree/", "tree/branch/", "tree/branch/leaf/"}),
              watched());

    // Two folders swapped through a third name, then a file removed in one
    // of them, in one batch: the swap once took down the watch that the
    // removal's event came on.
    writeFile("/userdisk/data/made/f", "x");
    batchAfterPasses(7);
    fs::rename(data() + "/made", data() + "/t");
    fs::rename(data() + "/tree", data() + "/made");
    fs::rename(data() + "/t", data() + "/tree");
    fs::remove(data() + "/tree/f");
    EXPECT_EQ("DELETE tree/f", batchAfterPasses(8).back());

    fs::remove_all(data());
    batchAfterPasses(9);
    EXPECT_TRUE(monitor_->watchedPaths().empty());
    mkdirs("b");
    passUntil([&] { return monitor_->watchedPaths().size() == 2; });
    EXPECT_EQ(Lines({"", "b/"}), watched());
    writeFile("/userdisk/data/b/g.jpg", "x");
    EXPECT_EQ(Lines({"MODIFY b/g.jpg"}), batchAfterPasses(10));

    // Moved aside and made anew: the kernel's watches follow the old folder,
    // which its identity gives away; they all go, the root's included.
    fs::rename(data(), root() + "/aside");
    mkdirs("c");
    passUntil([&] { return monitor_->watchedPaths() == Lines({data() + "/", data() + "/c/"}); });
    EXPECT_EQ(Lines({"", "c/"}), watched());
}

}  // namespace
