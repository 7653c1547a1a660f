#include "system/LogLine.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "system/Log.h"

namespace talvern {

namespace {

// What each thread keeps between its lines: its kernel id (0 until first
// asked) and its text buffer.
struct ThreadState {
    unsigned tid;
    bool streaming;
    std::ostringstream stream;
};

thread_local ThreadState tState = {0, false, std::ostringstream()};

// A forked child's thread has an id of its own.
void forgetTidInChild() { tState.tid = 0; }

unsigned threadId() {
    static const int sRegistered = pthread_atfork(NULL, NULL, &forgetTidInChild);
    (void)sRegistered;
    if (tState.tid == 0) {
        tState.tid = static_cast<unsigned>(syscall(SYS_gettid));
    }
    return tState.tid;
}

}  // namespace

LogLine::LogLine(const char* file, int line, int severity) {
    record_.severity = severity;
    record_.file = file;
    record_.line = line;
    clock_gettime(CLOCK_REALTIME, &record_.when);
    record_.tid = threadId();
    if (tState.streaming) {
        own_.reset(new std::ostringstream);
        stream_ = own_.get();
    } else {
        tState.streaming = true;
        stream_ = &tState.stream;
    }
}

// A line that can't be handed over (no memory) is lost, never thrown out of
// a destructor.
LogLine::~LogLine() {
    try {
        record_.text = stream_->str();
        if (record_.text.size() > kMaxTextBytes) {
            record_.text.resize(kMaxTextBytes);
        }
    } catch (...) {
    }
    if (!own_) {
        tState.stream.str(std::string());
        tState.stream.clear();
        tState.streaming = false;
    }
    try {
        Log::sSubmit(std::move(record_));
    } catch (...) {
    }
}

}  // namespace talvern
