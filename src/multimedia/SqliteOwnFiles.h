#ifndef QUORVIA_MULTIMEDIA_SQLITEOWNFILES_H
#define QUORVIA_MULTIMEDIA_SQLITEOWNFILES_H

namespace quorvia {

// SQLite opens the store's journal by name at each write transaction, and
// its log and the log's index when it first needs them, all in the store's
// folder on the user disk. A hard link planted at one of those names made
// it write pages of the store into the file the link names, a symbolic link
// wherever that leads, and a FIFO held the writer for ever. Through this,
// SQLite's default file system layer opens, outside /dev, only a file of one
// name that is the very file at the name it opened, or a folder (for its
// flushes); anything else fails as a file that can't be opened, said at
// ERROR, and the write it was for fails with it. What stands at the name is
// looked at before the open too, which therefore never waits on a FIFO
// (unless one is swapped in within that moment).
class SqliteOwnFiles {
public:
    virtual ~SqliteOwnFiles() {}

    // Before the first open: installing while another thread opens a
    // database is a race. Calls after the first do nothing.
    static void sInstall();
};

}  // namespace quorvia

#endif
