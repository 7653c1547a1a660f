#ifndef QUORVIA_SYSTEM_LOG_H
#define QUORVIA_SYSTEM_LOG_H

#include <glog/logging.h>

// Every log statement of the program: glog's syslog route, so that a line goes
// to syslog and to glog's own sinks with glog's format, file and line.
// Use as QLOG(INFO) << "text"; severities are INFO, WARNING and ERROR.
// A line below glog's minimum level is not built at all: glog would still
// take the time, the local time zone (a stat of /etc/localtime) and the
// thread id for a line that it then drops.
#define QLOG(severity) SYSLOG_IF(severity, google::GLOG_##severity >= FLAGS_minloglevel)

namespace talvern {

class Log {
public:
    virtual ~Log() {}

    // glog opens syslog at its first syslog line with the console fallback
    // on, so that on a device whose syslog daemon is down every later line is
    // written to the console, at about a millisecond a line, on the thread
    // that logs. Call this once after the first QLOG line: syslog is opened
    // again under the same name without that fallback; lines still reach
    // glog's own sinks either way.
    static void sKeepSyslogOffConsole();
};

}  // namespace talvern

#endif
