extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include <boost/lexical_cast.hpp>
#include <chrono>
#include <string>

#include "multimedia/ContainerReader.h"
#include "multimedia/MediaReadGuard.h"
#include "multimedia/Metadata.h"
#include "multimedia/MetadataTime.h"
#include "multimedia/MetadataVideoProbe.h"
#include "system/Log.h"

namespace talvern {

namespace {

const char* const kMp4FamilyName = "mov,mp4,m4a,3gp,3g2,mj2";
// Where the date and the time of a creation time meet: "T" (ISO 8601, as
// current muxers write it) or a blank (older muxers).
const size_t kDateTimeSeparatorIndex = 10;

typedef std::chrono::steady_clock Clock;

// Stream probing decodes frames and costs far more than the open. It can only
// change what the record takes (the duration and the streams' types) where
// the header left them open, so it runs only there.
bool needsStreamInfo(const AVFormatContext* context) {
    if (context->duration <= 0 || (context->ctx_flags & AVFMTCTX_NOHEADER) != 0 ||
        context->nb_streams == 0) {
        return true;
    }
    for (unsigned int i = 0; i < context->nb_streams; ++i) {
        if (context->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_UNKNOWN) {
            return true;
        }
    }
    return false;
}

bool hasVideoStream(const AVFormatContext* context) {
    for (unsigned int i = 0; i < context->nb_streams; ++i) {
        if (context->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            return true;
        }
    }
    return false;
}

void readDuration(const std::string& path, const AVFormatContext* context,
                  metadata_s& metadata) {
    QLOG(INFO) << "find AVMEDIA_TYPE_VIDEO";
    if (context->duration < 1) {
        return;
    }
    metadata.duration = boost::lexical_cast<std::string>(context->duration / AV_TIME_BASE);
    QLOG(INFO) << "video " << path << " raw duration is " << metadata.duration;
}

void readCreationTime(const AVFormatContext* context, metadata_s& metadata) {
    if (std::string(context->iformat->name) != kMp4FamilyName || context->metadata == NULL) {
        return;
    }
    const AVDictionaryEntry* entry = NULL;
    while ((entry = av_dict_get(context->metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != NULL) {
        if (std::string(entry->key) == "creation_time") {
            break;
        }
    }
    if (entry == NULL) {
        return;
    }
    QLOG(INFO) << "creation_time is " << entry->value;
    std::string text(entry->value);
    if (text.size() > kDateTimeSeparatorIndex && text[kDateTimeSeparatorIndex] == 'T') {
        text[kDateTimeSeparatorIndex] = ' ';
    }
    metadatatime::parseLocalTime(text.c_str(), "%Y-%m-%d %H:%M:%S", metadata.date);
}

}  // namespace

namespace videoprobe {

bool readContainer(const std::string& path, metadata_s& metadata, StreamInfoPolicy policy,
                   Clock::duration openLimit) {
    MediaReadGuard guard(path);
    if (!guard.admitted()) {
        return false;
    }
    const ContainerReader reader(path, Clock::now() + openLimit);
    AVFormatContext* context = reader.context();
    if (context == NULL) {
        return false;
    }
    if (policy == kStreamInfoAlways || needsStreamInfo(context)) {
        avformat_find_stream_info(context, NULL);
    }
    QLOG(INFO) << "av_open_input_file success";
    if (hasVideoStream(context)) {
        readDuration(path, context, metadata);
    }
    readCreationTime(context, metadata);
    return true;
}

}  // namespace videoprobe

int Metadata::getVideoMetadata(const std::string& path, const std::string& name,
                               long defaultModifyTime, metadata_s& metadata,
                               const std::string& hash, bool viaThrift) {
    if (viaThrift) {
        return getVideoMetadataViaThrift(path, hash, name, defaultModifyTime, metadata);
    }
    if (!videoprobe::readContainer(path, metadata, videoprobe::kStreamInfoWhenHeaderIsOpen)) {
        QLOG(ERROR) << "av_open_input_file fail, path is " << path;
    }
    metadata.title = name;
    getModifyTime(path, metadata, defaultModifyTime);
    return 0;
}

}  // namespace talvern
