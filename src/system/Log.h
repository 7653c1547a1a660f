#ifndef QUORVIA_SYSTEM_LOG_H
#define QUORVIA_SYSTEM_LOG_H

#include <glog/logging.h>

#include <string>

#include "system/LogLine.h"
#include "system/LogRecord.h"

// Every log statement of the program: a line that goes to syslog and to
// glog's own sinks with glog's format, file and line. Use as
// QLOG(INFO) << "text"; severities are INFO, WARNING and ERROR. A line below
// glog's minimum level is not built at all.
#define QLOG(severity)                                  \
    (google::GLOG_##severity < FLAGS_minloglevel)       \
        ? (void)0                                       \
        : google::LogMessageVoidify() &                 \
              talvern::LogLine(__FILE__, __LINE__, google::GLOG_##severity).stream()

namespace talvern {

// Who writes the lines. Until sStartThread, each line is written on the
// thread that says it; after it, a logging thread writes them and the
// statement only queues its line (see LogQueue), so that a request worker or
// the monitor never waits on syslog or a log file.
class Log {
public:
    virtual ~Log() {}

    // The daemon's, once, from main before any other thread starts. Lines
    // still queued are written at exit and, when glog's failure signal
    // handler is installed, before a crash takes its course. A child forked
    // later writes its own lines itself.
    static void sStartThread();
    // Returns once every line said before the call is written.
    static void sFlush();

    // The name of the program in syslog lines; "quorvia" unless set.
    static void sSetIdentity(const std::string& identity);
    // sink receives every later line, on the thread that writes it; it stays
    // the caller's and must be removed before it dies.
    static void sAddSink(google::LogSink* sink);
    static void sRemoveSink(google::LogSink* sink);

    // Called by LogLine with a finished line.
    static void sSubmit(LogRecord&& record);
};

}  // namespace talvern

#endif
