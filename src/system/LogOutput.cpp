#include "system/LogOutput.h"

#include <sched.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <boost/thread/lock_guard.hpp>

namespace talvern {

namespace {

const char* baseName(const char* file) {
    const char* slash = strrchr(file, '/');
    return slash != NULL ? slash + 1 : file;
}

bool endsInNewline(const std::string& text) { return !text.empty() && text.back() == '\n'; }

}  // namespace

LogOutput::LogOutput(const std::string& syslogPath, const std::string& identity,
                     const SyslogClient::Clock& clock)
    : syslog_(syslogPath, identity, clock), dateSecond_(0), dateFlags_(0) {}

void LogOutput::write(const LogRecord& record) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    writeLocked(record);
    syslog_.flush();
}

void LogOutput::write(const std::deque<LogRecord>& batch) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    size_t written = 0;
    for (const LogRecord& record : batch) {
        writeLocked(record);
        if (++written % kYieldLines == 0) {
            sched_yield();
        }
    }
    syslog_.flush();
}

void LogOutput::writeLocked(const LogRecord& record) {
    syslog_.queue(record.severity, record.when, record.text);
    sWriteToGlog(record, format(record));
    if (sinks_.empty()) {
        return;
    }
    const google::LogMessageTime time(record.when.tv_sec,
                                      record.when.tv_sec + record.when.tv_nsec / 1e9);
    // As glog gives its sinks: without the line's final newline.
    const size_t size = record.text.size() - (endsInNewline(record.text) ? 1 : 0);
    for (google::LogSink* sink : sinks_) {
        sink->send(record.severity, record.file, baseName(record.file), record.line, time,
                   record.text.data(), size);
    }
}

// What glog does with its own lines: standard error alone when asked to (or
// before it is initialised); otherwise the log file of each severity up to
// the line's, and standard error from its threshold.
void LogOutput::sWriteToGlog(const LogRecord& record, const std::string& line) {
    if (FLAGS_logtostderr || FLAGS_logtostdout || !google::IsGoogleLoggingInitialized()) {
        fwrite(line.data(), line.size(), 1, FLAGS_logtostdout ? stdout : stderr);
        return;
    }
    for (int severity = record.severity; severity >= 0; --severity) {
        google::base::GetLogger(severity)->Write(severity > FLAGS_logbuflevel, record.when.tv_sec,
                                                 line.data(), line.size());
    }
    if (record.severity >= FLAGS_stderrthreshold || FLAGS_alsologtostderr) {
        fwrite(line.data(), line.size(), 1, stderr);
    }
}

std::string LogOutput::format(const LogRecord& record) {
    const int severity = std::min(std::max(record.severity, 0), google::NUM_SEVERITIES - 1);
    char rest[48];
    snprintf(rest, sizeof(rest), ".%06ld %5u ", record.when.tv_nsec / 1000, record.tid);
    std::string line(1, google::LogSeverityNames[severity][0]);
    line.reserve(64 + record.text.size());
    line.append(date(record.when.tv_sec)).append(rest).append(baseName(record.file));
    line.append(":").append(std::to_string(record.line)).append("] ").append(record.text);
    if (!endsInNewline(record.text)) {
        line.push_back('\n');
    }
    return line;
}

// "20261125 14:37:42", or without the year, local or universal by glog's
// flags; made once a second.
const std::string& LogOutput::date(time_t second) {
    const int flags = (FLAGS_log_year_in_prefix ? 1 : 0) | (FLAGS_log_utc_time ? 2 : 0);
    if (second == dateSecond_ && flags == dateFlags_ && !date_.empty()) {
        return date_;
    }
    struct tm time;
    if (FLAGS_log_utc_time) {
        gmtime_r(&second, &time);
    } else {
        localtime_r(&second, &time);
    }
    char text[32] = "";
    if (FLAGS_log_year_in_prefix) {
        snprintf(text, sizeof(text), "%04d", 1900 + time.tm_year);
    }
    const size_t year = strlen(text);
    snprintf(text + year, sizeof(text) - year, "%02d%02d %02d:%02d:%02d", 1 + time.tm_mon,
             time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
    date_ = text;
    dateSecond_ = second;
    dateFlags_ = flags;
    return date_;
}

void LogOutput::setIdentity(const std::string& identity) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    syslog_.setIdentity(identity);
}

void LogOutput::addSink(google::LogSink* sink) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    sinks_.push_back(sink);
}

void LogOutput::removeSink(google::LogSink* sink) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    sinks_.erase(std::remove(sinks_.begin(), sinks_.end(), sink), sinks_.end());
}

}  // namespace talvern
