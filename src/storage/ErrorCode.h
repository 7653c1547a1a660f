#ifndef QUORVIA_STORAGE_ERRORCODE_H
#define QUORVIA_STORAGE_ERRORCODE_H

#include <boost/system/error_code.hpp>

#include "api/ApiErrorCode.h"

namespace talvern {

// Result of the file and directory helpers: the system error (value 0 when
// none) and the API code chosen by the operation (0 when none). Only
// File::sCopy sets the API code; the others report through the system error.
class ErrorCode {
public:
    ErrorCode() : systemError_(), apiError_(SUCCESS) {}
    explicit ErrorCode(const boost::system::error_code& systemError)
        : systemError_(systemError), apiError_(SUCCESS) {}
    explicit ErrorCode(ApiErrorCode apiError) : systemError_(), apiError_(apiError) {}
    virtual ~ErrorCode() {}

    const boost::system::error_code& systemError() const { return systemError_; }
    ApiErrorCode apiError() const { return apiError_; }
    void setSystemError(const boost::system::error_code& error) { systemError_ = error; }
    // True when neither a system error nor an API code is set.
    bool ok() const { return !systemError_ && apiError_ == SUCCESS; }

private:
    boost::system::error_code systemError_;
    ApiErrorCode apiError_;
};

}  // namespace talvern

#endif
