#ifndef QUORVIA_THRIFTWRAPPER_QUORVIAHANDLER_H
#define QUORVIA_THRIFTWRAPPER_QUORVIAHANDLER_H

#include <stdint.h>

#include <string>

#include "Talvern.h"

// The daemon's side of the service. One instance serves every connection; it
// holds no data, so the server's workers call it at the same time.
class QuorviaHandler : virtual public talvern::TalvernIf {
public:
    virtual ~QuorviaHandler() {}

    // Routes the JSON request and leaves the response in result. The last
    // guard of a request: nothing escapes; a request that fails with an
    // exception is logged at ERROR and answered with the empty string.
    virtual void request(std::string& result, const std::string& parameter);

    // Does nothing: result stays empty, the arguments are not looked at.
    virtual void notify(std::string& result, const int32_t type, const std::string& parameter);
};

#endif
