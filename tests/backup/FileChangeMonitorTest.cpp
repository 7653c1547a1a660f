#include "backup/inotify/FileChangeMonitor.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/inotify.h>

#include <boost/chrono.hpp>
#include <boost/filesystem.hpp>
#include <deque>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "backup/MonitorTestSupport.h"
#include "backup/inotify/InotifyKernel.h"
#include "support/DeviceRootTest.h"

namespace fs = boost::filesystem;

namespace {

using monitor_test::RecordingObserver;

typedef std::vector<std::string> Lines;

// A kernel that places watches in a table of its own, refuses the paths it is
// told to refuse, and never has events to read.
class FakeKernel : public InotifyKernel {
public:
    FakeKernel() : initErrno(0), nextWd(0) {}
    virtual int init() {
        errno = initErrno;
        return initErrno != 0 ? -1 : 1000;
    }
    virtual int addWatch(int, const std::string& path, uint32_t) {
        if (refuse.count(path) != 0) {
            errno = refuse[path];
            return -1;
        }
        int& wd = wds[path];
        return wd != 0 ? wd : (wd = ++nextWd);
    }
    virtual int removeWatch(int, int) { return 0; }
    virtual int waitReadable(int, int) { return queued.empty() ? 0 : 1; }
    virtual ssize_t read(int, char* buffer, std::size_t size) {
        if (queued.empty() || queued.front().size() > size) {
            errno = EAGAIN;
            return -1;
        }
        const std::string bytes = queued.front();
        queued.pop_front();
        memcpy(buffer, bytes.data(), bytes.size());
        return static_cast<ssize_t>(bytes.size());
    }
    virtual void close(int) {}

    int initErrno;
    std::deque<std::string> queued;     // what read() hands out, one per call
    std::map<std::string, int> refuse;  // path with "/" -> errno
    std::map<std::string, int> wds;
    int nextWd;
};

struct Event {
    Event(uint32_t m, const std::string& n, uint32_t c = 0) : mask(m), name(n), cookie(c) {}
    uint32_t mask;
    std::string name;
    uint32_t cookie;
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

class FileChangeMonitorTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        fs::create_directories(data_);
        observer_.reset(new RecordingObserver);
        fake_.reset(new FakeKernel);
    }

    // A monitor on the data folder with the real kernel, or the fake one.
    void start(bool realKernel = true) {
        monitor_.reset(realKernel ? new FileChangeMonitor() : new FileChangeMonitor(fake_));
        monitor_->init(std::vector<std::string>(1, data_));
        monitor_->registerObserver(observer_);
        ASSERT_TRUE(monitor_->beginNotify());
    }

    // Hands events on the data folder's watch to the monitor; what it holds after.
    Lines fold(const std::vector<Event>& events, bool cookies = true) {
        const std::string bytes = records(fake_->wds[data_ + "/"], events);
        monitor_->handleEvents(bytes.data(), bytes.size());
        return describe(monitor_->changes(), cookies);
    }

    void mkdirs(const std::string& below) { fs::create_directories(data_ + "/" + below); }

    void write(const std::string& below, const std::string& content = "x") {
        std::ofstream out((data_ + "/" + below).c_str());
        out << content;
    }

    // Watched paths relative to the data folder ("" is the folder itself).
    Lines watched() {
        Lines all = monitor_->watchedPaths(), relative;
        for (const std::string& path : all) {
            EXPECT_EQ(0u, path.find(data_ + "/")) << path;
            relative.push_back(path.substr(data_.size() + 1));
        }
        EXPECT_EQ(all.size(), monitor_->pathIndexSize()) << "the two tables mirror each other";
        return relative;
    }

    // "MASK path-below-data [#cookie] [after HALF#cookie...]" lines; a
    // directory's path ends in "/".
    Lines describe(const std::vector<FileChangeItem>& items, bool cookies) {
        Lines lines;
        for (const FileChangeItem& item : items) {
            EXPECT_EQ(item.isDir, item.path.back() == '/') << item.path;
            std::string line = FileChangeMonitor::convertWatchMaskToString(item.mask).substr(8) +
                               " " + item.path.substr(data_.size() + 1);
            if (cookies && item.cookie) {
                line += " #" + std::to_string(item.cookie);
            }
            for (std::size_t i = 0; cookies && i < item.earlierMoves.size(); ++i) {
                line += (i == 0 ? " after " : " ") +
                        FileChangeMonitor::convertWatchMaskToString(item.earlierMoves[i].mask)
                            .substr(8) +
                        "#" + std::to_string(item.earlierMoves[i].cookie);
            }
            lines.push_back(line);
        }
        return lines;
    }

