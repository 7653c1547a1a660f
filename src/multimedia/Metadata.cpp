#include "multimedia/Metadata.h"

#include <fcntl.h>
#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>
#include <stdint.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "multimedia/MediaReadGuard.h"
#include "multimedia/MetadataTime.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/Log.h"

namespace talvern {

using metadatatime::localDate;
using metadatatime::parseLocalTime;

namespace {

const int kExifValueSize = 1024;
// Dates before 1980 (tm_year counts from 1900) are camera defaults, not dates.
const int kFirstBelievableTmYear = 80;
// Chunk fed to the EXIF loader; it stops asking once it has the block.
const size_t kExifReadChunk = 4096;

// The MIME type a name's suffix tells; no dot needed. true for JPEG.
bool imageMimeOf(const std::string& name, std::string& mime) {
    if (CommonUtils::endWith(name, "jpg") || CommonUtils::endWith(name, "jpeg")) {
        mime = "image/jpeg";
        return true;
    }
    if (CommonUtils::endWith(name, "png")) {
        mime = "image/png";
    } else if (CommonUtils::endWith(name, "gif")) {
        mime = "image/gif";
    } else if (CommonUtils::endWith(name, "bmp")) {
        mime = "image/bmp";
    } else if (CommonUtils::endWith(name, "tiff")) {
        mime = "image/tiff";
    } else {
        mime = "image/null";
    }
    return false;
}

// DateTimeOriginal, else DateTimeDigitized, of the EXIF sub-directory.
ExifEntry* exifDateEntry(ExifData* data) {
    ExifContent* content = data->ifd[EXIF_IFD_EXIF];
    ExifEntry* entry = exif_content_get_entry(content, EXIF_TAG_DATE_TIME_ORIGINAL);
    if (entry == NULL) {
        entry = exif_content_get_entry(content, EXIF_TAG_DATE_TIME_DIGITIZED);
    }
    return entry;
}

}  // namespace

ExifData* Metadata::sLoadExif(const std::string& path) {
    MediaReadGuard guard(path);
    if (!guard.admitted()) {
        return NULL;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return NULL;
    }
    FileStatus status;
    ExifData* data = NULL;
    if (FileStatus::sOfDescriptor(fd, status) == 0 && status.isRegular()) {
        ExifLoader* loader = exif_loader_new();
        unsigned char chunk[kExifReadChunk];
        ssize_t got;
        size_t scanned = 0;
        while (scanned < kMaxExifScanBytes && (got = read(fd, chunk, sizeof(chunk))) > 0 &&
               exif_loader_write(loader, chunk, static_cast<unsigned int>(got)) != 0) {
            scanned += static_cast<size_t>(got);
        }
        data = exif_loader_get_data(loader);
        exif_loader_unref(loader);
    }
    close(fd);
    return data;
}

int Metadata::getImageMetadata(const std::string& path, const std::string& name,
                               long defaultModifyTime, metadata_s& metadata,
                               const std::string& hash, bool viaThrift) {
    if (viaThrift) {
        return getImageMetadataViaThrift(path, hash, name, defaultModifyTime, metadata);
    }
    metadata.date = defaultModifyTime;
    const bool jpeg = imageMimeOf(name, metadata.mime);
    metadata.title = name;
    if (!jpeg) {
        return 0;
    }
    QLOG(INFO) << "get image metadata , path is " << path;
    ExifData* data = sLoadExif(path);
    if (data == NULL) {
        QLOG(ERROR) << path << " exif_data is NULL";
        return -1;
    }
    ExifEntry* entry = exifDateEntry(data);
    if (entry != NULL) {
        char value[kExifValueSize];
        value[0] = '\0';
        exif_entry_get_value(entry, value, sizeof(value));
        value[sizeof(value) - 1] = '\0';
        parseLocalTime(value, "%Y:%m:%d %H:%M:%S", metadata.date);
    }
    getModifyTime(path, metadata, defaultModifyTime);
    exif_data_unref(data);
    return 0;
}

void Metadata::getModifyTime(const std::string& path, metadata_s& metadata,
                             long defaultModifyTime) {
    if (metadata.date != 0) {
        const time_t date = metadata.date;
        struct tm parts;
        if (localtime_r(&date, &parts) == NULL || parts.tm_year >= kFirstBelievableTmYear) {
            return;
        }
    }
    if (defaultModifyTime != 0) {
        metadata.date = defaultModifyTime;
        return;
    }
    // A time beyond the 32-bit date leaves the date as it was, as where
    // time_t has 32 bits and no status can hold it.
    FileStatus status;
    if (FileStatus::sOfPath(path, status) != 0 ||
        status.modifyTime != static_cast<int32_t>(status.modifyTime)) {
        return;
    }
    const time_t modified = static_cast<time_t>(status.modifyTime);
    struct tm parts;
    if (localtime_r(&modified, &parts) != NULL) {
        metadata.date = localDate(parts);
    }
}

int Metadata::getAudioMetadata(const std::string& path, const std::string& name,
                               metadata_s& metadata) {
    if (!path.empty()) {
        metadata.title = name;
    }
    return 0;
}

}  // namespace talvern
