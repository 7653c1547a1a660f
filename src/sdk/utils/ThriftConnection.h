#ifndef QUORVIA_SDK_UTILS_THRIFTCONNECTION_H
#define QUORVIA_SDK_UTILS_THRIFTCONNECTION_H

#include <thrift/transport/TTransport.h>

#include <memory>

#include "Talvern.h"

// One connection to the daemon's loopback service for one call: the server's
// protocol settings (strict read off, strict write on) around the framed
// transport that the non-blocking server demands, with no limit on the size
// of a reply. The objects release the socket when they go out of scope, also
// after a failure. Open, call and close on one thread.
class ThriftConnection {
public:
    // timeoutMillis bounds the connect and each send and receive; 0 sets
    // none, and a call then waits as long as the daemon takes.
    explicit ThriftConnection(int timeoutMillis = 0);
    virtual ~ThriftConnection() {}

    talvern::TalvernClient& client() { return client_; }
    apache::thrift::transport::TTransport& transport() { return *transport_; }

private:
    std::shared_ptr<apache::thrift::transport::TTransport> transport_;
    talvern::TalvernClient client_;
};

#endif
