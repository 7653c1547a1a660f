#include "thriftwrapper/GuardedServerSocket.h"

#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <unistd.h>

#include "system/Log.h"

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

GuardedServerSocket::GuardedServerSocket(const std::string& address, int port,
                                         const std::shared_ptr<ConnectionRoom>& room)
    : TNonblockingServerSocket(address, port),
      room_(room),
      failures_(std::chrono::seconds(kLogEverySeconds)) {}

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
    const unsigned long failures = failures_.count();
    if (failures > 0) {
        QLOG(WARNING) << "accept failed (" << failures << " time(s) since the last line): " << what
                      << "; serving the open connections";
    }
}
