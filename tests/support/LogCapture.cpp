#include "support/LogCapture.h"

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
    int n = 0;
    std::vector<Line> all = lines();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].text == text && (severity < 0 || all[i].severity == severity)) {
            ++n;
        }
    }
    return n;
}

bool LogCapture::contains(const std::string& text, int severity) const {
    std::vector<Line> all = lines();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].text.find(text) != std::string::npos &&
            (severity < 0 || all[i].severity == severity)) {
            return true;
        }
    }
    return false;
}

void LogCapture::clear() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace quorvia_test
