// The store made true to the disk where the monitor's events can't be
// trusted: after an overflow every row of a file that is gone leaves, and a
// deleted folder takes the rows still below it.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"
#include "multimedia/quorviatask/QuorviaReconcileTask.h"
#include "support/DeviceRootTest.h"

namespace {

using quorvia::QuorviaDBMgr;

class LostEventsTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        boost::filesystem::create_directories(data_);
    }

    // A row for each path (a path that starts with "+" is also made as a
    // file, without the "+").
    void rows(const std::vector<std::string>& paths) {
        for (std::size_t i = 0; i < paths.size(); ++i) {
            quorvia::QuorviaContext context;
            context.path = paths[i][0] == '+' ? paths[i].substr(1) : paths[i];
            context.hash = "h" + std::to_string(i);
            context.metadata.title = "t";
            if (paths[i][0] == '+') {
                writeFile(context.path.substr(root().size()), "x");
            }
            ASSERT_TRUE(QuorviaDBMgr::sGetInstance().insertToDB(context));
        }
    }

    // The rows left, paths below the data folder written from "~".
    std::string left() {
        std::vector<QuorviaDBMgr::StoredPath> all;
        QuorviaDBMgr::sGetInstance().getRowsBelowAfter("/", 0, 100, all);
        std::string text;
        for (const QuorviaDBMgr::StoredPath& row : all) {
            text += (row.second.compare(0, data_.size(), data_) == 0
                         ? "~" + row.second.substr(data_.size())
                         : row.second) +
                    "\n";
        }
        return text;
    }

    std::string data_;
};

TEST_F(LostEventsTest, RowsOfFilesGoneLeaveAndAFolderGoneTakesItsRest) {
    rows({"+" + data_ + "/keep.jpg", data_ + "/gone.jpg", "+" + data_ + "/dir/y.jpg",
          data_ + "/dir/sub/x.jpg", "+" + data_ + "/dirx/z.jpg", "/elsewhere/w.jpg"});
    quorvia::QuorviaReconcileTask(data_ + "/missing", MONITOR_TYPE_INOTIFY).run();
    EXPECT_TRUE(log_.contains(data_ + "/missing is not there; its rows stay"));
    quorvia::QuorviaReconcileTask(data_, MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("~/keep.jpg\n~/dir/y.jpg\n~/dirx/z.jpg\n/elsewhere/w.jpg\n", left());
    EXPECT_TRUE(log_.contains("5 rows below " + data_ + " checked, 2 of files gone removed"));

    quorvia::QuorviaDeleteDirTask(data_ + "/dir/", MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("~/keep.jpg\n~/dirx/z.jpg\n/elsewhere/w.jpg\n", left());
}

// Slices of the store's lock: a folder's rows go a thousand at a time.
TEST_F(LostEventsTest, LargeFoldersGoInSlices) {
    std::vector<std::string> paths;
    for (int i = 0; i < 2500; ++i) {
        paths.push_back(data_ + "/big/" + std::to_string(i) + ".jpg");
    }
    rows(paths);
    QuorviaDBMgr& store = QuorviaDBMgr::sGetInstance();
    EXPECT_EQ(1000u, store.deleteRowsBelow(data_ + "/big", 1000));
    quorvia::QuorviaDeleteDirTask(data_ + "/big/", MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("", left());
}

}  // namespace
