#ifndef QUORVIA_API_QUORVIAAPIMAPPING_H
#define QUORVIA_API_QUORVIAAPIMAPPING_H

#include <json-c/json.h>

#include <string>

#include "api/QuorviaApi.h"

// Routes one JSON request to its QuorviaApi operation. Requests are objects
// whose number "api" selects the operation:
//   0 image {"path","name","hash","defaultModifyTime"}
//   1 audio {"path","name","hash"}
//   2 video {"path","name","hash","defaultModifyTime"}
//   3 unmount {"root"}
// Other keys are ignored; a key whose value is null counts as missing; values
// are coerced the way json-c reads them. Make one per request, on the stack:
// it carries nothing from one request to the next, and each thread uses its
// own.
class QuorviaAPIMapping {
public:
    // Highest "api" number that selects an operation.
    static const unsigned int LAST_API_ = 3;

    virtual ~QuorviaAPIMapping() {}

    // The response text. The empty string (no JSON at all) when the text is
    // not a JSON document, has no "api", or names no operation; code 1 when a
    // required key is missing; code 2 when "path", "name" or "hash" (or the
    // unmount "root") is empty. An unmount without "root" throws
    // std::logic_error, for the caller's guard to log.
    std::string redirectRequest(const std::string& request) const;

    void parseGetImageMetadata(json_object* request, std::string& result) const;
    void parseGetAudioMetadata(json_object* request, std::string& result) const;
    void parseGetVedioMetadata(json_object* request, std::string& result) const;
    void parseUmountDevice(json_object* request, std::string& result) const;

    std::string createParameterMissingJsonString() const;
    std::string createParameterEmptyJsonString() const;
    std::string createParameterFormatErrorString() const;

private:
    // The keys of a metadata request, read in the order they are checked.
    struct MediaRequest {
        std::string path;
        std::string name;
        std::string hash;
        long defaultModifyTime;
    };

    // Reads "path", "name", "hash" and, when withTime, "defaultModifyTime".
    // false after setting result to code 1 (a key missing, tested first) or
    // code 2 (a text empty) and logging the parser's line.
    bool readMediaRequest(json_object* request, bool withTime, const char* parser,
                          MediaRequest& media, std::string& result) const;

    QuorviaApi api_;
};

#endif
