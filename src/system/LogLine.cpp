#include "system/LogLine.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "system/Log.h"

namespace talvern {

LogLine::LogLine(const char* file, int line, int severity) {
    record_.severity = severity;
    record_.file = file;
    record_.line = line;
    clock_gettime(CLOCK_REALTIME, &record_.when);
    record_.tid = static_cast<unsigned>(syscall(SYS_gettid));
}

// A line that can't be handed over (no memory) is lost, never thrown out of
// a destructor.
LogLine::~LogLine() {
    try {
        record_.text = stream_.str();
        if (record_.text.size() > kMaxTextBytes) {
            record_.text.resize(kMaxTextBytes);
        }
        Log::sSubmit(std::move(record_));
    } catch (...) {
    }
}

}  // namespace talvern
