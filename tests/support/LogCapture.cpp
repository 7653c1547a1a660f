#include "support/LogCapture.h"

#include <algorithm>

#include "system/Log.h"

namespace quorvia_test {

LogCapture::LogCapture() { talvern::Log::sAddSink(this); }

LogCapture::~LogCapture() { talvern::Log::sRemoveSink(this); }

void LogCapture::send(google::LogSeverity severity, const char*, const char*, int,
                      const google::LogMessageTime&, const char* message, size_t messageLength) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    Line line = {severity, std::string(message, messageLength)};
    lines_.push_back(line);
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    boost::lock_guard<boost::mutex> lock(mutex_);
    return lines_;
}

int LogCapture::count(const std::string& text, int severity) const {
    const std::vector<Line> all = lines();
    return std::count_if(all.begin(), all.end(), [&](const Line& line) {
        return line.text == text && (severity < 0 || line.severity == severity);
    });
}

bool LogCapture::contains(const std::string& text, int severity) const {
    const std::vector<Line> all = lines();
    return std::any_of(all.begin(), all.end(), [&](const Line& line) {
        return line.text.find(text) != std::string::npos &&
               (severity < 0 || line.severity == severity);
    });
}

void LogCapture::clear() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace quorvia_test
