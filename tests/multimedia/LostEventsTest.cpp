// The store made true to the disk where the monitor's events can't be
// trusted: after an overflow every row of a file that is gone leaves, and a
// deleted folder takes the rows still below it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/algorithm/string/replace.hpp>
#include <string>
#include <vector>

#include "multimedia/QuorviaDBMgr.h"
#include "multimedia/QuorviaManager.h"
#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"
#include "multimedia/quorviatask/QuorviaReconcileTask.h"
#include "support/DeviceRootTest.h"

namespace {

using quorvia::QuorviaDBMgr;

class LostEventsTest : public quorvia_test::DeviceRootTest {
protected:
    std::string data() const { return path("/userdisk/data"); }

    // A row for each path, "~" standing for the data folder; a path that
    // starts with "+" is also made as a file (without the "+").
    void rows(const std::vector<std::string>& paths) {
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const bool made = paths[i][0] == '+';
            quorvia::QuorviaContext context;
            context.path = boost::replace_first_copy(paths[i].substr(made ? 1 : 0), "~", data());
            context.hash = "h" + std::to_string(i);
            if (made) {
                writeFile(context.path.substr(root().size()), "x");
            }
            ASSERT_TRUE(QuorviaDBMgr::sGetInstance().insertToDB(context));
        }
    }

    // The rows left, the data folder written "~".
    std::string left() {
        std::vector<QuorviaDBMgr::StoredPath> all;
        QuorviaDBMgr::sGetInstance().getRowsBelowAfter("/", 0, 100, all);
        std::string text;
        for (const QuorviaDBMgr::StoredPath& row : all) {
            text += boost::replace_first_copy(row.second, data(), "~") + "\n";
        }
        return text;
    }
};

TEST_F(LostEventsTest, RowsOfFilesGoneLeaveAndAFolderGoneTakesItsRest) {
    rows({"+~/keep.jpg", "~/gone.jpg", "+~/dir/y.jpg", "~/dir/sub/x.jpg", "+~/dirx/z.jpg",
          "/elsewhere/w.jpg"});
    quorvia::QuorviaReconcileTask(data() + "/missing", MONITOR_TYPE_INOTIFY).run();
    EXPECT_TRUE(log_.contains(data() + "/missing is not there; its rows stay"));
    quorvia::QuorviaReconcileTask(data(), MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("~/keep.jpg\n~/dir/y.jpg\n~/dirx/z.jpg\n/elsewhere/w.jpg\n", left());
    EXPECT_TRUE(log_.contains("QuorviaReconcileTask, 5 rows below " + data() +
                              " checked, 2 of files gone removed"));

    quorvia::QuorviaDeleteDirTask(data() + "/dir/", MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("~/keep.jpg\n~/dirx/z.jpg\n/elsewhere/w.jpg\n", left());
    // Run again, it finds nothing left and says nothing.
    quorvia::QuorviaDeleteDirTask(data() + "/dir/", MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ(1, log_.count("QuorviaDeleteDirTask, 1 rows left below " + data() + "/dir/ removed"));
    EXPECT_FALSE(log_.contains("QuorviaDeleteDirTask, 0 rows"));
}

// Folders renamed while events were lost: their rows once went to the check
// against the disk, though every file was still there. The moves happened
// at once: a folder renamed inside a renamed one, and two that swapped names.
TEST_F(LostEventsTest, FoldersFoundMovedTakeTheirRowsBeforeTheCheckRegression) {
    // A row that an earlier such move left waiting was carried along too.
    rows({"~/album/a.jpg", "~/album/sub/b.jpg", "~/album/gone.jpg", "~/x/p.jpg", "~/y/q.jpg",
          std::string(quorvia::QuorviaManager::kMovingFolder) + "/0/b.jpg"});
    for (const char* file : {"holiday/a.jpg", "holiday/under/b.jpg", "y/p.jpg", "x/q.jpg"}) {
        writeFile("/userdisk/data/" + std::string(file), "x");
    }
    quorvia::QuorviaManager manager;
    manager.startDispatcher();
    const std::string d = data() + "/";
    manager.eventsLost({data()}, {{d + "album/", d + "holiday/"},
                                  {d + "album/sub/", d + "holiday/under/"},
                                  {d + "x/", d + "y/"},
                                  {d + "y/", d + "x/"}});
    const std::string expected = "~/holiday/a.jpg\n~/holiday/under/b.jpg\n~/y/p.jpg\n~/x/q.jpg\n";
    for (int i = 0; i < 500 && left() != expected; ++i) {
        usleep(10 * 1000);
    }
    EXPECT_EQ(expected, left());
}

// Slices of the store's lock: a folder's rows go a thousand at a time.
TEST_F(LostEventsTest, LargeFoldersGoInSlices) {
    std::vector<std::string> paths;
    for (int i = 0; i < 2500; ++i) {
        paths.push_back("~/big/" + std::to_string(i) + ".jpg");
    }
    rows(paths);
    EXPECT_EQ(1000u, QuorviaDBMgr::sGetInstance().deleteRowsBelow(data() + "/big", 1000));
    quorvia::QuorviaDeleteDirTask(data() + "/big/", MONITOR_TYPE_INOTIFY).run();
    EXPECT_EQ("", left());
    EXPECT_TRUE(log_.contains("1500 rows left below"));
}

}  // namespace
