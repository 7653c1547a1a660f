#include "multimedia/QuorviaManager.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace fs = boost::filesystem;

namespace {

using quorvia::QuorviaManager;

typedef quorvia_test::DeviceRootTest QuorviaManagerTest;

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
    const std::set<std::string> dropped = {"/d/image.png", "/d/movie.mp4", "/d/movie.td"};
    for (const FileChangeItem& item : batch) {
        EXPECT_NE(dropped.count(item.path) == 1,
                  log_.contains("create task: path is" + item.path + " mask"))
            << item.path;
    }
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
