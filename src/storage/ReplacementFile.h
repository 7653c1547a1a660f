#ifndef QUORVIA_STORAGE_REPLACEMENTFILE_H
#define QUORVIA_STORAGE_REPLACEMENTFILE_H

#include <stdio.h>
#include <sys/types.h>

#include <string>

namespace talvern {

// The new content of a file, written where the disk's other writers can't
// lead it: a new file is made beside path (exclusively, so never through a
// link), and commit renames it over path. A link, a FIFO or a half-written
// file at path is replaced whole; nothing is ever written through it or
// waited on. The new file is made with the mode that "wb" gives a new file:
// 0666 less the umask. Without commit it is removed. One thread at a time.
class ReplacementFile {
public:
    explicit ReplacementFile(const std::string& path);
    // The file name in the folder open as the descriptor folder, which the
    // caller keeps open until this object is gone: whatever is renamed or
    // linked on the way to that folder meanwhile, the file lands in it.
    ReplacementFile(int folder, const std::string& name);
    virtual ~ReplacementFile();

    // Where to write; NULL when the new file could not be made (the reason
    // is in errno).
    FILE* stream() const { return stream_; }
    // The new file's name (in the folder, for the second constructor).
    const std::string& temporaryPath() const { return temporary_; }
    // Flushes the new file (to the disk too when sync) and renames it over
    // path. false, with the new file removed, when any step failed.
    bool commit(bool sync);
    // commit, with the new file given mode first.
    bool commit(mode_t mode, bool sync);
    // commit, but the new file takes the owner and mode of the regular file
    // at path, as "wb" on it would keep them (other components may own the
    // file or keep it private).
    bool commitKeepingOwner(bool sync);

private:
    ReplacementFile(const ReplacementFile&);
    ReplacementFile& operator=(const ReplacementFile&);

    int folder_;
    std::string path_;
    std::string temporary_;
    FILE* stream_;
    bool committed_;
};

}  // namespace talvern

#endif
