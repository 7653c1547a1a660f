#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "backup/MonitorTestSupport.h"
#include "backup/inotify/FileChangeMonitor.h"
#include "support/DeviceRootTest.h"

namespace {

using monitor_test::EventBuffer;
using monitor_test::FakeKernel;
using monitor_test::RecordingObserver;

struct Event {
    uint32_t mask;
    std::string name;
    uint32_t cookie;
};

struct Item {
    std::string name;  // below the root
    WatchMask mask;
    bool isDir;
    uint32_t cookie;
};

struct FoldingCase {
    const char* title;
    std::vector<Event> events;
    std::vector<Item> items;
};

// A monitor on a real (empty) root, watched through the fake kernel, fed
// with records as read() would return them.
class FileChangeFoldingTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        dataRoot_ = path("/userdisk/data");
        boost::filesystem::create_directories(dataRoot_);
        kernel_.reset(new FakeKernel);
        monitor_.reset(new FileChangeMonitor(kernel_));
        monitor_->init(std::vector<std::string>(1, dataRoot_));
        ASSERT_TRUE(monitor_->beginNotify());
        rootWd_ = kernel_->wds[dataRoot_ + "/"];
        ASSERT_NE(0, rootWd_);
    }

    std::vector<FileChangeItem> fold(const std::vector<Event>& events) {
        EventBuffer buffer;
        for (std::size_t i = 0; i < events.size(); ++i) {
            buffer.add(rootWd_, events[i].mask, events[i].name, events[i].cookie);
        }
        monitor_->handleEvents(buffer.data(), buffer.size());
        return monitor_->changes();
    }

    std::string dataRoot_;
    boost::shared_ptr<FakeKernel> kernel_;
    boost::shared_ptr<FileChangeMonitor> monitor_;
    int rootWd_;
};

TEST(FileChangeMaskTest, KernelMasksMapInTableOrder) {
    struct Row {
        uint32_t mask;
        WatchMask expected;
    } rows[] = {
        {IN_MOVED_FROM, TALVERN_FROM},
        {IN_MOVED_FROM | IN_MOVED_TO, TALVERN_FROM},
        {IN_MOVED_TO | IN_ISDIR, TALVERN_TO},
        {IN_MOVE_SELF, TALVERN_DELETE},
        {IN_CLOSE_WRITE | IN_DELETE, TALVERN_MODIFY},
        {IN_DELETE, TALVERN_DELETE},
        {IN_DELETE_SELF, TALVERN_DELETE},
        {IN_CREATE | IN_ISDIR, TALVERN_CREATE},
        {IN_MODIFY, TALVERN_MODIFY},
        {IN_ATTRIB, TALVERN_CREATE},
        {IN_IGNORED, static_cast<WatchMask>(0)},
        {IN_ISDIR, static_cast<WatchMask>(0)},
    };
    for (std::size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); ++i) {
        EXPECT_EQ(rows[i].expected, FileChangeMonitor::inotifyMaskTransfer(rows[i].mask))
            << std::hex << rows[i].mask;
    }
    // Log lines print the name; a value outside the enum must not read past the names.
    EXPECT_EQ("TALVERN_TO", FileChangeMonitor::convertWatchMaskToString(TALVERN_TO));
    EXPECT_EQ("", FileChangeMonitor::convertWatchMaskToString(static_cast<WatchMask>(9)));
}

