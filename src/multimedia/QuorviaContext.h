#ifndef QUORVIA_MULTIMEDIA_QUORVIACONTEXT_H
#define QUORVIA_MULTIMEDIA_QUORVIACONTEXT_H

#include <string>

#include "multimedia/Metadata.h"

namespace quorvia {

// One row for the index: where the file lies, its content key, its record.
struct QuorviaContext {
    std::string path;
    std::string hash;
    talvern::metadata_s metadata;
};

}  // namespace quorvia

#endif
