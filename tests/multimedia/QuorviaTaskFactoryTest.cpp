#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "multimedia/quorviatask/PendingMoves.h"
#include "multimedia/quorviatask/QuorviaCreateFileTask.h"
#include "multimedia/quorviatask/QuorviaDeleteDirTask.h"
#include "multimedia/quorviatask/QuorviaDeleteFileTask.h"
#include "multimedia/quorviatask/QuorviaFileTask.h"
#include "multimedia/quorviatask/QuorviaModifyFileTask.h"
#include "multimedia/quorviatask/QuorviaMoveDirTask.h"
#include "multimedia/quorviatask/QuorviaMoveFileTask.h"
#include "multimedia/quorviatask/QuorviaTaskFactory.h"
#include "support/DeviceRootTest.h"

namespace {

using quorvia::QuorviaTaskFactory;

// The task as text: "none", "modify P", "create P", "delete P",
// "file A -> B", "dir A -> B"; " (idle)" when it would not execute.
std::string describe(const boost::shared_ptr<Dispatchable>& task) {
    auto* file = dynamic_cast<quorvia::QuorviaFileTask*>(task.get());
    if (!file) {
        return task ? "unknown" : "none";
    }
    std::string kind = dynamic_cast<quorvia::QuorviaDeleteFileTask*>(file)   ? "delete "
                       : dynamic_cast<quorvia::QuorviaDeleteDirTask*>(file)  ? "delete dir "
                       : dynamic_cast<quorvia::QuorviaCreateFileTask*>(file) ? "create "
                       : dynamic_cast<quorvia::QuorviaModifyFileTask*>(file) ? "modify "
                                                                             : "unknown ";
    if (auto* move = dynamic_cast<quorvia::QuorviaMoveFileTask*>(file)) {
        kind = "file " + move->from() + " -> ";
    } else if (auto* move = dynamic_cast<quorvia::QuorviaMoveDirTask*>(file)) {
        kind = "dir " + move->from() + " -> ";
    }
    return kind + file->path() + (file->shouldExecute() ? "" : " (idle)");
}

TEST(QuorviaTaskFactoryTest, PairsMovesByCookieOnly) {
    struct Change {
        std::string path;
        WatchMask mask;
        bool isDir;
        uint32_t cookie;
    };
    struct Case {
        const char* title;
        std::vector<Change> changes;
        std::vector<std::string> tasks;
    } cases[] = {
        {"plain kinds; unknown masks and directories give none but a folder's delete",
         {{"/d/a.jpg", TALVERN_MODIFY, false, 0},
          {"/d/s/", TALVERN_MODIFY, true, 0},
          {"/d/b", TALVERN_CREATE, false, 0},
          {"/d/s/", TALVERN_CREATE, true, 0},
          {"/d/c", TALVERN_DELETE, false, 0},
          {"/d/s/", TALVERN_DELETE, true, 0},
          {"/d/q", static_cast<WatchMask>(7), false, 0},
          {"", TALVERN_CREATE, false, 0}},
         {"modify /d/a.jpg", "none", "create /d/b", "none", "delete /d/c", "delete dir /d/s/",
          "none", "create  (idle)"}},
        {"rename of a file and of a directory",
         {{"/d/a", TALVERN_FROM, false, 11},
          {"/d/b", TALVERN_TO, false, 11},
          {"/d/x/", TALVERN_FROM, true, 12},
          {"/d/y/", TALVERN_TO, true, 12}},
         {"none", "file /d/a -> /d/b", "none", "dir /d/x/ -> /d/y/"}},
        {"the new name listed ahead of the old one",
         {{"/d/b", TALVERN_TO, false, 21},
          {"/d/other", TALVERN_DELETE, false, 0},
          {"/d/a", TALVERN_FROM, false, 21}},
         {"modify /d/b", "delete /d/other", "file /d/a -> /d/b"}},
        {"a stranger does not take the path of a file that left",
         {{"/d/left", TALVERN_FROM, false, 31},
          {"/d/came", TALVERN_TO, false, 32},
          {"/d/dirleft/", TALVERN_FROM, true, 33},
          {"/d/dircame/", TALVERN_TO, true, 34}},
         {"none", "modify /d/came", "none", "none"}},
        {"two files out in a row, then the first one's partner",
         {{"/d/one", TALVERN_FROM, false, 41},
          {"/d/two", TALVERN_FROM, false, 42},
          {"/d/one-new", TALVERN_TO, false, 41},
          {"/d/two-new", TALVERN_TO, false, 42}},
         {"none", "none", "file /d/one -> /d/one-new", "file /d/two -> /d/two-new"}},
        {"halves of different kinds never pair",
         {{"/d/a", TALVERN_FROM, false, 61}, {"/d/b/", TALVERN_TO, true, 61}},
         {"none", "none"}},
        {"halves without a cookie never pair",
         {{"/d/a", TALVERN_FROM, false, 0}, {"/d/b", TALVERN_TO, false, 0}},
         {"none", "modify /d/b"}},
        {"a half offered twice pairs once",
         {{"/d/a", TALVERN_FROM, false, 71},
          {"/d/b", TALVERN_TO, false, 71},
          {"/d/c", TALVERN_TO, false, 71}},
         {"none", "file /d/a -> /d/b", "modify /d/c"}},
    };
    quorvia_test::LogCapture log;
    for (const Case& c : cases) {
        QuorviaTaskFactory::sClearPendingMoves();
        std::vector<std::string> tasks;
        for (const Change& change : c.changes) {
            boost::shared_ptr<Dispatchable> task;
            QuorviaTaskFactory::CreateTask(task, change.path, change.mask, change.isDir,
                                           MONITOR_TYPE_INOTIFY, change.cookie);
            tasks.push_back(describe(task));
        }
        EXPECT_EQ(c.tasks, tasks) << c.title;
    }
    EXPECT_EQ(1, log.count("create task: path is/d/a.jpg mask : 1 , isDir : 0 , type : 2"));
    EXPECT_EQ(1, log.count("TaskFactory::CreateTask, mask : 7 , path : /d/q"));
}

TEST(PendingMovesTest, OldAndSurplusHalvesAreDropped) {
    quorvia::PendingMoves pending;
    std::string partner;
    const time_t start = 1000000;
    EXPECT_FALSE(pending.match(1, TALVERN_FROM, false, "/old", start, partner));
    EXPECT_FALSE(pending.match(2, TALVERN_FROM, false, "/fresh", start + 30, partner));
    // One second past the limit: the first half is gone, the second is not.
    const time_t later = start + quorvia::PendingMoves::kMaxAgeSeconds + 1;
    EXPECT_FALSE(pending.match(1, TALVERN_TO, false, "/new", later, partner));
    EXPECT_TRUE(pending.match(2, TALVERN_TO, false, "/fresh-new", later, partner));
    EXPECT_EQ("/fresh", partner);

    pending.clear();
    const uint32_t kMax = static_cast<uint32_t>(quorvia::PendingMoves::kMaxWaiting);
    for (uint32_t cookie = 1; cookie <= kMax + 1; ++cookie) {
        pending.match(cookie, TALVERN_FROM, false, "/f" + std::to_string(cookie), start, partner);
    }
    EXPECT_EQ(quorvia::PendingMoves::kMaxWaiting, pending.size());
    EXPECT_TRUE(pending.match(2, TALVERN_TO, false, "/n", start, partner));
    EXPECT_EQ("/f2", partner);
    EXPECT_FALSE(pending.match(1, TALVERN_TO, false, "/n", start, partner)) << "oldest dropped";
}

}  // namespace