    // Runs passes of the loop until the observer holds `batches` batches or
    // the bounded wait is over; the last batch.
    Lines batchAfterPasses(std::size_t batches) {
        const boost::chrono::steady_clock::time_point deadline =
            boost::chrono::steady_clock::now() + boost::chrono::seconds(10);
        while (observer_->batches.size() < batches &&
               boost::chrono::steady_clock::now() < deadline) {
            monitor_->runPass();
        }
        EXPECT_EQ(batches, observer_->batches.size());
        return observer_->batches.empty() ? Lines() : describe(observer_->batches.back(), false);
    }

    std::string data_;
    boost::shared_ptr<RecordingObserver> observer_;
    boost::shared_ptr<FakeKernel> fake_;
    boost::shared_ptr<FileChangeMonitor> monitor_;
};

TEST(FileChangeMaskTest, KernelMasksMapInTableOrder) {
    struct Row {
        uint32_t mask;
        WatchMask expected;
    } rows[] = {{IN_MOVED_FROM | IN_MOVED_TO, TALVERN_FROM}, {IN_MOVED_TO | IN_ISDIR, TALVERN_TO},
                {IN_MOVE_SELF, TALVERN_DELETE}, {IN_CLOSE_WRITE | IN_DELETE, TALVERN_MODIFY},
                {IN_ATTRIB, TALVERN_CREATE}, {IN_IGNORED, static_cast<WatchMask>(0)}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.expected, FileChangeMonitor::inotifyMaskTransfer(row.mask)) << row.mask;
    }
    // Log lines print the name; a value outside the enum must not read past the names.
    EXPECT_EQ("TALVERN_TO", FileChangeMonitor::convertWatchMaskToString(TALVERN_TO));
    EXPECT_EQ("", FileChangeMonitor::convertWatchMaskToString(static_cast<WatchMask>(9)));
}

// ---- Folding of kernel records, through the fake kernel ----

TEST_F(FileChangeMonitorTest, EventSequencesFoldIntoTheirItems) {
    const uint32_t D = IN_ISDIR;
    struct Case {
        const char* title;
        std::vector<Event> events;
        Lines items;
    } cases[] = {
        {"created then written", {{IN_CREATE, "f"}, {IN_CLOSE_WRITE, "f"}}, {"MODIFY f"}},
        {"created then deleted", {{IN_CREATE, "f"}, {IN_DELETE, "f"}}, {"DELETE f"}},
        {"moved in then out",
         {{IN_MOVED_TO, "f", 7}, {IN_MOVED_FROM, "f", 8}},
         {"FROM f #8 after TO#7"}},
        {"rename", {{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}}, {"FROM a #1", "TO b #1"}},
        {"rename onto a path seen earlier",
         {{IN_CLOSE_WRITE, "b"}, {IN_MOVED_FROM, "a", 2}, {IN_MOVED_TO, "b", 2}},
         {"TO b #2", "FROM a #2"}},
        {"moved away and back",
         {{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}, {IN_MOVED_FROM, "b", 2},
          {IN_MOVED_TO, "a", 2}},
         {"TO a #2 after FROM#1", "FROM b #2 after TO#1"}},
        // A file renamed and then written, deleted or renamed again within the
        // quiet second lost its move: its row stayed at the old name.
        {"written after a move keeps the move, regression",
         {{IN_MOVED_TO, "f", 3}, {IN_CLOSE_WRITE, "f"}},
         {"MODIFY f after TO#3"}},
        {"deleted after a move keeps the move, regression",
         {{IN_MOVED_FROM, "a", 5}, {IN_MOVED_TO, "b", 5}, {IN_DELETE, "b"}},
         {"FROM a #5", "DELETE b after TO#5"}},
        {"renamed twice keeps both moves, regression",
         {{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}, {IN_MOVED_FROM, "b", 2},
          {IN_MOVED_TO, "c", 2}},
         {"FROM a #1", "FROM b #2 after TO#1", "TO c #2"}},
        {"directory created and deleted", {{IN_CREATE | D, "gone"}, {IN_DELETE | D, "gone"}},
         {"DELETE gone/"}},
        {"hidden directory dropped, hidden file kept",
         {{IN_CREATE | D, ".cache"}, {IN_CREATE, ".profile"}}, {"CREATE .profile"}},
        {"recycle bin dropped", {{IN_MOVED_TO | D, "$RECYCLE.BIN", 4}}, {}},
        {"kernel bookkeeping dropped",
         {{IN_IGNORED, ""}, {IN_DELETE_SELF | D, ""}, {IN_Q_OVERFLOW, ""}, {IN_UNMOUNT, ""}}, {}},
        {"odd names kept byte for byte",
         {{IN_CREATE, "new\nline"}, {IN_CREATE, "bad\xff\xfe"}, {IN_CREATE, std::string(255, 'n')}},
         {"CREATE new\nline", "CREATE bad\xff\xfe", "CREATE " + std::string(255, 'n')}},
    };
    start(false);
    for (const Case& c : cases) {
        EXPECT_EQ(c.items, fold(c.events)) << c.title;
        // Deliver and clear, as quiet passes do.
        monitor_->runPass();
        monitor_->runPass();
        ASSERT_TRUE(monitor_->changes().empty()) << c.title;
    }
}

