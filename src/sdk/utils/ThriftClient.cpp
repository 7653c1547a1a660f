#include "sdk/utils/ThriftClient.h"

#include <exception>

#include "sdk/utils/ThriftConnection.h"
#include "system/Log.h"

// A name, not an address: the resolver decides which loopback address is
// tried. No time-outs are set, so the library's defaults hold.
const char* const ThriftClient::HOST_ = "localhost";
const int ThriftClient::PORT_ = 9088;

std::string ThriftClient::sCallQuorvia(const std::string& request) {
    std::string result;
    try {
        ThriftConnection connection;
        connection.transport().open();
        connection.client().request(result, request);
        connection.transport().close();
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
        ThriftConnection connection;
        connection.transport().open();
        connection.client().notify(result, type, parameter);
        connection.transport().close();
    } catch (const std::exception& e) {
        QLOG(ERROR) << "sNotifyQuorvia thrift notify exception error: " << e.what();
        result.clear();
    } catch (...) {
        QLOG(ERROR) << "sNotifyQuorvia thrift notify fail with unknown exception";
        result.clear();
    }
    return result;
}
