#include "multimedia/ContainerReader.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "storage/FileStatus.h"

namespace talvern {

const char* const ContainerReader::kDemuxers =
    "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,avi,mpegts,mpeg,flv,asf,rm,dv,wtv,nut,ogg,wav,mp3,aac,"
    "flac";

ContainerReader::ContainerReader(const std::string& path,
                                 std::chrono::steady_clock::time_point deadline)
    : fd_(-1),
      size_(0),
      position_(0),
      bytesRead_(0),
      deadline_(deadline),
      io_(NULL),
      context_(NULL) {
    sPrepare();
    if (openFile(path) && !openContainer(path)) {
        context_ = NULL;
    }
}

void ContainerReader::sPrepare() {
    static std::once_flag prepared;
    std::call_once(prepared, [] {
        av_max_alloc(kMaxAllocation);
        void* next = NULL;
        while (av_demuxer_iterate(&next) != NULL) {
        }
        next = NULL;
        while (av_codec_iterate(&next) != NULL) {
        }
    });
}

ContainerReader::~ContainerReader() {
    avformat_close_input(&context_);
    if (io_ != NULL) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

// A FIFO or a device named like a video could block or never end; a file
// swapped for one after a check could too, so the check is made on what
// was opened.
bool ContainerReader::openFile(const std::string& path) {
    fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    FileStatus status;
    if (fd_ < 0 || FileStatus::sOfDescriptor(fd_, status) != 0 || !status.isRegular()) {
        return false;
    }
    size_ = status.size;
    return true;
}

bool ContainerReader::openContainer(const std::string& path) {
    unsigned char* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    io_ = buffer == NULL ? NULL
                         : avio_alloc_context(buffer, kIoBufferSize, 0, this, sRead, NULL, sSeek);
    context_ = io_ == NULL ? NULL : avformat_alloc_context();
    if (context_ == NULL) {
        if (io_ == NULL) {
            av_free(buffer);
        }
        return false;
    }
    context_->pb = io_;
    context_->flags |= AVFMT_FLAG_CUSTOM_IO;
    context_->interrupt_callback.callback = sInterrupt;
    context_->interrupt_callback.opaque = this;
    context_->io_open = sRefuseOpen;
    context_->opaque = this;
    AVDictionary* options = NULL;
    av_dict_set(&options, "format_whitelist", kDemuxers, 0);
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    // On failure libavformat frees the context and sets it to NULL.
    const int rc = avformat_open_input(&context_, path.c_str(), NULL, &options);
    av_dict_free(&options);
    return rc == 0;
}

bool ContainerReader::pastDeadline() const { return std::chrono::steady_clock::now() >= deadline_; }

int ContainerReader::sRead(void* opaque, uint8_t* buffer, int size) {
    ContainerReader* reader = static_cast<ContainerReader*>(opaque);
    if (reader->pastDeadline()) {
        return AVERROR_EXIT;
    }
    const int64_t allowed = std::min<int64_t>(size, kMaxBytesRead - reader->bytesRead_);
    if (allowed <= 0) {
        return AVERROR_EOF;
    }
    const ssize_t got = pread(reader->fd_, buffer, static_cast<size_t>(allowed), reader->position_);
    if (got < 0) {
        return AVERROR(errno);
    }
    if (got == 0) {
        return AVERROR_EOF;
    }
    reader->position_ += got;
    reader->bytesRead_ += got;
    return static_cast<int>(got);
}

int64_t ContainerReader::sSeek(void* opaque, int64_t offset, int whence) {
    ContainerReader* reader = static_cast<ContainerReader*>(opaque);
    if (whence & AVSEEK_SIZE) {
        return reader->size_;
    }
    int64_t base = 0;
    switch (whence & ~AVSEEK_FORCE) {
        case SEEK_SET:
            break;
        case SEEK_CUR:
            base = reader->position_;
            break;
        case SEEK_END:
            base = reader->size_;
            break;
        default:
            return AVERROR(EINVAL);
    }
    if (offset > INT64_MAX - base || base + offset < 0) {
        return AVERROR(EINVAL);
    }
    reader->position_ = base + offset;
    return reader->position_;
}

int ContainerReader::sInterrupt(void* opaque) {
    return static_cast<ContainerReader*>(opaque)->pastDeadline() ? 1 : 0;
}

int ContainerReader::sRefuseOpen(AVFormatContext* context, AVIOContext**, const char* url, int,
                                 AVDictionary**) {
    ContainerReader* reader = static_cast<ContainerReader*>(context->opaque);
    if (reader->refusedOpen_.empty() && url != NULL) {
        reader->refusedOpen_ = url;
    }
    return AVERROR(EPERM);
}

}  // namespace talvern