TEST_F(FileChangeMonitorTest, UnknownDescriptorsTruncatedRecordsAndExcludedFoldersGiveNothing) {
    start(false);
    const std::string bytes = records(99, {{IN_CLOSE_WRITE, "stranger"}}) +
                              records(fake_->wds[data_ + "/"],
                                      {{IN_CLOSE_WRITE, "kept"}, {IN_CLOSE_WRITE, "cut off"}});
    monitor_->handleEvents(bytes.data(), bytes.size() - 3);
    EXPECT_EQ(Lines{"MODIFY kept"}, describe(monitor_->changes(), false));

    // The filter of excluded folders: names below an excluded prefix, empty
    // names and unknown descriptors are filtered; the rest is kept.
    monitor_->setExcludeFolderPath({data_ + "/skip", data_ + "/.sys/"});
    const int wd = fake_->wds[data_ + "/"];
    const struct {
        int wd;
        uint32_t mask;
        const char* name;
        bool filtered;
    } cases[] = {{wd, IN_CREATE, "skip.jpg", true},     {wd, IN_CREATE | IN_ISDIR, ".sys", true},
                 {wd, IN_CREATE, ".sys", false},         {wd, IN_CREATE, "keep.jpg", false},
                 {wd, IN_CREATE, "", true},              {99, IN_CREATE, "keep.jpg", true}};
    for (const auto& c : cases) {
        std::string record = records(c.wd, {{c.mask, c.name}});
        EXPECT_EQ(c.filtered,
                  monitor_->FilterExcludeFileAndPath(reinterpret_cast<inotify_event*>(&record[0])))
            << c.name;
    }
}

class ThrowingObserver : public IFileChangeMonitorObserver {
public:
    virtual void update(std::vector<FileChangeItem>*, MonitorType) {
        throw std::runtime_error("observer failed");
    }
};

// A quiet pass delivers a non-empty list once, unless the gate is shut, and
// clears it on the pass after; an observer that throws ends nothing.
TEST_F(FileChangeMonitorTest, QuietPassDeliversOnceWhenTheGateIsOpen) {
    start(false);
    monitor_->runPass();
    EXPECT_TRUE(observer_->batches.empty()) << "an empty list is never delivered";
    fold({{IN_CLOSE_WRITE, "a.jpg"}});
    monitor_->disableWatchEvent();
    monitor_->runPass();
    monitor_->disableWatchEventThreeSec();
    monitor_->runPass();
    EXPECT_TRUE(observer_->batches.empty());
    monitor_->enableWatchEvent();
    monitor_->runPass();
    ASSERT_EQ(1u, observer_->batches.size());
    EXPECT_EQ(MONITOR_TYPE_INOTIFY, observer_->types[0]);
    EXPECT_EQ(1u, monitor_->changes().size()) << "the batch stays until the next pass";
    EXPECT_TRUE(log_.contains("change path is " + data_ +
                              "/a.jpg ,mask is TALVERN_MODIFY ,is dir : 0"));
    monitor_->runPass();
    EXPECT_EQ(1u, observer_->batches.size());
    EXPECT_TRUE(monitor_->changes().empty());

    monitor_->registerObserver(
        boost::shared_ptr<IFileChangeMonitorObserver>(new ThrowingObserver));
    fold({{IN_CLOSE_WRITE, "b.jpg"}});
    monitor_->runPass();
    EXPECT_TRUE(log_.contains("observer failed", google::GLOG_ERROR));
    monitor_->runPass();
    EXPECT_TRUE(monitor_->changes().empty());
}

// ---- The watch table, with the kernel's refusals simulated ----

