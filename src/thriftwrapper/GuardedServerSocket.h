#ifndef QUORVIA_THRIFTWRAPPER_GUARDEDSERVERSOCKET_H
#define QUORVIA_THRIFTWRAPPER_GUARDEDSERVERSOCKET_H

#include <thrift/transport/TNonblockingServerSocket.h>

#include <memory>
#include <string>

#include "system/RateLimitedCount.h"
#include "thriftwrapper/ConnectionRoom.h"

// The server's listening socket, for which a failed accept is no reason to
// end. The router's other components share the descriptor table: when
// accept fails (EMFILE, ENFILE, a peer gone before it was taken), the server
// is handed a socket that was never opened, which it drops, and goes on
// serving the connections it has. Each failure costs the I/O thread a short
// pause, so that a peer left pending while descriptors are short does not
// make it spin, and the failures are logged once a second at most.
//
// Each socket accepted is told to the room, which may shut an idle
// connection down to make place for it.
//
// Called on the server's I/O thread only.
class GuardedServerSocket : public apache::thrift::transport::TNonblockingServerSocket {
public:
    // Pause after a failed accept.
    static constexpr int kFailurePauseMilliseconds = 10;
    // At most one WARNING line about failed accepts in this time.
    static constexpr int kLogEverySeconds = 1;

    GuardedServerSocket(const std::string& address, int port,
                        const std::shared_ptr<ConnectionRoom>& room);
    virtual ~GuardedServerSocket();

protected:
    virtual std::shared_ptr<apache::thrift::transport::TSocket> acceptImpl();

private:
    void noteFailure(const std::string& what);

    std::shared_ptr<ConnectionRoom> room_;
    RateLimitedCount failures_;
};

#endif
