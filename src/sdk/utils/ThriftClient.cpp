#include "sdk/utils/ThriftClient.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <exception>
#include <memory>

#include "Talvern.h"
#include "system/Log.h"

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;

// A name, not an address: the resolver decides which loopback address is
// tried. No time-outs are set, so the library's defaults hold.
const char* const ThriftClient::HOST_ = "localhost";
const int ThriftClient::PORT_ = 9088;

namespace {

// One connection for one call: the server's protocol settings (no size limits,
// strict read off, strict write on) around the framed transport that the
// non-blocking server demands. The objects release the socket when they go
// out of scope, also after a failure.
class Connection {
public:
    Connection()
        : socket_(new TSocket(ThriftClient::HOST_, ThriftClient::PORT_)),
          transport_(new TFramedTransport(socket_)),
          client_(std::make_shared<TBinaryProtocol>(transport_, 0, 0, false, true)) {}

    talvern::TalvernClient& client() { return client_; }
    std::shared_ptr<TTransport>& transport() { return transport_; }

private:
    std::shared_ptr<TTransport> socket_;
    std::shared_ptr<TTransport> transport_;
    talvern::TalvernClient client_;
};

}  // namespace

std::string ThriftClient::sCallQuorvia(const std::string& request) {
    std::string result;
    try {
        Connection connection;
        connection.transport()->open();
        connection.client().request(result, request);
        connection.transport()->close();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "sCallQuorvia thrift request exception error: " << e.what();
        result.clear();
    } catch (...) {
        QLOG(ERROR) << "sCallQuorvia thrift request fail with unknown exception";
        result.clear();
    }
    return result;
}

std::string ThriftClient::sNotifyQuorvia(int32_t type, const std::string& parameter) {
    std::string result;
    try {
        Connection connection;
        connection.transport()->open();
        connection.client().notify(result, type, parameter);
        connection.transport()->close();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "sNotifyQuorvia thrift notify exception error: " << e.what();
        result.clear();
    } catch (...) {
        QLOG(ERROR) << "sNotifyQuorvia thrift notify fail with unknown exception";
        result.clear();
    }
    return result;
}
