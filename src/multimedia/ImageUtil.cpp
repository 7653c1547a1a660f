#include "multimedia/ImageUtil.h"

#include <libexif/exif-data.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cstdlib>

#include "multimedia/Metadata.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStatus.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/HeldFolder.h"
#include "system/ImageUtils.h"
#include "system/Log.h"

namespace talvern {

namespace {

// ---- Paths of the thumbnail tree ----

bool holdsParentStep(const std::string& path) {
    const std::string wrapped = "/" + path + "/";
    return wrapped.find("/../") != std::string::npos;
}

// The hash names a file of the tree and, by its first two pairs of
// characters, two folders: no "/" in it, and no pair that is "." or "..".
bool isUsableHash(const std::string& hash) {
    if (hash.size() < 2 || hash.find('/') != std::string::npos) {
        return false;
    }
    for (const std::string& folder : {hash.substr(0, 2), hash.substr(2, 2)}) {
        if (folder == "." || folder == "..") {
            return false;
        }
    }
    return true;
}

// Made below the data folder without following a link there, planted or
// swapped in after the check.
void createDirectoryIfMissing(const std::string& dataFolder, const std::string& path) {
    if (path.empty() || Directory::sExists(path)) {
        return;
    }
    if (Directory::sIsAncestorPath(dataFolder, path)) {
        Directory::sCreateBelow(dataFolder, path);
    } else {
        Directory::sCreateDirectory(path);
    }
}

// true when a folder of path below root (which ends in "/") is a link: the
// thumbnail tree lies in the data folder, where the disk's users can plant
// one to lead the writes elsewhere.
bool passesThroughLink(const std::string& root, const std::string& path) {
    if (path.compare(0, root.size(), root) != 0) {
        return false;
    }
    for (std::string::size_type slash = path.find('/', root.size()); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        FileStatus status;
        if (FileStatus::sOfPath(path.substr(0, slash), status, false) == 0 && status.isLink()) {
            return true;
        }
    }
    return false;
}

// A thumbnail made before is a regular file; a link or a FIFO in its place
// is not one, and is replaced by the new thumbnail.
bool isMadeThumbnail(const std::string& path) {
    FileStatus status;
    return FileStatus::sOfPath(path, status, false) == 0 && status.isRegular();
}

bool isJpegName(const std::string& path) {
    return CommonUtils::endWith(path, ".jpg") || CommonUtils::endWith(path, ".jpeg");
}

// A FIFO, directory or unreadable file would block or fail deep inside a
// library; it is turned away before anything reads it.
bool isReadableRegularFile(const std::string& path) {
    FILE* file = File::sOpenRegularFile(path);
    if (file == NULL) {
        QLOG(ERROR) << "generate thumbnail, " << path << " is not a readable regular file";
        return false;
    }
    std::fclose(file);
    return true;
}

int orientationDegrees(int value) {
    switch (value) {
        case 3:
            return 180;
        case 6:
            return 90;
        case 8:
            return 270;
        default:
            return 0;
    }
}

}  // namespace

// ---- Thumbnail pipeline ----

namespace {

const int kTargetFailed = -1;
const int kTargetDone = 0;
const int kTargetToResize = 1;

// The steps both routes take before decoding anything, once thumbPath holds
// the target (empty when it has none): a thumbnail made before, a source
// that can't be read, a source small enough to copy as it is.
// logTargetAsExisting: the "made before" line names the thumbnail rather
// than the source.
int prepareTarget(const std::string& path, bool logTargetAsExisting, std::string& thumbPath) {
    if (thumbPath.empty()) {
        return kTargetFailed;
    }
    if (isMadeThumbnail(thumbPath)) {
        QLOG(INFO) << (logTargetAsExisting ? thumbPath : path)
                   << " has resized middle thumbnail, no need to resize again";
        return kTargetDone;
    }
    if (!isReadableRegularFile(path)) {
        thumbPath.clear();
        return kTargetFailed;
    }
    if (File::sGetFileSize(path) <= ImageUtil::kCopyWithoutResizeSize) {
        ImageUtil::sCopyAsThumbnail(path, thumbPath);
        QLOG(INFO) << path << " too small, no need to resize";
        return kTargetDone;
    }
    return kTargetToResize;
}

}  // namespace

void ImageUtil::sCopyAsThumbnail(const std::string& from, const std::string& to) {
    const HeldFolder target(to);
    File::sRawCopyFileIn(from, target.descriptor(), target.name(), to);
}

int ImageUtil::getThumbnail(const std::string& path, std::string& thumbPath, ThumbnailSize size,
                            const std::string& hash, int useChunk) {
    if (isJpegName(path)) {
        if (size == THUMBNAIL_SMALL) {
            return getThumbnailFromExif(path, thumbPath);
        }
        if (size != THUMBNAIL_MIDDLE) {
            return -1;
        }
        thumbPath = generateThumbPath(path, size, hash);
        const int prepared = prepareTarget(path, true, thumbPath);
        if (prepared != kTargetToResize) {
            return prepared;
        }
        QLOG(INFO) << path << " try use resize algorithm";
        unsigned char* buffer = NULL;
        unsigned long bufferSize = 0;
        int srcWidth = 0, srcHeight = 0, outWidth = 0, outHeight = 0;
        const int result =
            resizeJpeg(path, thumbPath, &buffer, &bufferSize, &srcWidth, &srcHeight,
                       kJpegMiddleWidth, kJpegMiddleHeight, &outWidth, &outHeight, useChunk);
        _ExifData* exifData = NULL;
        if (getExifData(path, exifData) == 0) {
            int degrees = 0;
            getImageOrientation(exifData, degrees);
            QLOG(INFO) << "get " << path << " orientation is " << degrees;
            exif_data_unref(exifData);
            if (degrees != 0) {
                rotateImage(thumbPath, degrees);
            }
        }
        std::free(buffer);
        return result;
    }

    if (CommonUtils::sIsCameraRawImage(path)) {
        QLOG(INFO) << "no need to generate thumbnail for camera raw image";
        return 0;
    }
    QLOG(INFO) << "generate thumb for not jpg file.";
    thumbPath = generateThumbPath(path, size, hash);
    const int prepared = prepareTarget(path, false, thumbPath);
    if (prepared != kTargetToResize) {
        return prepared;
    }
    ImageUtils imageUtils;
    if (imageUtils.resizeImage(path, thumbPath, kCommandLineWidth, kCommandLineHeight) ==
        ImageUtils::kResizeDone) {
        return 0;
    }
    thumbPath.clear();
    return -1;
}

int ImageUtil::getThumbnailFromExif(const std::string& path, std::string& thumbPath) {
    _ExifData* exifData = NULL;
    if (getExifData(path, exifData) != 0) {
        return -1;
    }
    int degrees = 0;
    getImageOrientation(exifData, degrees);
    QLOG(INFO) << "get " << path << " orientation is " << degrees;
    thumbPath = generateThumbPath(path, THUMBNAIL_SMALL, "");
    int result = thumbPath.empty() ? -1 : 0;
    if (result == 0) {
        result = save_to_jpeg_file(exifData->data, exifData->size, thumbPath, 1);
    }
    if (result == 0 && degrees != 0 && rotateImage(thumbPath, degrees) != 0) {
        result = -1;
    }
    exif_data_unref(exifData);
    return result;
}

int ImageUtil::getExifData(const std::string& path, _ExifData*& exifData) {
    exifData = NULL;
    if (path.empty()) {
        QLOG(ERROR) << "get thumbnail from exif, path is empty";
        return -1;
    }
    if (!File::sExists(path)) {
        QLOG(ERROR) << "get thumbnail from exif, path " << path << " not exist";
        return -2;
    }
    ExifData* data = Metadata::sLoadExif(path);
    if (data != NULL && data->size != 0 && data->data != NULL) {
        exifData = data;
        return 0;
    }
    if (data != NULL) {
        exif_data_unref(data);
    }
    QLOG(ERROR) << "get thumbnail from exif, there is no thumbnail in exif " << path;
    return -3;
}

int ImageUtil::getImageOrientation(_ExifData* exifData, int& orientation) {
    if (exifData == NULL) {
        QLOG(ERROR) << "get image orientation error, exif_data is NULL";
        return -1;
    }
    orientation = 0;
    ExifEntry* entry = exif_content_get_entry(exifData->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    // A damaged entry may hold fewer bytes than one short.
    if (entry != NULL && entry->data != NULL && entry->size >= 2) {
        orientation =
            orientationDegrees(exif_get_short(entry->data, exif_data_get_byte_order(exifData)));
    }
    return 0;
}

std::string ImageUtil::generateThumbPath(const std::string& path, ThumbnailSize size,
                                         const std::string& hash) {
    // A size outside the two tiers has no root; refusing it keeps anything
    // from being written next to the source itself.
    if (size != THUMBNAIL_SMALL && size != THUMBNAIL_MIDDLE) {
        QLOG(ERROR) << "generate thumb path, unknown thumbnail size " << static_cast<int>(size);
        return std::string();
    }
    ConfigInfo* config = ConfigInfo::sGetInstance();
    std::string root;
    std::string thumbPath;
    if (size == THUMBNAIL_SMALL) {
        if (path.empty() || path[0] != '/' || holdsParentStep(path)) {
            QLOG(ERROR) << "generate thumb path, " << path << " would leave the thumbnail tree";
            return std::string();
        }
        root = config->getSmallIconsRootPath();
        thumbPath = root + path;
    } else {
        root = config->getMiddleIconsRootPath();
        thumbPath = getMiddleIconsHashPath(hash);
        if (thumbPath.empty()) {
            return thumbPath;
        }
        QLOG(INFO) << "generateThumbPath thumbPath is " << thumbPath;
    }
    // Checked from the data folder down, the tree's own roots included,
    // before any folder of it is made.
    if (passesThroughLink(config->getUserdiskDataPath() + "/", thumbPath)) {
        QLOG(ERROR) << "generate thumb path, " << thumbPath << " passes through a link";
        return std::string();
    }
    createDirectoryIfMissing(config->getUserdiskDataPath(), root);
    createDirectoryIfMissing(config->getUserdiskDataPath(),
                             boost::filesystem::path(thumbPath).parent_path().string());
    return thumbPath;
}

std::string ImageUtil::getMiddleIconsHashPath(const std::string& hash) {
    if (!isUsableHash(hash)) {
        QLOG(ERROR) << "middle icon path, hash " << hash << " is not usable";
        return std::string();
    }
    return ConfigInfo::sGetInstance()->getMiddleIconsRootPath() + "/" + hash.substr(0, 2) + "/" +
           hash.substr(2, 2) + "/" + hash + ".jpg";
}

}  // namespace talvern
