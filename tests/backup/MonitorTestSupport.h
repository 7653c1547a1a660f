#ifndef QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H
#define QUORVIA_TESTS_BACKUP_MONITORTESTSUPPORT_H

#include <stdexcept>
#include <string>
#include <vector>

#include "backup/inotify/IFileChangeMonitorObserver.h"

namespace monitor_test {

// Keeps a copy of every batch it is given (or throws failure when set);
// sizes() are the batches' sizes.
class RecordingObserver : public IFileChangeMonitorObserver {
public:
    virtual void update(std::vector<FileChangeItem>* changes, MonitorType) {
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
        batches.push_back(*changes);
    }
    virtual void eventsLost(const std::vector<std::string>& roots,
                            const std::vector<FolderMove>& moves) {
        lost.push_back(roots);
        for (const FolderMove& move : moves) {
            foundMoves.push_back(move.from + " > " + move.to);
        }
    }
    std::vector<std::size_t> sizes() const {
        std::vector<std::size_t> sizes;
        for (const std::vector<FileChangeItem>& batch : batches) {
            sizes.push_back(batch.size());
        }
        return sizes;
    }
    std::vector<std::vector<FileChangeItem> > batches;
    std::vector<std::vector<std::string> > lost;
    std::vector<std::string> foundMoves;  // "FROM > TO"
    std::string failure;  // when set, update() throws it
};

}  // namespace monitor_test

#endif
