#ifndef QUORVIA_API_APIBASE_H
#define QUORVIA_API_APIBASE_H

#include <json-c/json.h>

#include "api/ApiErrorCode.h"

// The head of every JSON response: the keys "code" and "msg", in that order.
// Holds no data; any thread may call.
class ApiBase {
public:
    virtual ~ApiBase() {}

    // A new object {"code": code, "msg": message of code}. A code without a
    // message (0 among them, and every gap in the numbers) gets the empty
    // string; no code is refused. The caller owns the object, may add keys
    // behind the two and releases it with json_object_put.
    static json_object* sCreateJsonObject(ApiErrorCode code);

    // The message of code, the empty string when it has none. The text is
    // static and lives as long as the program.
    static const char* sMessageOf(ApiErrorCode code);
};

#endif
