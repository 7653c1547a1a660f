#ifndef QUORVIA_SYSTEM_LOG_H
#define QUORVIA_SYSTEM_LOG_H

#include <glog/logging.h>

// Every log statement of the program: glog's syslog route, so that a line goes
// to syslog and to glog's own sinks with glog's format, file and line.
// Use as QLOG(INFO) << "text"; severities are INFO, WARNING and ERROR.
#define QLOG(severity) SYSLOG(severity)

#endif
