#ifndef QUORVIA_SYSTEM_LOGRECORD_H
#define QUORVIA_SYSTEM_LOGRECORD_H

#include <time.h>

#include <string>

#include "system/BuildAbi.h"

namespace talvern {

// One finished log line as its statement said it, before anything formats
// it: what the logging thread needs to write it as glog would have on the
// thread that said it.
struct LogRecord {
    int severity;          // google::GLOG_INFO, GLOG_WARNING or GLOG_ERROR
    const char* file;      // __FILE__ of the statement: a literal, never freed
    int line;
    struct timespec when;  // CLOCK_REALTIME when the statement began
    unsigned tid;          // kernel id of the thread that said it
    std::string text;      // the message alone, no trailing newline
};

}  // namespace talvern

#endif
