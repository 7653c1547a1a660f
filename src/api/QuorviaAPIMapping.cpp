#include "api/QuorviaAPIMapping.h"

#include <locale.h>
#include <math.h>

#include <memory>
#include <stdexcept>

#include "api/ApiBase.h"
#include "system/Log.h"

const unsigned int QuorviaAPIMapping::LAST_API_;

namespace {

struct JsonRelease {
    void operator()(json_object* object) const { json_object_put(object); }
};
typedef std::unique_ptr<json_object, JsonRelease> JsonHolder;

// json_object_get_int, except that NaN reads as 0: json-c casts it to int,
// which gives a different number on each processor.
int32_t readInt(json_object* value) {
    if (json_object_is_type(value, json_type_double) && isnan(json_object_get_double(value))) {
        return 0;
    }
    return json_object_get_int(value);
}

// json_object_get_string; a value of another type reads as its JSON text.
std::string readString(json_object* value) { return json_object_get_string(value); }

// An unmount root that would match every row: empty, or "/" (any number of
// them, since one trailing "/" is dropped before matching).
bool coversWholeTree(const std::string& root) {
    return root.find_first_not_of('/') == std::string::npos;
}

struct TokenerRelease {
    void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
};

// What json_tokener_parse makes of text. Each request thread keeps one
// parser, in the static C locale: json-c otherwise allocates a parser for
// every document and copies the thread's locale under glibc's process-wide
// locale lock. The daemon never sets a locale, so C is what these threads
// ran in before as well.
json_object* parse(const std::string& text) {
    static thread_local const locale_t previous = uselocale(newlocale(LC_ALL_MASK, "C", NULL));
    static thread_local const std::unique_ptr<json_tokener, TokenerRelease> tokener(
        json_tokener_new());
    (void)previous;
    if (!tokener) {
        return NULL;
    }
    json_tokener_reset(tokener.get());
    json_object* document = json_tokener_parse_ex(tokener.get(), text.c_str(), -1);
    if (json_tokener_get_error(tokener.get()) != json_tokener_success && document != NULL) {
        json_object_put(document);
        document = NULL;
    }
    return document;
}

std::string jsonStringOf(ApiErrorCode code) {
    std::string result;
    json_object* object = ApiBase::sCreateJsonObject(code);
    result = json_object_to_json_string(object);
    json_object_put(object);
    return result;
}

}  // namespace

std::string QuorviaAPIMapping::redirectRequest(const std::string& request) const {
    std::string result;
    JsonHolder document(parse(request));
    QLOG(INFO) << "QuorviaAPIMapping, jobj is null? " << (document ? 0 : 1);
    if (!document) {
        return result;
    }
    json_object* api = json_object_object_get(document.get(), "api");
    if (api == NULL) {
        return result;
    }
    // Negative numbers, read as unsigned, lie above the last operation too.
    const unsigned int operation = static_cast<unsigned int>(readInt(api));
    if (operation > LAST_API_) {
        return result;
    }
    switch (operation) {
        case 0:
            parseGetImageMetadata(document.get(), result);
            break;
        case 1:
            parseGetAudioMetadata(document.get(), result);
            break;
        case 2:
            parseGetVedioMetadata(document.get(), result);
            break;
        default:
            parseUmountDevice(document.get(), result);
            break;
    }
    return result;
}

bool QuorviaAPIMapping::readMediaRequest(json_object* request, bool withTime, const char* parser,
                                         MediaRequest& media, std::string& result) const {
    json_object* path = json_object_object_get(request, "path");
    json_object* name = json_object_object_get(request, "name");
    json_object* hash = json_object_object_get(request, "hash");
    json_object* time = withTime ? json_object_object_get(request, "defaultModifyTime") : NULL;
    if (path == NULL || name == NULL || hash == NULL || (withTime && time == NULL)) {
        result = createParameterMissingJsonString();
        QLOG(INFO) << "QuorviaAPIMapping::" << parser << " api parameter missing";
        return false;
    }
    media.path = readString(path);
    media.name = readString(name);
    media.hash = readString(hash);
    media.defaultModifyTime = withTime ? readInt(time) : 0;
    if (media.path.empty() || media.name.empty() || media.hash.empty()) {
        result = createParameterEmptyJsonString();
        QLOG(INFO) << "QuorviaAPIMapping::" << parser << " api parameter empty";
        return false;
    }
    return true;
}

void QuorviaAPIMapping::parseGetImageMetadata(json_object* request, std::string& result) const {
    MediaRequest media;
    if (readMediaRequest(request, true, "parseGetImageMetadata", media, result)) {
        result = api_.getImageMetadata(media.path, media.name, media.defaultModifyTime, media.hash);
    }
}

void QuorviaAPIMapping::parseGetAudioMetadata(json_object* request, std::string& result) const {
    MediaRequest media;
    if (readMediaRequest(request, false, "parseGetAudioMetadata", media, result)) {
        result = api_.getAudioMetadata(media.path, media.name, media.hash);
    }
}

void QuorviaAPIMapping::parseGetVedioMetadata(json_object* request, std::string& result) const {
    MediaRequest media;
    if (readMediaRequest(request, true, "parseGetVedioMetadata", media, result)) {
        result = api_.getVedioMetadata(media.path, media.name, media.defaultModifyTime, media.hash);
    }
}

void QuorviaAPIMapping::parseUmountDevice(json_object* request, std::string& result) const {
    json_object* root = json_object_object_get(request, "root");
    // No root leaves nothing to copy: a logic error, which the handler's guard
    // logs and answers with the empty string.
    if (root == NULL) {
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    const std::string rootText = readString(root);
    // An empty root or "/" would drop every disk's rows: refused, nothing
    // touched.
    if (coversWholeTree(rootText)) {
        result = createParameterEmptyJsonString();
        QLOG(INFO) << "QuorviaAPIMapping::parseUmountDevice api parameter empty";
        return;
    }
    result = api_.processUmount(rootText);
}

std::string QuorviaAPIMapping::createParameterMissingJsonString() const {
    return jsonStringOf(PARAMETER_MISSING);
}

std::string QuorviaAPIMapping::createParameterEmptyJsonString() const {
    return jsonStringOf(PARAMETER_EMPTY);
}

std::string QuorviaAPIMapping::createParameterFormatErrorString() const {
    return jsonStringOf(PARAMETER_FORMAT_ERROR);
}
