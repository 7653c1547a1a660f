#ifndef QUORVIA_MULTIMEDIA_SQLITEFILESTATUS_H
#define QUORVIA_MULTIMEDIA_SQLITEFILESTATUS_H

namespace quorvia {

// SQLite looks at its files with stat(), fstat() and lstat() of its own.
// Where time_t has 32 bits those fail with EOVERFLOW for a store, or any
// folder above it, dated past January 2038, and the store would not open.
// This hands the three to the default file system layer as calls through
// talvern::FileStatus, whose times are 64 bits wide. The times they give are
// zero: SQLite reads none. Under /proc, lstat() follows links: they are the
// kernel's views of this process (/proc/self, a descriptor's folder at
// /proc/self/fd/N), which a store opened through a folder held open must
// keep in its name rather than the folder's name that SQLite would resolve.
class SqliteFileStatus {
public:
    virtual ~SqliteFileStatus() {}

    // Before the first open: installing while another thread opens a store
    // is a race. Calls after the first do nothing.
    static void sInstall();
};

}  // namespace quorvia

#endif
