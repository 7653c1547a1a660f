#ifndef QUORVIA_TESTS_SUPPORT_LOGCAPTURE_H
#define QUORVIA_TESTS_SUPPORT_LOGCAPTURE_H

#include <glog/logging.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <string>
#include <vector>

namespace quorvia_test {

// Collects the log lines written while it lives, from any thread.
class LogCapture : public google::LogSink {
public:
    struct Line {
        google::LogSeverity severity;
        std::string text;
    };

    LogCapture();
    virtual ~LogCapture();

    virtual void send(google::LogSeverity severity, const char* fullFilename,
                      const char* baseFilename, int line, const google::LogMessageTime& time,
                      const char* message, size_t messageLength);

    std::vector<Line> lines() const;
    // Number of lines whose text equals text exactly (any severity when
    // severity is -1).
    int count(const std::string& text, int severity = -1) const;
    // True if some line of that severity holds text as a part.
    bool contains(const std::string& text, int severity = -1) const;
    void clear();

private:
    mutable boost::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace quorvia_test

#endif
