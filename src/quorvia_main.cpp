// The daemon: logging, then the Thrift service on 127.0.0.1:9088 from the main
// thread for the life of the process. It stays in the foreground; whatever
// supervises it starts and restarts it, and a signal ends it.

#include <glog/logging.h>
#include <stdio.h>
#include <string.h>

#include <exception>
#include <memory>

#include "system/Log.h"
#include "thriftwrapper/QuorviaHandler.h"
#include "thriftwrapper/QuorviaServer.h"

int main(int argc, char** argv) {
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
    QLOG(WARNING) << "quorvia daemon started.";

    // The demuxers of this FFmpeg generation register themselves: there is no
    // registration call to make before the first video request.

    // Place of the file-following side (the manager's dispatcher and monitor
    // thread): it has to be running before the server accepts its first
    // connection.

    // A port that is taken or a worker that can't start ends the process with
    // one line and a non-zero status, rather than a daemon that serves nothing.
    try {
        std::shared_ptr<talvern::TalvernIf> handler = std::make_shared<QuorviaHandler>();
        QuorviaServer server(handler, QuorviaServer::PORT_);
        server.serve();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "quorvia daemon can't serve on " << QuorviaServer::BIND_ADDRESS_ << ":"
                    << QuorviaServer::PORT_ << ": " << e.what();
        return 1;
    }
    return 0;
}
