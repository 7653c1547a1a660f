#include "system/Log.h"

#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>

#include "system/LogOutput.h"
#include "system/LogQueue.h"

namespace talvern {

namespace {

const char* const kDaemonIdentity = "quorvia";
const char* const kSyslogSocket = "/dev/log";
// How long a crashing process waits for the logging thread to write what is
// queued before the crash takes its course.
const int kCrashFlushMillis = 2000;

// Never destroyed: lines may be said while the process's statics go away.
LogOutput& output() {
    static LogOutput* const sOutput =
        new LogOutput(kSyslogSocket, kDaemonIdentity, &SyslogClient::sSteadyMillis);
    return *sOutput;
}

std::atomic<LogQueue*> gQueue(nullptr);

void writeBatch(const std::deque<LogRecord>& batch) { output().write(batch); }

void flushAtExit() { Log::sFlush(); }

// The parent's logging thread does not exist in a forked child.
void writeOwnLinesInChild() { gQueue.store(nullptr); }

// glog's failure handler reports a crash through this writer: the first
// report lets the logging thread write the queued lines first.
void writeCrashReport(const char* data, size_t size) {
    static std::atomic<bool> flushed(false);
    LogQueue* const queue = gQueue.load();
    if (queue != nullptr && !flushed.exchange(true)) {
        queue->flushWithin(kCrashFlushMillis);
    }
    if (::write(STDERR_FILENO, data, size) < 0) {
        return;  // nowhere left to report to
    }
}

}  // namespace

void Log::sStartThread() {
    if (gQueue.load() != nullptr) {
        return;
    }
    gQueue.store(new LogQueue(&writeBatch));  // lives as long as the process
    pthread_atfork(NULL, NULL, &writeOwnLinesInChild);
    atexit(&flushAtExit);
    google::InstallFailureWriter(&writeCrashReport);
}

void Log::sFlush() {
    LogQueue* const queue = gQueue.load();
    if (queue != nullptr) {
        queue->flush();
    }
}

void Log::sSubmit(LogRecord&& record) {
    LogQueue* const queue = gQueue.load();
    if (queue != nullptr) {
        queue->push(std::move(record));
    } else {
        output().write(record);
    }
}

void Log::sSetIdentity(const std::string& identity) { output().setIdentity(identity); }

void Log::sAddSink(google::LogSink* sink) { output().addSink(sink); }

void Log::sRemoveSink(google::LogSink* sink) { output().removeSink(sink); }

}  // namespace talvern
