#include <regex.h>

#include <cstddef>

#include "system/CommonUtils.h"
#include "system/Log.h"

namespace {

const char* const kCameraRawSuffixes[] = {".arw", ".nef", ".cr2", ".tif", ".tiff", ".raf"};
const char* const kImageSuffixes[] = {".jpg", ".jpeg", ".png", ".gif", ".bmp"};
const char* const kAudioSuffixes[] = {".mp3", ".flac", ".wma", ".m4a", ".aac",
                                      ".wav", ".ogg",  ".ape", ".mp2", ".amr",
                                      ".wavpack", ".wv", ".m4r", ".mid", ".mmf"};
const char* const kVideoSuffixes[] = {".mpg", ".mpeg", ".avi", ".avc", ".mod", ".asf", ".wmv",
                                      ".mp4", ".mkv",  ".qt",  ".flv", ".rm",  ".xvx", ".wmvhd",
                                      ".rmvb", ".ts",  ".mov", ".xv",  ".3gp", ".mts", ".m2ts"};
const char* const kDocumentSuffixes[] = {".pdf", ".ppt", ".pptx", ".xlsx", ".wps", ".doc", ".wpt",
                                         ".dps", ".dpt", ".et",   ".ett",  ".docx", ".xls"};
const char* const kSupportedImageExtensions[] = {".jpg", ".jpeg", ".png", ".bmp", ".gif"};

template <size_t N>
bool endsWithAny(const std::string& path, const char* const (&suffixes)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (CommonUtils::endWith(path, suffixes[i])) {
            return true;
        }
    }
    return false;
}

// Camera and telephone names: prefixes or calendar dates, then digits and
// separators, an optional "WA" number and an optional known extension. The
// backslashes inside the bracket are literal there, as POSIX has it.
const char* const kCameraNamePattern =
    "^((VID(EO)?|V|DV|MOV|MVI|录像|IMG|GOPR|ANTS|MAH|DSC(F)?|(QUICK_)?YDXJ)|"
    "([0-9]{4}[-_]?(0[1-9]|1[0-2])[-_]?(0[1-9]|[12][0-9]|3[01])))+"
    "[-_ 0-9\\(\\)]+(WA[0-9]+)?"
    "(\\.(mp4|avi|rmvb|mkv|mpg|wmv|rm|mpeg|dat|ts|mov|mts|m2ts|3gp))?$";
// Names such as 00012.mts.
const char* const kNumberedMtsPattern = "^[0-9]+\\.mts$";
const int kPatternFlags = REG_EXTENDED | REG_ICASE | REG_NOSUB;

// A pattern compiled once for the process and never freed. regexec on a
// shared compiled expression is safe from several threads (glibc locks it).
class CompiledPattern {
public:
    explicit CompiledPattern(const char* pattern)
        : compiled_(regcomp(&regex_, pattern, kPatternFlags) == 0) {}
    virtual ~CompiledPattern() {}

    // false, logged, when the pattern didn't compile.
    bool matches(const std::string& text) const {
        if (!compiled_) {
            QLOG(ERROR) << "compile pattern error";
            return false;
        }
        return regexec(&regex_, text.c_str(), 0, NULL, 0) == 0;
    }

private:
    regex_t regex_;
    bool compiled_;
};

}  // namespace

bool CommonUtils::sIsCameraRawImage(const std::string& path) {
    return endsWithAny(path, kCameraRawSuffixes);
}

bool CommonUtils::sIsImage(const std::string& path) {
    return endsWithAny(path, kImageSuffixes) || sIsCameraRawImage(path);
}

bool CommonUtils::sIsSupportedImage(const std::string& extension) {
    const std::string lower = sToLower(extension);
    for (size_t i = 0; i < sizeof kSupportedImageExtensions / sizeof kSupportedImageExtensions[0];
         ++i) {
        if (lower == kSupportedImageExtensions[i]) {
            return true;
        }
    }
    return false;
}

bool CommonUtils::sIsAudio(const std::string& path) {
    return endsWithAny(path, kAudioSuffixes);
}

bool CommonUtils::sIsVideo(const std::string& path) {
    return endsWithAny(path, kVideoSuffixes);
}

bool CommonUtils::sIsDocument(const std::string& path) {
    return endsWithAny(path, kDocumentSuffixes);
}

bool CommonUtils::sIsAutodyneVideo(std::string name) {
    if (!sIsVideo(name)) {
        return false;
    }
    // Function-local statics: compiled at the first call, thread-safe.
    static const CompiledPattern cameraName(kCameraNamePattern);
    if (cameraName.matches(name)) {
        return true;
    }
    static const CompiledPattern numberedMts(kNumberedMtsPattern);
    return numberedMts.matches(name);
}
