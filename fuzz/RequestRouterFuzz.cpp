// The request router against arbitrary request text, as a peer sends it:
// every answer is either the empty string or a JSON object whose "code" is
// one of the codes the daemon answers with (done, missing, empty). The store
// lives in a private device root; paths in the requests are used as given,
// so a request may read any file of this machine as media, which is what the
// daemon does too.
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>

#include <stdexcept>
#include <string>

#include "FuzzRoot.h"
#include "api/ApiErrorCode.h"
#include "api/QuorviaAPIMapping.h"

namespace {

void checkAnswer(const std::string& answer) {
    if (answer.empty()) {
        return;
    }
    json_object* document = json_tokener_parse(answer.c_str());
    json_object* code = NULL;
    if (document == NULL || !json_object_object_get_ex(document, "code", &code) ||
        !json_object_is_type(code, json_type_int) || json_object_get_int(code) < SUCCESS ||
        json_object_get_int(code) > PARAMETER_EMPTY) {
        __builtin_trap();
    }
    json_object_put(document);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quorvia_fuzz::privateRoot("router");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string request(reinterpret_cast<const char*>(data), size);
    try {
        checkAnswer(QuorviaAPIMapping().redirectRequest(request));
    } catch (const std::logic_error&) {
        // An unmount without a root: the service's guard logs it.
    }
    return 0;
}
