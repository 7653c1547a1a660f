#ifndef QUORVIA_SYSTEM_LOGOUTPUT_H
#define QUORVIA_SYSTEM_LOGOUTPUT_H

#include <glog/logging.h>

#include <boost/thread/mutex.hpp>
#include <deque>
#include <string>
#include <vector>

#include "system/LogRecord.h"
#include "system/SyslogClient.h"

namespace talvern {

// Where a finished line goes: syslog, then glog's own sink (its log files of
// every severity up to the line's, or standard error, by glog's flags), then
// the sinks added here. The line is glog's, with the time and thread of the
// statement that said it. Any thread may call; one lock serialises writes.
class LogOutput {
public:
    // syslogPath is the fixed /dev/log path; identity names the program in
    // syslog.
    LogOutput(const std::string& syslogPath, const std::string& identity,
              const SyslogClient::Clock& clock);
    virtual ~LogOutput() {}

    // Lines written between two yields of the processor in a batch.
    static constexpr size_t kYieldLines = 8;

    void write(const LogRecord& record);
    // The lines in order; syslog gets them in one send. Gives the processor
    // away after every kYieldLines lines: a request thread woken on it then
    // waits for a few lines' writing, not for a whole batch.
    void write(const std::deque<LogRecord>& batch);

    void setIdentity(const std::string& identity);
    // sink receives every later line; it stays the caller's.
    void addSink(google::LogSink* sink);
    void removeSink(google::LogSink* sink);

    // "I20261125 14:37:42.123456  4321 File.cpp:12] text\n", as glog writes
    // a line to its files: one final newline, the text's own if it has one.
    // Called under the lock of write, or by one thread.
    std::string format(const LogRecord& record);

private:
    void writeLocked(const LogRecord& record);
    const std::string& date(time_t second);
    static void sWriteToGlog(const LogRecord& record, const std::string& line);

    boost::mutex mutex_;
    SyslogClient syslog_;
    std::vector<google::LogSink*> sinks_;
    time_t dateSecond_;
    int dateFlags_;
    std::string date_;
};

}  // namespace talvern

#endif