TEST_F(FileChangeMonitorTest, KernelRefusalsAreNamedAndRefusedDirectoriesRetried) {
    mkdirs("a/b");
    mkdirs("locked");
    fake_->refuse[data_ + "/a/"] = ENOSPC;
    fake_->refuse[data_ + "/x/"] = ENOSPC;
    fake_->refuse[data_ + "/locked/"] = EACCES;
    start(false);
    mkdirs("x");
    monitor_->scanAndAddWatchDiskDirRecursive(data_ + "/x");
    EXPECT_EQ(3, log_.count("talvern inotify_add_watch error", google::GLOG_INFO));
    EXPECT_EQ(1, log_.count("inotify watch limit reached: raise fs.inotify.max_user_watches to "
                            "follow every folder of the disk",
                            google::GLOG_WARNING));
    EXPECT_EQ(1, monitor_->delayedDirs()[data_ + "/a"]);
    EXPECT_EQ(Lines(1, ""), watched()) << "nothing below a refused directory is visited";

    // Refused for ten retries, then forgotten without a word.
    for (int pass = 1; pass <= FileChangeMonitor::kMaxWatchRetries; ++pass) {
        if (pass == 5) {
            fake_->refuse.erase(data_ + "/x/");
        }
        monitor_->delayAddWatchDiskDir();
        EXPECT_EQ(pass + 1, monitor_->delayedDirs()[data_ + "/a"]);
    }
    EXPECT_EQ(0u, monitor_->delayedDirs().count(data_ + "/x")) << "x got its watch";
    monitor_->delayAddWatchDiskDir();
    EXPECT_TRUE(monitor_->delayedDirs().empty());
    EXPECT_EQ(Lines({"", "x/"}), watched());

    // A directory gone before its watch was placed joins the retries.
    EXPECT_EQ(Lines{"CREATE flash/"}, fold({{IN_CREATE | IN_ISDIR, "flash"}}));
    EXPECT_EQ(1, monitor_->delayedDirs()[data_ + "/flash/"]);

    // Without inotify at all the disk is not followed, and the reason said.
    fake_->initErrno = EMFILE;
    FileChangeMonitor without(fake_);
    without.init(std::vector<std::string>(1, data_));
    EXPECT_FALSE(without.beginNotify());
    EXPECT_TRUE(log_.contains("The disk is not being followed: inotify_init failed: " +
                                  std::string(strerror(EMFILE)),
                              google::GLOG_ERROR));
    EXPECT_TRUE(without.watchedPaths().empty());
}

// A copy that never left a quiet second kept every path in the list until
// it ended (200,000 files cost 49 MB): the list is delivered in slices.
TEST_F(FileChangeMonitorTest, EndlessEventsAreDeliveredInSlicesRegression) {
    start(false);
    const int files = 25000, perRead = 1000;
    for (int first = 0; first < files; first += perRead) {
        std::vector<Event> events;
        for (int i = first; i < first + perRead; ++i) {
            events.push_back(Event(IN_CREATE, "f" + std::to_string(i)));
        }
        fake_->queued.push_back(records(fake_->wds[data_ + "/"], events));
    }
    std::size_t delivered = 0;
    for (int pass = 0; pass < 10; ++pass) {
        monitor_->runPass();
    }
    for (const std::vector<FileChangeItem>& batch : observer_->batches) {
        EXPECT_LE(batch.size(), FileChangeMonitor::kMaxBatchItems);
        delivered += batch.size();
    }
    EXPECT_EQ(3u, observer_->batches.size());
    EXPECT_EQ(static_cast<std::size_t>(files), delivered);
}

// A folder of 30,000 indexed files deleted at once overflowed the kernel's
// queue and left thousands of rows for good: the changes gathered are
// delivered, the tree is watched anew (a folder made meanwhile included) and
// the observer is told to check the store against the disk.
TEST_F(FileChangeMonitorTest, AnOverflowedQueueRewatchesTheTreeAndSaysEventsWereLostRegression) {
    start(false);
    mkdirs("made/while/lost");
    fake_->queued.push_back(records(fake_->wds[data_ + "/"], {{IN_DELETE, "gone.jpg"}}) +
                            records(-1, {{IN_Q_OVERFLOW, ""}}));
    monitor_->runPass();
    monitor_->runPass();
    ASSERT_EQ(1u, observer_->batches.size());
    EXPECT_EQ(Lines({"DELETE gone.jpg"}), describe(observer_->batches[0], false));
    ASSERT_EQ(1u, observer_->lost.size());
    EXPECT_EQ(std::vector<std::string>(1, data_), observer_->lost[0]);
    EXPECT_EQ(Lines({"", "made/", "made/while/", "made/while/lost/"}), watched());
    EXPECT_TRUE(log_.contains("inotify dropped events", google::GLOG_WARNING));
    monitor_->runPass();
    EXPECT_EQ(1u, observer_->lost.size()) << "told once per overflow";
}

