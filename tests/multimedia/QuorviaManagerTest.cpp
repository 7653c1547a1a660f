#include "multimedia/QuorviaManager.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <string>
#include <vector>

#include "backup/inotify/FileChangeMonitor.h"
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

}  // namespace
