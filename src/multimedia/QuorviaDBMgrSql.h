#ifndef QUORVIA_MULTIMEDIA_QUORVIADBMGRSQL_H
#define QUORVIA_MULTIMEDIA_QUORVIADBMGRSQL_H

#include <sqlite3.h>

#include <string>

// Statement helpers shared by the sources of QuorviaDBMgr.
namespace quorvia {
namespace sqlutil {

// Binds text by its byte length without a copy: text must outlive the step.
inline void bindText(sqlite3_stmt* stmt, int index, const std::string& text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// The column's text, NUL bytes included; empty for NULL.
inline std::string columnText(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    if (text == NULL) {
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt, column));
}

// A statement's code that means it ran: a step that found a row, or none.
inline bool succeeded(int code) {
    return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE;
}

// The default file system layer, when it lets its system calls be replaced;
// NULL otherwise.
inline sqlite3_vfs* swappableVfs() {
    sqlite3_vfs* vfs = sqlite3_vfs_find(NULL);
    return vfs != NULL && vfs->iVersion >= 3 && vfs->xSetSystemCall != NULL ? vfs : NULL;
}

}  // namespace sqlutil
}  // namespace quorvia

#endif
