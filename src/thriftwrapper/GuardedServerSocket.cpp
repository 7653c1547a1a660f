#include "thriftwrapper/GuardedServerSocket.h"

#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <unistd.h>

#include "system/Log.h"

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

GuardedServerSocket::GuardedServerSocket(const std::string& address, int port,
                                         const std::shared_ptr<ConnectionRoom>& room)
    : TNonblockingServerSocket(address, port), room_(room), lastLog_(), failuresSinceLog_(0) {}

GuardedServerSocket::~GuardedServerSocket() {}

std::shared_ptr<TSocket> GuardedServerSocket::acceptImpl() {
    try {
        std::shared_ptr<TSocket> socket = TNonblockingServerSocket::acceptImpl();
        room_->accepted(socket->getSocketFD());
        return socket;
    } catch (const TTransportException& e) {
        noteFailure(e.what());
        usleep(kFailurePauseMilliseconds * 1000);
    }
    // The server finds that it can't make this socket non-blocking, closes
    // it (nothing to close) and waits for the next peer.
    return std::make_shared<TSocket>(THRIFT_INVALID_SOCKET);
}

void GuardedServerSocket::noteFailure(const std::string& what) {
    ++failuresSinceLog_;
    const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
    if (now - lastLog_ < std::chrono::seconds(kLogEverySeconds)) {
        return;
    }
    QLOG(WARNING) << "accept failed (" << failuresSinceLog_
                  << " time(s) since the last line): " << what << "; serving the open connections";
    lastLog_ = now;
    failuresSinceLog_ = 0;
}
