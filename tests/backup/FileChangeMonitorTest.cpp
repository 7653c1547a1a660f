#include "backup/inotify/FileChangeMonitor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>
#include <vector>

#include "backup/MonitorTestSupport.h"
#include "support/DeviceRootTest.h"

namespace fs = boost::filesystem;

namespace {

using monitor_test::EventBuffer;
using monitor_test::FakeKernel;
using monitor_test::RecordingObserver;
using monitor_test::runUntilBatch;

class FileChangeMonitorTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        fs::create_directories(data_);
        observer_.reset(new RecordingObserver);
    }

    // A monitor on the data folder with the real kernel (or the given one).
    void start(boost::shared_ptr<InotifyKernel> kernel = boost::shared_ptr<InotifyKernel>()) {
        monitor_.reset(kernel ? new FileChangeMonitor(kernel) : new FileChangeMonitor());
        monitor_->init(std::vector<std::string>(1, data_));
        monitor_->registerObserver(observer_);
        ASSERT_TRUE(monitor_->beginNotify());
    }

    void mkdirs(const std::string& below) { fs::create_directories(data_ + "/" + below); }

    void write(const std::string& below, const std::string& content = "x") {
        std::ofstream out((data_ + "/" + below).c_str());
        out << content;
    }

    // Watched paths relative to the data folder ("" is the folder itself).
    std::vector<std::string> watched() {
        std::vector<std::string> all = monitor_->watchedPaths();
        std::vector<std::string> relative;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(0u, all[i].find(data_ + "/")) << all[i];
            relative.push_back(all[i].substr(data_.size() + 1));
        }
        EXPECT_EQ(all.size(), monitor_->pathIndexSize()) << "the two tables mirror each other";
        return relative;
    }

    // The last batch as "MASK path-below-data" lines.
    std::vector<std::string> lastBatch() {
        std::vector<std::string> lines;
        if (observer_->batches.empty()) {
            return lines;
        }
        const std::vector<FileChangeItem>& batch = observer_->batches.back();
        for (std::size_t i = 0; i < batch.size(); ++i) {
            lines.push_back(FileChangeMonitor::convertWatchMaskToString(batch[i].mask).substr(8) +
                            " " + batch[i].path.substr(data_.size() + 1));
        }
        return lines;
    }

    std::string data_;
    boost::shared_ptr<RecordingObserver> observer_;
    boost::shared_ptr<FileChangeMonitor> monitor_;
};

typedef std::vector<std::string> Lines;

// ---- The watch table, with the kernel's refusals simulated ----

TEST_F(FileChangeMonitorTest, WatchLimitIsNamedOnceAndTheDirectoryRetried) {
    mkdirs("a/b");
    mkdirs("locked");
    boost::shared_ptr<FakeKernel> kernel(new FakeKernel);
    kernel->refuse[data_ + "/a/"] = ENOSPC;
    kernel->refuse[data_ + "/x/"] = ENOSPC;
    kernel->refuse[data_ + "/locked/"] = EACCES;
    start(kernel);
    mkdirs("x");
    monitor_->scanAndAddWatchDiskDirRecursive(data_ + "/x");
    EXPECT_EQ(3, log_.count("talvern inotify_add_watch error", google::GLOG_INFO));
    EXPECT_EQ(1, log_.count("inotify watch limit reached: raise fs.inotify.max_user_watches to "
                            "follow every folder of the disk",
                            google::GLOG_WARNING));
    std::map<std::string, int> delayed = monitor_->delayedDirs();
    EXPECT_EQ(1, delayed[data_ + "/a"]);
    EXPECT_EQ(Lines(1, ""), watched()) << "nothing below a refused directory is visited";

    // Refused for ten retries, then forgotten without a word.
    for (int pass = 1; pass <= FileChangeMonitor::kMaxWatchRetries; ++pass) {
        if (pass == 5) {
            kernel->refuse.erase(data_ + "/x/");
        }
        monitor_->delayAddWatchDiskDir();
        EXPECT_EQ(pass + 1, monitor_->delayedDirs()[data_ + "/a"]);
    }
    EXPECT_EQ(0u, monitor_->delayedDirs().count(data_ + "/x")) << "x got its watch";
    monitor_->delayAddWatchDiskDir();
    EXPECT_TRUE(monitor_->delayedDirs().empty());
    EXPECT_EQ(Lines({"", "x/"}), watched());
}

TEST_F(FileChangeMonitorTest, MissingInotifyIsReportedAndNothingRuns) {
    boost::shared_ptr<FakeKernel> kernel(new FakeKernel);
    kernel->initErrno = EMFILE;
    FileChangeMonitor monitor(kernel);
    monitor.init(std::vector<std::string>(1, data_));
    EXPECT_FALSE(monitor.beginNotify());
    EXPECT_TRUE(log_.contains("The disk is not being followed: inotify_init failed: " +
                                  std::string(strerror(EMFILE)),
                              google::GLOG_ERROR));
    EXPECT_TRUE(monitor.watchedPaths().empty());
}

TEST_F(FileChangeMonitorTest, DirectoryVanishingBeforeItsWatchGoesToRetries) {
    boost::shared_ptr<FakeKernel> kernel(new FakeKernel);
    start(kernel);
    EventBuffer buffer;
    buffer.add(kernel->wds[data_ + "/"], IN_CREATE | IN_ISDIR, "flash");
    monitor_->handleEvents(buffer.data(), buffer.size());
    EXPECT_EQ(1, monitor_->delayedDirs()[data_ + "/flash/"]);
    ASSERT_EQ(1u, monitor_->changes().size());
    EXPECT_EQ(data_ + "/flash/", monitor_->changes()[0].path);
}

// ---- The watch table with the real kernel ----

