#include "multimedia/QuorviaManager.h"

#include <gtest/gtest.h>

#include <boost/chrono.hpp>
#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>
#include <fstream>
#include <string>
#include <vector>

#include "backup/inotify/FileChangeMonitor.h"
#include "multimedia/QuorviaDBMgr.h"
#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace fs = boost::filesystem;

namespace {

using quorvia::QuorviaManager;

class QuorviaManagerTest : public quorvia_test::DeviceRootTest {
protected:
    int tasksLogged() {
        int count = 0;
        std::vector<quorvia_test::LogCapture::Line> lines = log_.lines();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            count += lines[i].text.compare(0, 20, "create task: path is") == 0 ? 1 : 0;
        }
        return count;
    }
};

TEST_F(QuorviaManagerTest, FollowsTheDataFolderOnly) {
    boost::shared_ptr<QuorviaManager> manager = QuorviaManager::sGetInstance();
    EXPECT_EQ(manager, QuorviaManager::sGetInstance());
    ASSERT_EQ(1u, manager->watchDirs().size());
    EXPECT_EQ(path("/userdisk/data"), manager->watchDirs()[0]);
}

TEST_F(QuorviaManagerTest, ContentChangesCountForJpegFilesOnly) {
    QuorviaManager manager;
    manager.update(NULL, MONITOR_TYPE_INOTIFY);
    std::vector<FileChangeItem> batch = {
        {"/d/photo.JPG", TALVERN_MODIFY, false}, {"/d/photo.jpeg", TALVERN_MODIFY, false},
        {"/d/image.png", TALVERN_MODIFY, false}, {"/d/movie.mp4", TALVERN_MODIFY, false},
        {"/d/movie.td", TALVERN_MODIFY, false},  {"/d/notes.txt", TALVERN_DELETE, false},
        {"/d/a.mp4", TALVERN_FROM, false, 5},    {"/d/b.mp4", TALVERN_TO, false, 5}};
    manager.update(&batch, MONITOR_TYPE_SCANNER);
    EXPECT_EQ(5, tasksLogged());
    EXPECT_EQ(1, log_.count("create task: path is/d/photo.JPG mask : 1 , isDir : 0 , type : 1"));
    EXPECT_FALSE(log_.contains("image.png"));
    EXPECT_FALSE(log_.contains("movie.td"));
}

TEST_F(QuorviaManagerTest, DownloadTemporaryFileMakesTheDownloadFolder) {
    QuorviaManager manager;
    const std::string download = talvern::ConfigInfo::sGetInstance()->getDownloadFolderPath();
    fs::remove_all(download);
    std::vector<FileChangeItem> batch;
    batch.push_back(FileChangeItem(download + "x.td", TALVERN_DELETE, false));
    manager.update(&batch, MONITOR_TYPE_INOTIFY);
    EXPECT_TRUE(fs::is_directory(download));
}

// The road of a file event inside one process: a real monitor on the data
// folder with the manager as its observer, the manager's queue, the store.
class QuorviaPipelineTest : public QuorviaManagerTest {
protected:
    virtual void SetUp() {
        QuorviaManagerTest::SetUp();
        data_ = path("/userdisk/data");
        fs::create_directories(data_ + "/album/2024");
        fs::create_directories(data_ + "/inbox");
        fs::create_directories(root() + "/elsewhere");
        const char* const rows[][2] = {{"album/2024/p0.jpg", "h0"}, {"album/2024/p1.jpg", "h1"},
                                       {"album/2024/p2.jpg", "h2"}, {"inbox/a.jpg", "ha"},
                                       {"inbox/out.jpg", "hout"},   {"inbox/del.jpg", "hdel"}};
        for (const auto& row : rows) {
            write(row[0]);
            insert(data_ + "/" + row[0], row[1]);
        }
        manager_.reset(new QuorviaManager);
        manager_->startDispatcher();
        monitor_.reset(new FileChangeMonitor);
        monitor_->init(manager_->watchDirs());
        monitor_->registerObserver(manager_);
        ASSERT_TRUE(monitor_->beginNotify());
    }

    void write(const std::string& below) {
        std::ofstream out((data_ + "/" + below).c_str());
        out << "jpeg";
    }
    void insert(const std::string& where, const std::string& hash) {
        quorvia::QuorviaContext context;
        context.path = where;
        context.hash = hash;
        ASSERT_TRUE(quorvia::QuorviaDBMgr::sGetInstance().insertToDB(context));
    }
    // Runs the loop until the row of hash stands at where, for 5 s at most.
    bool rowFollows(const std::string& hash, const std::string& where) {
        const boost::chrono::steady_clock::time_point deadline =
            boost::chrono::steady_clock::now() + boost::chrono::seconds(5);
        while (boost::chrono::steady_clock::now() < deadline) {
            if (quorvia::QuorviaDBMgr::sGetInstance().doGetFileHash(where) == hash) {
                return true;
            }
            monitor_->runPass();
        }
        return false;
    }
    bool rowGone(const std::string& where) { return rowFollows("", where); }

    std::string data_;
    boost::shared_ptr<QuorviaManager> manager_;
    boost::shared_ptr<FileChangeMonitor> monitor_;
};

TEST_F(QuorviaPipelineTest, RowsFollowTheShellsDeletesRenamesAndMoves) {
    fs::rename(data_ + "/inbox/a.jpg", data_ + "/inbox/b.jpg");
    fs::remove(data_ + "/inbox/del.jpg");
    fs::rename(data_ + "/inbox/out.jpg", root() + "/elsewhere/out.jpg");
    write("inbox/stranger.jpg");
    fs::rename(data_ + "/inbox/stranger.jpg", data_ + "/inbox/c.jpg");
    EXPECT_TRUE(rowFollows("ha", data_ + "/inbox/b.jpg"));
    EXPECT_TRUE(rowGone(data_ + "/inbox/del.jpg"));
    EXPECT_EQ("hout", quorvia::QuorviaDBMgr::sGetInstance().doGetFileHash(data_ + "/inbox/out.jpg"))
        << "a file moved out of the tree keeps its row and lends its path to nobody";

    fs::rename(data_ + "/album", data_ + "/Photos");
    EXPECT_TRUE(rowFollows("h0", data_ + "/Photos/2024/p0.jpg"));
    EXPECT_TRUE(rowFollows("h2", data_ + "/Photos/2024/p2.jpg"));

    // The subtree's watches followed too: a move inside the moved folder.
    fs::rename(data_ + "/Photos/2024", data_ + "/inbox/2024");
    EXPECT_TRUE(rowFollows("h1", data_ + "/inbox/2024/p1.jpg"));
    fs::rename(data_ + "/inbox/2024/p1.jpg", data_ + "/inbox/2024/renamed.jpg");
    EXPECT_TRUE(rowFollows("h1", data_ + "/inbox/2024/renamed.jpg"));
}

}  // namespace
