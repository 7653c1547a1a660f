#ifndef QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIATASKFACTORY_H
#define QUORVIA_MULTIMEDIA_QUORVIATASK_QUORVIATASKFACTORY_H

#include <stdint.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "backup/inotify/FileChangeItem.h"
#include "dispatcher/Dispatchable.h"
#include "multimedia/quorviatask/PendingMoves.h"

namespace quorvia {

// Turns one change into a task. Its memory between calls is the set of move
// halves that wait for their partners. Monitor thread only.
class QuorviaTaskFactory {
public:
    virtual ~QuorviaTaskFactory() {}

    // Sets task, or leaves it empty when the change needs none. The two
    // halves of a move (TALVERN_FROM, TALVERN_TO) are paired by cookie, in
    // either order and across batches; a half without its partner never
    // lends its path to another move. An unpaired TALVERN_TO of a file is a
    // file moved in (a do-nothing modify task); of a directory, no task.
    static void CreateTask(boost::shared_ptr<Dispatchable>& task, const std::string& path,
                           WatchMask mask, bool isDir, MonitorType type, uint32_t cookie = 0);
    // Forgets every waiting half.
    static void sClearPendingMoves();

private:
    static void createMoveTask(boost::shared_ptr<Dispatchable>& task, const std::string& path,
                               WatchMask mask, bool isDir, MonitorType type, uint32_t cookie);

    static PendingMoves pendingMoves_;
};

}  // namespace quorvia

#endif
