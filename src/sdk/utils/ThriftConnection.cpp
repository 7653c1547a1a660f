#include "sdk/utils/ThriftConnection.h"

#include <thrift/TConfiguration.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <limits>

#include "sdk/utils/ThriftClient.h"

using apache::thrift::TConfiguration;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;

namespace {

// A reply of any length comes back whole: the library's own limits (16 MB a
// frame, 100 MB a message) would drop a longer one.
std::shared_ptr<TConfiguration> withoutSizeLimits() {
    const int unlimited = std::numeric_limits<int>::max();
    return std::make_shared<TConfiguration>(unlimited, unlimited);
}

std::shared_ptr<TTransport> framedSocket(int timeoutMillis) {
    const std::shared_ptr<TConfiguration> configuration = withoutSizeLimits();
    const std::shared_ptr<TSocket> socket =
        std::make_shared<TSocket>(ThriftClient::HOST_, ThriftClient::PORT_, configuration);
    if (timeoutMillis > 0) {
        socket->setConnTimeout(timeoutMillis);
        socket->setRecvTimeout(timeoutMillis);
        socket->setSendTimeout(timeoutMillis);
    }
    return std::make_shared<TFramedTransport>(socket, configuration);
}

}  // namespace

ThriftConnection::ThriftConnection(int timeoutMillis)
    : transport_(framedSocket(timeoutMillis)),
      client_(std::make_shared<TBinaryProtocol>(transport_, 0, 0, false, true)) {}
