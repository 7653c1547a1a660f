#include <json-c/json.h>

#include "multimedia/Metadata.h"
#include "sdk/utils/ThriftClient.h"

namespace talvern {

namespace {

enum ReplyField { kTitle, kMime, kAlbum, kArtist, kDuration, kDate };

// The JSON text of a request; the keys go in the order given by the callers.
class Request {
public:
    explicit Request(int api) : object_(json_object_new_object()) {
        json_object_object_add(object_, "api", json_object_new_int(api));
    }
    ~Request() { json_object_put(object_); }

    Request& text(const char* key, const std::string& value) {
        json_object_object_add(object_, key,
                               json_object_new_string_len(value.data(),
                                                          static_cast<int>(value.size())));
        return *this;
    }
    Request& number(const char* key, long value) {
        json_object_object_add(object_, key, json_object_new_int(static_cast<int32_t>(value)));
        return *this;
    }
    std::string toString() const { return json_object_to_json_string(object_); }

private:
    Request(const Request&);
    Request& operator=(const Request&);

    json_object* object_;
};

// The value of key; NULL when the reply lacks it or holds null there, which
// counts as lacking it.
json_object* valueOf(json_object* reply, const char* key) {
    json_object* value = NULL;
    json_object_object_get_ex(reply, key, &value);
    return value;
}

void copyText(json_object* reply, const char* key, std::string& field) {
    if (json_object* value = valueOf(reply, key)) {
        field = json_object_get_string(value);
    }
}

void copyField(json_object* reply, ReplyField field, metadata_s& metadata) {
    switch (field) {
        case kTitle:
            copyText(reply, "title", metadata.title);
            break;
        case kMime:
            copyText(reply, "mime", metadata.mime);
            break;
        case kAlbum:
            copyText(reply, "album", metadata.album);
            break;
        case kArtist:
            copyText(reply, "artist", metadata.artist);
            break;
        case kDuration:
            copyText(reply, "duration", metadata.duration);
            break;
        case kDate:
            if (json_object* value = valueOf(reply, "date")) {
                metadata.date = json_object_get_int(value);
            }
            break;
    }
}

// Sends the request to the daemon and copies the listed fields of a reply
// whose "code" is 0 (or absent). -1 when the reply doesn't parse as JSON.
int callDaemon(const Request& request, const ReplyField* fields, size_t count,
               metadata_s& metadata) {
    const std::string replyText = ThriftClient::sCallQuorvia(request.toString());
    json_object* reply = json_tokener_parse(replyText.c_str());
    if (reply == NULL) {
        return -1;
    }
    json_object* code = NULL;
    if (!json_object_object_get_ex(reply, "code", &code) || json_object_get_int(code) == 0) {
        for (size_t i = 0; i < count; ++i) {
            copyField(reply, fields[i], metadata);
        }
    }
    json_object_put(reply);
    return 0;
}

}  // namespace

int Metadata::getImageMetadataViaThrift(const std::string& path, const std::string& hash,
                                        const std::string& name, long defaultModifyTime,
                                        metadata_s& metadata) {
    Request request(0);
    request.text("path", path).text("name", name).text("hash", hash).number(
        "defaultModifyTime", defaultModifyTime);
    static const ReplyField kFields[] = {kTitle, kMime, kDate};
    return callDaemon(request, kFields, sizeof(kFields) / sizeof(kFields[0]), metadata);
}

int Metadata::getAudioMetadataViaThrift(const std::string& path, const std::string& hash,
                                        const std::string& name, metadata_s& metadata) {
    Request request(1);
    request.text("path", path).text("name", name).text("hash", hash);
    static const ReplyField kFields[] = {kTitle, kMime, kAlbum, kArtist, kDuration, kDate};
    return callDaemon(request, kFields, sizeof(kFields) / sizeof(kFields[0]), metadata);
}

int Metadata::getVideoMetadataViaThrift(const std::string& path, const std::string& hash,
                                        const std::string& name, long defaultModifyTime,
                                        metadata_s& metadata) {
    Request request(2);
    request.text("path", path).text("name", name).text("hash", hash).number(
        "defaultModifyTime", defaultModifyTime);
    static const ReplyField kFields[] = {kTitle, kDuration, kDate};
    return callDaemon(request, kFields, sizeof(kFields) / sizeof(kFields[0]), metadata);
}

}  // namespace talvern
