#include <gtest/gtest.h>
#include <string.h>

#include <boost/core/demangle.hpp>
#include <sstream>
#include <string>
#include <typeinfo>

#include "backup/inotify/ChangeList.h"
#include "multimedia/quorviatask/BatchOrder.h"
#include "multimedia/quorviatask/PendingMoves.h"
#include "multimedia/quorviatask/QuorviaMoveDirTask.h"
#include "multimedia/quorviatask/QuorviaMoveFileTask.h"
#include "multimedia/quorviatask/QuorviaTaskFactory.h"

namespace {

// The task as text: its kind ("ModifyFile" for a QuorviaModifyFileTask), a
// move's old path, its path; " (idle)" when it would not execute.
std::string describe(const boost::shared_ptr<Dispatchable>& task) {
    auto* file = dynamic_cast<quorvia::QuorviaFileTask*>(task.get());
    if (!file) {
        return task ? "unknown" : "none";
    }
    const std::string name = boost::core::demangle(typeid(*file).name());
    const std::size_t prefix = strlen("quorvia::Quorvia"), suffix = strlen("Task");
    std::string text = name.substr(prefix, name.size() - prefix - suffix) + " ";
    if (auto* move = dynamic_cast<quorvia::QuorviaMoveFileTask*>(file)) {
        text += move->from() + " -> ";
    } else if (auto* move = dynamic_cast<quorvia::QuorviaMoveDirTask*>(file)) {
        text += move->from() + " -> ";
    }
    return text + file->path() + (file->shouldExecute() ? "" : " (idle)");
}

// One change after another, each with the task it gives (a move's halves on
// one line); a directory's path ends in "/". Each group of moves has cookies of
// its own.
TEST(QuorviaTaskFactoryTest, PairsMovesByCookieOnly) {
    const WatchMask MODIFY = TALVERN_MODIFY, CREATE = TALVERN_CREATE, DELETE = TALVERN_DELETE;
    const WatchMask FROM = TALVERN_FROM, TO = TALVERN_TO;
    const struct {
        std::string path;
        WatchMask mask;
        uint32_t cookie;
        std::string task;
    } changes[] = {
        // Plain kinds; unknown masks and directories give none but a folder's delete.
        {"/d/a.jpg", MODIFY, 0, "ModifyFile /d/a.jpg"}, {"/d/s/", MODIFY, 0, "none"},
        {"/d/b", CREATE, 0, "CreateFile /d/b"}, {"/d/s/", CREATE, 0, "none"},
        {"/d/c", DELETE, 0, "DeleteFile /d/c"}, {"/d/s/", DELETE, 0, "DeleteDir /d/s/"},
        {"/d/q", static_cast<WatchMask>(7), 0, "none"}, {"", CREATE, 0, "CreateFile  (idle)"},
        // Rename of a file and of a directory.
        {"/d/a", FROM, 11, "none"}, {"/d/b", TO, 11, "MoveFile /d/a -> /d/b"},
        {"/d/x/", FROM, 12, "none"}, {"/d/y/", TO, 12, "MoveDir /d/x/ -> /d/y/"},
        // The new name listed ahead of the old one, something else between.
        {"/d/b", TO, 21, "ModifyFile /d/b"}, {"/d/other", DELETE, 0, "DeleteFile /d/other"},
        {"/d/a", FROM, 21, "MoveFile /d/a -> /d/b"},
        // A stranger does not take the path of a file that left.
        {"/d/left", FROM, 31, "none"}, {"/d/came", TO, 32, "ModifyFile /d/came"},
        {"/d/dirleft/", FROM, 33, "none"}, {"/d/dircame/", TO, 34, "none"},
        // Two files out in a row, then their partners.
        {"/d/one", FROM, 41, "none"}, {"/d/two", FROM, 42, "none"},
        {"/d/one-new", TO, 41, "MoveFile /d/one -> /d/one-new"},
        {"/d/two-new", TO, 42, "MoveFile /d/two -> /d/two-new"},
        // Halves of different kinds, or without a cookie, never pair.
        {"/d/a", FROM, 61, "none"}, {"/d/b/", TO, 61, "none"},
        {"/d/a", FROM, 0, "none"}, {"/d/b", TO, 0, "ModifyFile /d/b"},
        // A half offered twice pairs once.
        {"/d/a", FROM, 71, "none"}, {"/d/b", TO, 71, "MoveFile /d/a -> /d/b"},
        {"/d/c", TO, 71, "ModifyFile /d/c"},
    };
    for (const auto& change : changes) {
        boost::shared_ptr<Dispatchable> task;
        const bool isDir = !change.path.empty() && change.path.back() == '/';
        quorvia::QuorviaTaskFactory::CreateTask(task, change.path, change.mask, isDir,
                                                MONITOR_TYPE_INOTIFY, change.cookie);
        EXPECT_EQ(change.task, describe(task)) << change.path << " #" << change.cookie;
    }
}

// Halves whose partners never come (moved out of the tree) can't grow the
// set without end: the old ones and the oldest beyond the limit are dropped.
TEST(PendingMovesTest, OldAndSurplusHalvesAreDropped) {
    quorvia::PendingMoves pending;
    std::string partner;
    const time_t start = 1000000, later = start + quorvia::PendingMoves::kMaxAgeSeconds + 1;
    EXPECT_FALSE(pending.match(1, TALVERN_FROM, false, "/old", start, partner));
    EXPECT_FALSE(pending.match(2, TALVERN_FROM, false, "/fresh", start + 30, partner));
    // One second past the limit: the first half is gone, the second is not.
    EXPECT_FALSE(pending.match(1, TALVERN_TO, false, "/new", later, partner));
    EXPECT_TRUE(pending.match(2, TALVERN_TO, false, "/fresh-new", later, partner));
    EXPECT_EQ("/fresh", partner);

    pending.clear();
    const uint32_t kMax = static_cast<uint32_t>(quorvia::PendingMoves::kMaxWaiting);
    for (uint32_t cookie = 1; cookie <= kMax + 1; ++cookie) {
        pending.match(cookie, TALVERN_FROM, false, "/f" + std::to_string(cookie), start, partner);
    }
    EXPECT_TRUE(pending.match(2, TALVERN_TO, false, "/n", start, partner));
    EXPECT_EQ("/f2", partner);
    EXPECT_FALSE(pending.match(1, TALVERN_TO, false, "/n", start, partner)) << "oldest dropped";

    // At the age limit a half still pairs. Halves cleared, or displaced by
    // another of their cookie, are gone for good: their age takes no newer
    // half along.
    pending.clear();
    EXPECT_FALSE(pending.match(5, TALVERN_FROM, false, "/before", start, partner));
    pending.clear();
    EXPECT_FALSE(pending.match(6, TALVERN_FROM, false, "/a", start, partner));
    EXPECT_FALSE(pending.match(6, TALVERN_FROM, false, "/a-again", start + 10, partner));
    EXPECT_FALSE(pending.match(5, TALVERN_FROM, false, "/after", start + 20, partner));
    const time_t atLimit = start + 10 + quorvia::PendingMoves::kMaxAgeSeconds;
    EXPECT_TRUE(pending.match(6, TALVERN_TO, false, "/b", atLimit, partner));
    EXPECT_EQ("/a-again", partner);
    EXPECT_TRUE(pending.match(5, TALVERN_TO, false, "/c", atLimit, partner));
    EXPECT_EQ("/after", partner);
}

// Events as the kernel reports them ("path:F7" and "path:T7" the halves of
// move 7, D a delete, C a create), folded as the monitor folds them; the
// order in which they become tasks. The folding keeps a path's last event,
// and its moves and deletes before it.
TEST(BatchOrderTest, EventsComeOutInTheOrderTheyHappened) {
    const std::pair<std::string, std::string> cases[] = {
        // mv c t; mv a b; mv t a: item by item, t -> a ran before a -> b.
        {"c:F1 t:T1 a:F2 b:T2 t:F3 a:T3", "c:F1 t:T1 a:F2 b:T2 t:F3 a:T3"},
        // mkdir d; mv f d/; mv d e: the folder's item stands first.
        {"d/:C f:F1 d/f:T1 d/:F2 e/:T2", "f:F1 d/f:T1 d/:F2 e/:T2"},
        // mv c d; rm d/x; mv d e.
        {"c/:F1 d/:T1 d/x:D d/:F2 e/:T2", "c/:F1 d/:T1 d/x:D d/:F2 e/:T2"},
        // mv a z; mkdir a; rmdir a, and rm x; mv e x: a delete before a move
        // onto the name stays.
        {"a/:F1 z/:T1 a/:C a/:D", "a/:F1 z/:T1 a/:D"},
        {"x:D e:F1 x:T1", "x:D e:F1 x:T1"},
        // Removed and made again: the old content's row goes; made and
        // removed over and over: one delete.
        {"x:D x:C x:M", "x:D x:M"},
        {"x:C x:D x:C x:D x:C x:D", "x:D"},
    };
    const std::string letters = "?MCDFT";
    for (const auto& c : cases) {
        ChangeList list;
        std::istringstream events(c.first);
        std::string event;
        while (events >> event) {
            const std::size_t colon = event.find(':');
            list.add(event.substr(0, colon), static_cast<WatchMask>(letters.find(event[colon + 1])),
                     false, event.size() > colon + 2 ? std::stoul(event.substr(colon + 2)) : 0);
        }
        std::string order;
        for (const quorvia::BatchEvent& task : quorvia::BatchOrder::sInOrder(list.items())) {
            order += (order.empty() ? "" : " ") + list.items()[task.item].path + ":" +
                     letters[task.mask] + (task.cookie != 0 ? std::to_string(task.cookie) : "");
        }
        EXPECT_EQ(c.second, order);
    }
}

}  // namespace