TEST_F(FileChangeFoldingTest, EventSequencesGiveTheirItems) {
    const uint32_t D = IN_ISDIR;
    std::vector<FoldingCase> cases = {
        {"created then written", {{IN_CREATE, "f", 0}, {IN_CLOSE_WRITE, "f", 0}},
         {{"f", TALVERN_MODIFY, false, 0}}},
        {"written thrice", {{IN_CLOSE_WRITE, "f", 0}, {IN_CLOSE_WRITE, "f", 0}, {IN_CLOSE_WRITE, "f", 0}},
         {{"f", TALVERN_MODIFY, false, 0}}},
        {"created then deleted", {{IN_CREATE, "f", 0}, {IN_DELETE, "f", 0}},
         {{"f", TALVERN_DELETE, false, 0}}},
        {"deleted, created, written",
         {{IN_DELETE, "f", 0}, {IN_CREATE, "f", 0}, {IN_CLOSE_WRITE, "f", 0}},
         {{"f", TALVERN_MODIFY, false, 0}}},
        {"moved in then out", {{IN_MOVED_TO, "f", 7}, {IN_MOVED_FROM, "f", 8}},
         {{"f", TALVERN_FROM, false, 8}}},
        {"rename", {{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}},
         {{"a", TALVERN_FROM, false, 1}, {"b", TALVERN_TO, false, 1}}},
        {"rename onto a path seen earlier",
         {{IN_CLOSE_WRITE, "b", 0}, {IN_MOVED_FROM, "a", 2}, {IN_MOVED_TO, "b", 2}},
         {{"b", TALVERN_TO, false, 2}, {"a", TALVERN_FROM, false, 2}}},
        {"moved away and back",
         {{IN_MOVED_FROM, "a", 1}, {IN_MOVED_TO, "b", 1}, {IN_MOVED_FROM, "b", 2}, {IN_MOVED_TO, "a", 2}},
         {{"a", TALVERN_TO, false, 2}, {"b", TALVERN_FROM, false, 2}}},
        {"written after a move keeps no cookie",
         {{IN_MOVED_TO, "f", 3}, {IN_CLOSE_WRITE, "f", 0}},
         {{"f", TALVERN_MODIFY, false, 0}}},
        {"directory created and deleted",
         {{IN_CREATE | D, "gone", 0}, {IN_DELETE | D, "gone", 0}},
         {{"gone/", TALVERN_DELETE, true, 0}}},
        {"hidden directory dropped, hidden file kept",
         {{IN_CREATE | D, ".cache", 0}, {IN_CREATE, ".profile", 0}},
         {{".profile", TALVERN_CREATE, false, 0}}},
        {"recycle bin dropped", {{IN_MOVED_TO | D, "$RECYCLE.BIN", 4}}, {}},
        {"kernel bookkeeping dropped",
         {{IN_IGNORED, "", 0}, {IN_DELETE_SELF | D, "", 0}, {IN_Q_OVERFLOW, "", 0}, {IN_UNMOUNT, "", 0}},
         {}},
        {"odd names kept byte for byte",
         {{IN_CREATE, "new\nline", 0}, {IN_CREATE, "qu\"o'te", 0}, {IN_CREATE, "bad\xff\xfeutf8", 0}},
         {{"new\nline", TALVERN_CREATE, false, 0}, {"qu\"o'te", TALVERN_CREATE, false, 0},
          {"bad\xff\xfeutf8", TALVERN_CREATE, false, 0}}},
        {"a 255-byte name", {{IN_CLOSE_WRITE, std::string(255, 'n'), 0}},
         {{std::string(255, 'n'), TALVERN_MODIFY, false, 0}}},
    };
    for (std::size_t c = 0; c < cases.size(); ++c) {
        std::vector<FileChangeItem> items = fold(cases[c].events);
        std::vector<std::string> got, want;
        for (const FileChangeItem& item : items) {
            got.push_back(item.path + " " + std::to_string(item.mask) + " " +
                          std::to_string(item.isDir) + " " + std::to_string(item.cookie));
        }
        for (const Item& item : cases[c].items) {
            want.push_back(dataRoot_ + "/" + item.name + " " + std::to_string(item.mask) + " " +
                           std::to_string(item.isDir) + " " + std::to_string(item.cookie));
        }
        EXPECT_EQ(want, got) << cases[c].title;
        // Deliver and clear, as a quiet pass does.
        monitor_->runPass();
        monitor_->runPass();
        ASSERT_TRUE(monitor_->changes().empty()) << cases[c].title;
    }
}

TEST_F(FileChangeFoldingTest, UnknownDescriptorsAndTruncatedRecordsGiveNothing) {
    EventBuffer buffer;
    buffer.add(rootWd_ + 99, IN_CLOSE_WRITE, "stranger");
    buffer.add(rootWd_, IN_CLOSE_WRITE, "kept");
    buffer.add(rootWd_, IN_CLOSE_WRITE, "cut off");
    monitor_->handleEvents(buffer.data(), buffer.size() - 3);
    ASSERT_EQ(1u, monitor_->changes().size());
    EXPECT_EQ(dataRoot_ + "/kept", monitor_->changes()[0].path);
}

class ThrowingObserver : public IFileChangeMonitorObserver {
public:
    virtual void update(std::vector<FileChangeItem>*, MonitorType) {
        throw std::runtime_error("observer failed");
    }
};

// A quiet pass delivers a non-empty list once, unless the gate is shut, and
// clears it on the pass after; an observer that throws ends nothing.
TEST_F(FileChangeFoldingTest, QuietPassDeliversOnceWhenTheGateIsOpen) {
    boost::shared_ptr<RecordingObserver> observer(new RecordingObserver);
    monitor_->registerObserver(observer);
    monitor_->runPass();
    EXPECT_TRUE(observer->batches.empty()) << "an empty list is never delivered";
    fold({{IN_CLOSE_WRITE, "a.jpg", 0}});
    monitor_->disableWatchEvent();
    monitor_->runPass();
    monitor_->disableWatchEventThreeSec();
    monitor_->runPass();
    EXPECT_TRUE(observer->batches.empty());
    monitor_->enableWatchEvent();
    monitor_->runPass();
    ASSERT_EQ(1u, observer->batches.size());
    EXPECT_EQ(dataRoot_ + "/a.jpg", observer->batches[0][0].path);
    EXPECT_EQ(MONITOR_TYPE_INOTIFY, observer->types[0]);
    EXPECT_EQ(1u, monitor_->changes().size()) << "the batch stays until the next pass";
    EXPECT_TRUE(log_.contains("change path is " + dataRoot_ + "/a.jpg ,mask is TALVERN_MODIFY ,is dir : 0"));
    monitor_->runPass();
    EXPECT_EQ(1u, observer->batches.size());
    EXPECT_TRUE(monitor_->changes().empty());

    monitor_->registerObserver(
        boost::shared_ptr<IFileChangeMonitorObserver>(new ThrowingObserver));
    fold({{IN_CLOSE_WRITE, "b.jpg", 0}});
    monitor_->runPass();
    EXPECT_TRUE(log_.contains("observer failed", google::GLOG_ERROR));
    monitor_->runPass();
    EXPECT_TRUE(monitor_->changes().empty());
}

}  // namespace
