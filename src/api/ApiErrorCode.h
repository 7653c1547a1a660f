#ifndef QUORVIA_API_APIERRORCODE_H
#define QUORVIA_API_APIERRORCODE_H

// Result codes of the shared tree, signed 32-bit; 0 is success. Peers see the
// numbers and the messages of ApiBase::sCreateJsonObject, never these names.
enum ApiErrorCode {
    API_NOT_EXISTS = -1,
    SUCCESS = 0,
    PARAMETER_MISSING = 1,
    PARAMETER_EMPTY = 2,
    PARAMETER_FORMAT_ERROR = 3,
    UNKNOWN_ERROR = 4,
    INVALID_APPID = 5,
    PARAMETER_ERROR = 6,

    FILE_COPY_FAILED = 1005,
    NO_SPACE_LEFT_ON_DEVICE = 1040,
    COPY_CANCELLED = 1061,
};

#endif
