#include "api/QuorviaApi.h"

#include <json-c/json.h>

#include "multimedia/Metadata.h"
#include "multimedia/QuorviaContext.h"
#include "multimedia/QuorviaDBMgr.h"

using quorvia::QuorviaContext;
using quorvia::QuorviaDBMgr;
using talvern::Metadata;
using talvern::metadata_s;

namespace {

// The store's record for hash; false on a miss. A row without a title counts
// as a miss, so that the file is read again and the row replaced.
bool lookUp(const std::string& hash, metadata_s& metadata) {
    return QuorviaDBMgr::sGetInstance().getMetadataByHash(hash, metadata) &&
           !metadata.title.empty();
}

// Stores what the extraction left, whatever its result: a failed insert costs
// only the cache entry.
void store(const std::string& path, const std::string& hash, const metadata_s& metadata) {
    QuorviaContext context;
    context.path = path;
    context.hash = hash;
    context.metadata = metadata;
    QuorviaDBMgr::sGetInstance().insertToDB(context);
}

// The store's record for hash, or else the one that extract(metadata) reads
// from the file, stored under hash and path.
template <typename Extract>
metadata_s recordOf(const std::string& path, const std::string& hash, Extract extract) {
    metadata_s metadata;
    if (!lookUp(hash, metadata)) {
        extract(metadata);
        store(path, hash, metadata);
    }
    return metadata;
}

void addString(json_object* object, const char* key, const std::string& value) {
    json_object_object_add(
        object, key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

std::string textOf(json_object* object) {
    const std::string text = json_object_to_json_string(object);
    json_object_put(object);
    return text;
}

}  // namespace

std::string QuorviaApi::getImageMetadata(const std::string& path, const std::string& name,
                                         long defaultModifyTime, const std::string& hash) const {
    const metadata_s metadata = recordOf(path, hash, [&](metadata_s& record) {
        Metadata::getImageMetadata(path, name, defaultModifyTime, record, "", false);
    });
    json_object* response = sCreateJsonObject(SUCCESS);
    addString(response, "title", metadata.title);
    addString(response, "mime", metadata.mime);
    json_object_object_add(response, "date",
                           json_object_new_int(static_cast<int32_t>(metadata.date)));
    return textOf(response);
}

std::string QuorviaApi::getAudioMetadata(const std::string& path, const std::string& name,
                                         const std::string& hash) const {
    const metadata_s metadata = recordOf(
        path, hash, [&](metadata_s& record) { Metadata::getAudioMetadata(path, name, record); });
    json_object* response = sCreateJsonObject(SUCCESS);
    addString(response, "title", metadata.title);
    addString(response, "mime", metadata.mime);
    addString(response, "album", metadata.album);
    addString(response, "artist", metadata.artist);
    addString(response, "duration", metadata.duration);
    json_object_object_add(response, "date",
                           json_object_new_int(static_cast<int32_t>(metadata.date)));
    return textOf(response);
}

std::string QuorviaApi::getVedioMetadata(const std::string& path, const std::string& name,
                                         long defaultModifyTime, const std::string& hash) const {
    const metadata_s metadata = recordOf(path, hash, [&](metadata_s& record) {
        Metadata::getVideoMetadata(path, name, defaultModifyTime, record, "", false);
    });
    json_object* response = sCreateJsonObject(SUCCESS);
    addString(response, "title", metadata.title);
    addString(response, "duration", metadata.duration);
    json_object_object_add(response, "date",
                           json_object_new_int(static_cast<int32_t>(metadata.date)));
    return textOf(response);
}

std::string QuorviaApi::processUmount(const std::string& root) const {
    QuorviaDBMgr::sGetInstance().deleteMetadataByRootPath(root);
    return textOf(sCreateJsonObject(SUCCESS));
}
