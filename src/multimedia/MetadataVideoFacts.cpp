extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}
#include <string.h>

#include <algorithm>
#include <string>

#include "multimedia/ContainerReader.h"
#include "multimedia/MetadataVideoProbe.h"

namespace talvern {
namespace videoprobe {

namespace {

const char* const kMp4FamilyName = "mov,mp4,m4a,3gp,3g2,mj2";
const uint8_t kOpened = 1;
const uint8_t kHasVideo = 2;
const uint8_t kHasCreationTime = 4;

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

const AVDictionaryEntry* creationTimeOf(const AVFormatContext* context) {
    if (strcmp(context->iformat->name, kMp4FamilyName) != 0 || context->metadata == NULL) {
        return NULL;
    }
    const AVDictionaryEntry* entry = NULL;
    while ((entry = av_dict_get(context->metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != NULL) {
        if (strcmp(entry->key, "creation_time") == 0) {
            return entry;
        }
    }
    return NULL;
}

std::string cut(const std::string& text) { return text.substr(0, ContainerFacts::kMaxTextBytes); }

void gather(AVFormatContext* context, StreamInfoPolicy policy, ContainerFacts& facts) {
    if (policy == kStreamInfoAlways || needsStreamInfo(context)) {
        avformat_find_stream_info(context, NULL);
    }
    facts.opened = true;
    facts.hasVideo = hasVideoStream(context);
    facts.duration = context->duration;
    const AVDictionaryEntry* creationTime = creationTimeOf(context);
    facts.hasCreationTime = creationTime != NULL;
    if (creationTime != NULL) {
        facts.creationTime = cut(creationTime->value);
    }
}

template <typename T>
void put(std::string& out, const T& value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

template <typename T>
bool take(const std::string& in, std::size_t& at, T& value) {
    if (in.size() - at < sizeof(value)) {
        return false;
    }
    memcpy(&value, in.data() + at, sizeof(value));
    at += sizeof(value);
    return true;
}

void putText(std::string& out, const std::string& text) {
    put(out, static_cast<uint32_t>(text.size()));
    out += text;
}

bool takeText(const std::string& in, std::size_t& at, std::string& text) {
    uint32_t size = 0;
    if (!take(in, at, size) || size > ContainerFacts::kMaxTextBytes || in.size() - at < size) {
        return false;
    }
    text.assign(in, at, size);
    at += size;
    return true;
}

}  // namespace

ContainerFacts readFacts(const std::string& path, StreamInfoPolicy policy,
                         std::chrono::steady_clock::time_point deadline) {
    ContainerFacts facts;
    const ContainerReader reader(path, deadline);
    if (reader.context() != NULL) {
        gather(reader.context(), policy, facts);
    }
    facts.refusedOpen = cut(reader.refusedOpen());
    return facts;
}

std::string encodeFacts(const ContainerFacts& facts) {
    std::string out;
    put(out, static_cast<uint8_t>((facts.opened ? kOpened : 0) | (facts.hasVideo ? kHasVideo : 0) |
                                  (facts.hasCreationTime ? kHasCreationTime : 0)));
    put(out, facts.duration);
    putText(out, facts.creationTime);
    putText(out, facts.refusedOpen);
    return out;
}

bool decodeFacts(const std::string& text, ContainerFacts& facts) {
    std::size_t at = 0;
    uint8_t flags = 0;
    ContainerFacts read;
    if (!take(text, at, flags) || !take(text, at, read.duration) ||
        !takeText(text, at, read.creationTime) || !takeText(text, at, read.refusedOpen) ||
        at != text.size()) {
        return false;
    }
    read.opened = (flags & kOpened) != 0;
    read.hasVideo = (flags & kHasVideo) != 0;
    read.hasCreationTime = (flags & kHasCreationTime) != 0;
    facts = read;
    return true;
}

}  // namespace videoprobe
}  // namespace talvern