// A data folder that refused its watch was tried, and logged, every second
// for ever.
TEST_F(FileChangeMonitorTest, ARootThatRefusesItsWatchIsTriedLessAndLessOftenRegression) {
    fake_->refuse[data_ + "/"] = EACCES;
    start(false);
    for (int pass = 0; pass < 40; ++pass) {
        monitor_->runPass();
    }
    // At the start, then after quiet passes 1, 3, 6, 11, 20 and 37.
    EXPECT_EQ(7, log_.count("talvern inotify_add_watch error", google::GLOG_INFO));
    fake_->refuse.clear();
    for (int pass = 0; pass < 64 && monitor_->watchedPaths().empty(); ++pass) {
        monitor_->runPass();
    }
    EXPECT_EQ(Lines(1, ""), watched());
}

// ---- The watch table with the real kernel ----

// The first scan skips links and filtered directories; the table then
// follows the tree.
TEST_F(FileChangeMonitorTest, TableFollowsMkdirRmdirRenameAndSubtreeMoves) {
    mkdirs("old/sub/deeper");
    mkdirs(".hidden/deep");
    mkdirs("$RECYCLE.BIN/x");
    mkdirs("timecapsule/backup");
    fs::create_symlink(data_ + "/old", data_ + "/old/sub/loop");
    fs::create_directories(root() + "/outside/tree/branch");
    start();
    ASSERT_EQ(Lines({"", "old/", "old/sub/", "old/sub/deeper/"}), watched());
    EXPECT_EQ(1, log_.count("add inotify watch " + data_)) << "the root as given, no slash";

    mkdirs("made/a/b");
    EXPECT_EQ(Lines({"CREATE made/"}), batchAfterPasses(1)) << "no items for what the scan found";
    EXPECT_EQ(Lines({"", "made/", "made/a/", "made/a/b/", "old/", "old/sub/", "old/sub/deeper/"}),
              watched());

    fs::rename(data_ + "/old", data_ + "/new");
    fs::remove(data_ + "/made/a/b");
    EXPECT_EQ(Lines({"FROM old/", "TO new/", "DELETE made/a/b/"}), batchAfterPasses(2));
    EXPECT_EQ(Lines({"", "made/", "made/a/", "new/", "new/sub/", "new/sub/deeper/"}), watched());

    fs::rename(data_ + "/new", root() + "/outside/new");
    fs::rename(root() + "/outside/tree", data_ + "/tree");
    EXPECT_EQ(Lines({"FROM new/", "TO tree/"}), batchAfterPasses(3));
    EXPECT_EQ(Lines({"", "made/", "made/a/", "tree/", "tree/branch/"}), watched());

    // Events in the subtree that left the tree reach nobody.
    write("../../outside/new/sub/file");
    mkdirs("tree/branch/leaf");
    EXPECT_EQ(Lines({"CREATE tree/branch/leaf/"}), batchAfterPasses(4));
}

// Churn of directories leaves no stale watch; the data folder deleted and
// made again is found on a quiet pass, and its changes count again.
TEST_F(FileChangeMonitorTest, ChurnLeavesNoStaleWatchAndARemadeDataFolderIsFollowed) {
    mkdirs("a");
    write("a/f.jpg");
    start();
    for (int i = 0; i < 50; ++i) {
        mkdirs("churn" + std::to_string(i) + "/inner");
        fs::remove_all(data_ + "/churn" + std::to_string(i));
    }
    batchAfterPasses(1);
    // A second batch retries whatever was filed meanwhile.
    write("a/f.jpg", "again");
    EXPECT_EQ(Lines({"MODIFY a/f.jpg"}), batchAfterPasses(2));
    EXPECT_EQ(Lines({"", "a/"}), watched());

    fs::remove_all(data_);
    EXPECT_EQ(Lines({"DELETE a/f.jpg", "DELETE a/"}), batchAfterPasses(3));
    EXPECT_TRUE(monitor_->watchedPaths().empty());
    mkdirs("b");
    const boost::chrono::steady_clock::time_point deadline =
        boost::chrono::steady_clock::now() + boost::chrono::seconds(10);
    while (monitor_->watchedPaths().size() < 2 && boost::chrono::steady_clock::now() < deadline) {
        monitor_->runPass();
    }
    EXPECT_EQ(Lines({"", "b/"}), watched());
    write("b/g.jpg");
    EXPECT_EQ(Lines({"MODIFY b/g.jpg"}), batchAfterPasses(4));
}

}  // namespace
