#include "multimedia/QuorviaManager.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/ConfigInfo.h"

namespace {

typedef quorvia_test::DeviceRootTest QuorviaManagerTest;

TEST_F(QuorviaManagerTest, FollowsTheDataFolderOnly) {
    EXPECT_EQ(std::vector<std::string>(1, path("/userdisk/data")),
              quorvia::QuorviaManager::sGetInstance()->watchDirs());
}

// Content changes count for JPEG files only, other changes for every file; a
// temporary file of the download folder makes that folder when it is missing.
TEST_F(QuorviaManagerTest, ContentChangesCountForJpegFilesOnly) {
    quorvia::QuorviaManager manager;
    manager.update(NULL, MONITOR_TYPE_INOTIFY);
    const std::string download = talvern::ConfigInfo::sGetInstance()->getDownloadFolderPath();
    boost::filesystem::remove_all(download);
    std::vector<FileChangeItem> batch = {
        {"/d/photo.JPG", TALVERN_MODIFY, false},   {"/d/photo.jpeg", TALVERN_MODIFY, false},
        {"/d/image.png", TALVERN_MODIFY, false},   {"/d/movie.mp4", TALVERN_MODIFY, false},
        {"/d/movie.td", TALVERN_MODIFY, false},    {"/d/notes.txt", TALVERN_DELETE, false},
        {"/d/a.mp4", TALVERN_FROM, false, 5},      {"/d/b.mp4", TALVERN_TO, false, 5},
        {download + "x.td", TALVERN_DELETE, false}};
    manager.update(&batch, MONITOR_TYPE_SCANNER);
    const std::set<std::string> dropped = {"/d/image.png", "/d/movie.mp4", "/d/movie.td"};
    for (const FileChangeItem& item : batch) {
        EXPECT_NE(dropped.count(item.path) == 1,
                  log_.contains("create task: path is" + item.path + " mask"))
            << item.path;
    }
    EXPECT_TRUE(boost::filesystem::is_directory(download));
}

}  // namespace