TEST_F(FileChangeMonitorTest, FirstScanSkipsLinksAndFilteredDirectories) {
    mkdirs("Photos/2024/summer");
    mkdirs(".hidden/deep");
    mkdirs("$RECYCLE.BIN/x");
    mkdirs("timecapsule/backup");
    mkdirs("Music");
    fs::create_symlink(data_ + "/Photos", data_ + "/Music/link");
    fs::create_symlink(data_ + "/Music", data_ + "/Music/loop");
    start();
    EXPECT_EQ(Lines({"", "Music/", "Photos/", "Photos/2024/", "Photos/2024/summer/"}), watched());
    EXPECT_EQ(1, log_.count("add inotify watch " + data_)) << "the root as given, no slash";
}

TEST_F(FileChangeMonitorTest, TableFollowsMkdirRmdirRenameAndSubtreeMoves) {
    mkdirs("old/sub/deeper");
    fs::create_directories(root() + "/outside/tree/branch");
    start();
    ASSERT_EQ(Lines({"", "old/", "old/sub/", "old/sub/deeper/"}), watched());

    mkdirs("made/a/b");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 1));
    EXPECT_EQ(Lines({"CREATE made/"}), lastBatch()) << "no items for what the scan found";
    EXPECT_EQ(Lines({"", "made/", "made/a/", "made/a/b/", "old/", "old/sub/", "old/sub/deeper/"}),
              watched());

    fs::rename(data_ + "/old", data_ + "/new");
    fs::remove(data_ + "/made/a/b");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 2));
    EXPECT_EQ(Lines({"FROM old/", "TO new/", "DELETE made/a/b/"}), lastBatch());
    EXPECT_EQ(Lines({"", "made/", "made/a/", "new/", "new/sub/", "new/sub/deeper/"}), watched());

    fs::rename(data_ + "/new", root() + "/outside/new");
    fs::rename(root() + "/outside/tree", data_ + "/tree");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 3));
    EXPECT_EQ(Lines({"FROM new/", "TO tree/"}), lastBatch());
    EXPECT_EQ(Lines({"", "made/", "made/a/", "tree/", "tree/branch/"}), watched());

    // Events in the subtree that left the tree reach nobody.
    write("../../outside/new/sub/file");
    mkdirs("tree/branch/leaf");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 4));
    EXPECT_EQ(Lines({"CREATE tree/branch/leaf/"}), lastBatch());
}

TEST_F(FileChangeMonitorTest, RealFileOperationsArriveAsOneBatchAfterTheQuietSecond) {
    mkdirs("album");
    write("album/keep.jpg");
    write("album/old.jpg");
    write("album/gone.png");
    start();
    write("album/new.jpg", "content");
    fs::rename(data_ + "/album/old.jpg", data_ + "/album/renamed.jpg");
    fs::remove(data_ + "/album/gone.png");
    write("album/keep.jpg", "again");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 1));
    EXPECT_EQ(Lines({"MODIFY album/new.jpg", "FROM album/old.jpg", "TO album/renamed.jpg",
                     "DELETE album/gone.png", "MODIFY album/keep.jpg"}),
              lastBatch());
    const std::vector<FileChangeItem>& batch = observer_->batches.back();
    EXPECT_NE(0u, batch[1].cookie);
    EXPECT_EQ(batch[1].cookie, batch[2].cookie) << "both halves carry the kernel's cookie";
    EXPECT_EQ(0u, batch[0].cookie);
}

TEST_F(FileChangeMonitorTest, OddNamesAndDeepChainsAreWatchedAndReportedByteForByte) {
    std::string chain;
    for (int i = 0; i < 200; ++i) {
        chain += "d/";
    }
    const std::string names[] = {"new\nline", "qu\"o'te", "bad\xff\xfe", std::string(255, 'd'),
                                 chain};
    for (const std::string& name : names) {
        mkdirs(name);
    }
    start();
    EXPECT_EQ(205u, watched().size());
    Lines expected;
    for (const std::string& name : names) {
        write(name + "/f.jpg");
        expected.push_back("MODIFY " + name + (name == chain ? "" : "/") + "f.jpg");
    }
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 1));
    EXPECT_EQ(expected, lastBatch());
}

TEST_F(FileChangeMonitorTest, DataFolderDeletedAndMadeAgainIsFollowedAgain) {
    mkdirs("a");
    write("a/f.jpg");
    start();
    fs::remove_all(data_);
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 1));
    EXPECT_EQ(Lines({"DELETE a/f.jpg", "DELETE a/"}), lastBatch());
    EXPECT_TRUE(monitor_->watchedPaths().empty());
    mkdirs("b");
    // The folder is found again on a quiet pass; changes after that count.
    const boost::chrono::steady_clock::time_point deadline =
        boost::chrono::steady_clock::now() + boost::chrono::seconds(10);
    while (monitor_->watchedPaths().size() < 2 && boost::chrono::steady_clock::now() < deadline) {
        monitor_->runPass();
    }
    EXPECT_EQ(Lines({"", "b/"}), watched());
    write("b/g.jpg");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 2));
    EXPECT_EQ(Lines({"MODIFY b/g.jpg"}), lastBatch());
}

TEST_F(FileChangeMonitorTest, ChurnOfDirectoriesLeavesNoStaleWatch) {
    start();
    for (int i = 0; i < 50; ++i) {
        const std::string name = "churn" + std::to_string(i);
        mkdirs(name + "/inner");
        fs::remove_all(data_ + "/" + name);
    }
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 1));
    // Give a second batch a chance to retry whatever was filed meanwhile.
    write("poke");
    ASSERT_TRUE(runUntilBatch(*monitor_, *observer_, 2));
    EXPECT_EQ(Lines(1, ""), watched());
}

}  // namespace
