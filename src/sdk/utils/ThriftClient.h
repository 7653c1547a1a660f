#ifndef QUORVIA_SDK_UTILS_THRIFTCLIENT_H
#define QUORVIA_SDK_UTILS_THRIFTCLIENT_H

#include <stdint.h>

#include <string>

// The calling side of the daemon's loopback service, for any process that
// links the shared tree. Every call opens its own connection to
// "localhost":9088 and closes it again; nothing is kept between calls, so any
// number of threads may call at once. Inside the daemon nothing calls it: it
// would connect the daemon to itself.
class ThriftClient {
public:
    virtual ~ThriftClient() {}

    static const char* const HOST_;
    static const int PORT_;

    // Sends request as the parameter of the method "request" and returns the
    // reply's text. Any failure (no daemon, a broken connection, an exception
    // reply) is logged at ERROR and gives the empty string, which callers
    // treat like a reply that does not parse. Throws nothing.
    static std::string sCallQuorvia(const std::string& request);

    // The same for the method "notify"; the daemon answers it with the empty
    // string, so only the log tells a failure here.
    static std::string sNotifyQuorvia(int32_t type, const std::string& parameter);
};

#endif
