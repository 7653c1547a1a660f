#ifndef QUORVIA_SYSTEM_LOGLINE_H
#define QUORVIA_SYSTEM_LOGLINE_H

#include <memory>
#include <sstream>

#include "system/LogRecord.h"

namespace talvern {

// One log statement while it is being said: it takes the time and the thread
// at its start, collects the text streamed into it, and hands the finished
// line to Log when it ends. Lives on the stack of the thread that logs; it
// streams into a buffer that its thread keeps between lines.
class LogLine {
public:
    // glog's bound of a line: longer text is cut there.
    static constexpr size_t kMaxTextBytes = 30000;

    LogLine(const char* file, int line, int severity);
    virtual ~LogLine();

    std::ostream& stream() { return *stream_; }

private:
    LogRecord record_;
    std::ostringstream* stream_;
    // A statement said while its thread's buffer is in use (text that logs
    // while it is streamed) gets a buffer of its own.
    std::unique_ptr<std::ostringstream> own_;
};

}  // namespace talvern

#endif
