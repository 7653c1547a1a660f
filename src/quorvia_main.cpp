// The daemon: logging, the file-following side, then the Thrift service on
// 127.0.0.1:9088 from the main thread for the life of the process. It stays
// in the foreground; whatever supervises it starts and restarts it, and a
// signal ends it.

#include <errno.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <string>
#include <thrift/TOutput.h>

#include "multimedia/MediaReadGuard.h"
#include "multimedia/Metadata.h"
#include "multimedia/QuorviaManager.h"
#include "storage/Directory.h"
#include "system/ConfigInfo.h"
#include "system/Log.h"
#include "thriftwrapper/QuorviaHandler.h"
#include "thriftwrapper/QuorviaServer.h"

namespace {

// Ends the process with status while the file-following threads still run:
// the static destructors (the inotify descriptor, the store) must not run
// under them, so the logs are flushed by hand and the process leaves at once.
void leave(int status) {
    talvern::Log::sFlush();
    google::FlushLogFiles(google::GLOG_INFO);
    fflush(stdout);
    fflush(stderr);
    _exit(status);
}

// Started with standard input, output or error closed (by an init script),
// the first files opened would take their numbers, and every line meant for
// standard error would go into them: a media-read marker, say. /dev/null
// holds the numbers instead.
void keepStandardDescriptorsOpen() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            const int null = open("/dev/null", O_RDWR);
            if (null > 2) {
                close(null);
            }
        }
    }
}

// Thrift's own notes (a message of a type no server takes, a peer gone in
// the middle of a frame) go to the daemon's log, not to a standard error
// that a service may drop.
void logThriftNote(const char* text) { QLOG(INFO) << text; }

// The store's folder, where the media-read markers are kept; -1 (no markers
// yet) while it is missing or a link planted on the disk leads it elsewhere.
int openMarkerFolder(std::string& folder) {
    talvern::ConfigInfo* const config = talvern::ConfigInfo::sGetInstance();
    folder = config->getDatabaseRootPath();
    return talvern::Directory::sOpenBelow(config->getUserdiskDataPath(), folder);
}

}  // namespace

int main(int argc, char** argv) {
    keepStandardDescriptorsOpen();
    printf("argc is %d, argv is NULL? %d\n", argc, argv == NULL ? 1 : 0);
    fflush(stdout);

    google::InitGoogleLogging("quorvia");
    // Only the first argument counts; anything else means nothing and is no
    // error.
    FLAGS_logtostderr = false;
    if (argc > 1 && argv != NULL && strcmp(argv[1], "-d") == 0) {
        FLAGS_logtostderr = true;
    }
    google::InstallFailureSignalHandler();
    // Video containers are parsed in children of a process made now, while
    // this one has a single thread (a child forked later would copy the locks
    // other threads hold).
    const bool videoReaders = talvern::Metadata::sStartVideoReaders();
    // Lines are written by a thread of their own from here on, so that no
    // request waits on syslog or a log file. Without it, this line is
    // written at once.
    try {
        talvern::Log::sStartThread();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "quorvia daemon can't start its logging thread: " << e.what();
        leave(1);
    }
    QLOG(WARNING) << "quorvia daemon started.";
    if (!videoReaders) {
        QLOG(WARNING) << "no process to read video in: videos are read by the daemon";
    }

    // The demuxers of this FFmpeg generation register themselves: there is no
    // registration call to make before the first video request.

    // A media file that crashed the last run is not read again. The store's
    // folder is looked at by the first read, once a request made it.
    talvern::MediaReadGuard::sRecover(&openMarkerFolder);

    // A thread that can't start or a port that is taken ends the process
    // with one line that names the cause and a non-zero status, rather than
    // a daemon that serves nothing.
    try {
        // The file-following side (the dispatcher's worker and the monitor
        // thread) runs before the server accepts its first connection; the
        // manager stays alive through its own instance pointer.
        quorvia::QuorviaManager::sGetInstance()->run();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "quorvia daemon can't start its file-following threads: " << e.what();
        leave(1);
    }
    try {
        apache::thrift::GlobalOutput.setOutputFunction(logThriftNote);
        std::shared_ptr<talvern::TalvernIf> handler = std::make_shared<QuorviaHandler>();
        QuorviaServer server(handler, QuorviaServer::PORT_);
        server.serve();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "quorvia daemon can't serve on " << QuorviaServer::BIND_ADDRESS_ << ":"
                    << QuorviaServer::PORT_ << ": " << e.what();
        leave(1);
    }
    leave(0);
}
