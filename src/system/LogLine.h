#ifndef QUORVIA_SYSTEM_LOGLINE_H
#define QUORVIA_SYSTEM_LOGLINE_H

#include <sstream>

#include "system/LogRecord.h"

namespace talvern {

// One log statement while it is being said: it takes the time and the thread
// at its start, collects the text streamed into it, and hands the finished
// line to Log when it ends. Lives on the stack of the thread that logs.
class LogLine {
public:
    // glog's bound of a line: longer text is cut there.
    static const size_t kMaxTextBytes = 30000;

    LogLine(const char* file, int line, int severity);
    virtual ~LogLine();

    std::ostream& stream() { return stream_; }

private:
    LogRecord record_;
    std::ostringstream stream_;
};

}  // namespace talvern

#endif
