extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}
#include <sys/stat.h>

#include <boost/lexical_cast.hpp>
#include <chrono>
#include <string>

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

// libavformat polls this during blocking work; past the deadline it gives up.
int pastDeadline(void* opaque) {
    return Clock::now() >= *static_cast<const Clock::time_point*>(opaque) ? 1 : 0;
}

// Opens path as media: a regular file only (a FIFO or a device could block or
// never end), through the plain file protocol only (a playlist can't make it
// read other files or devices), and never for longer than the deadline.
AVFormatContext* openMedia(const std::string& path, Clock::time_point* deadline) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return NULL;
    }
    AVFormatContext* context = avformat_alloc_context();
    if (context == NULL) {
        return NULL;
    }
    context->interrupt_callback.callback = pastDeadline;
    context->interrupt_callback.opaque = deadline;
    AVDictionary* options = NULL;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    const int rc = avformat_open_input(&context, path.c_str(), NULL, &options);
    av_dict_free(&options);
    return rc == 0 ? context : NULL;
}

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
    Clock::time_point deadline = Clock::now() + openLimit;
    AVFormatContext* context = openMedia(path, &deadline);
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
    avformat_close_input(&context);
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
