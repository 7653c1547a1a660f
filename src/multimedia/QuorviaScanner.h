#ifndef QUORVIA_MULTIMEDIA_QUORVIASCANNER_H
#define QUORVIA_MULTIMEDIA_QUORVIASCANNER_H

#include <boost/filesystem.hpp>
#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "backup/inotify/IFileChangeMonitorObserver.h"

namespace quorvia {

// Walks directory trees once and reports their JPEG files to the observer in
// groups of kGroupSize, as TALVERN_MODIFY items of MONITOR_TYPE_SCANNER.
// Hidden files, symbolic links and filtered or hidden directories are passed
// over. No thread of its own: the observer is called on the caller's thread
// in the midst of the walk. One thread at a time.
class QuorviaScanner {
public:
    static const std::size_t kGroupSize = 10;

    QuorviaScanner() {}
    virtual ~QuorviaScanner() {}

    // Replaces the one observer.
    void registerObserver(boost::shared_ptr<IFileChangeMonitorObserver> observer);
    // Walks each root in order and delivers what is left at the end. A root
    // that can't be read on ends its walk there (logged); the next follows.
    void start_scanner(const std::vector<std::string>& roots);
    // Raises boost::filesystem::filesystem_error when a directory can't be
    // opened or read on.
    void scanDiskDirRecursive(const std::string& dir);
    void notifyObserverInGroup(const std::string& path);
    void notifyObserver();

private:
    // A folder of the walk and the entry it is at; visited once that entry
    // has been looked at.
    struct OpenFolder {
        OpenFolder() : visited(false) {}
        std::string path;
        boost::filesystem::directory_iterator entry;
        bool visited;
    };

    static OpenFolder openFolder(const std::string& dir);
    // Reports entry if it is a JPEG file to report; its path if it is a
    // subfolder to walk, else "".
    std::string visit(const std::string& dir, const boost::filesystem::directory_entry& entry);

    std::vector<FileChangeItem> changePaths_;
    boost::shared_ptr<IFileChangeMonitorObserver> observer_;
};

}  // namespace quorvia

#endif
