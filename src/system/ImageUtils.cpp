#include "system/ImageUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cctype>
#include <cerrno>
#include <sstream>
#include <vector>

#include "storage/ReplacementFile.h"
#include "system/CommonUtils.h"
#include "system/Log.h"

namespace talvern {

namespace {

// The tools take a name that starts with "-" as an option and one that starts
// with "word:" as a format prefix; "./" in front of a relative name rules both
// out. identify prints the name as it was given, so the search uses this form.
std::string commandLineName(const std::string& path) {
    if (!path.empty() && path[0] == '/') {
        return path;
    }
    return "./" + path;
}

// How convert is told to write the new file beside target: the new file's
// name does not end in target's extension, so the format goes in front.
std::string outputName(const std::string& target, const ReplacementFile& replacement) {
    const std::string::size_type slash = target.rfind('/');
    const std::string::size_type dot = target.rfind('.');
    const std::string name = commandLineName(replacement.temporaryPath());
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot + 1 == target.size()) {
        return name;
    }
    const std::string extension = target.substr(dot + 1);
    for (char c : extension) {
        if (!isalnum(static_cast<unsigned char>(c))) {
            return name;
        }
    }
    return extension + ":" + name;
}

// The geometry identify printed behind name, as width and height; false (and
// logged) when it can't be read.
bool readGeometry(const std::string& output, const std::string& name, unsigned int& width,
                  unsigned int& height) {
    const std::string::size_type at = output.find(name);
    if (at == std::string::npos) {
        QLOG(INFO) << "image attributes missing, the content is: " << output;
        return false;
    }
    // An image of several frames (an animated GIF, a multi-page TIFF) is
    // listed frame by frame as "name[0] ...": the first frame's line counts.
    std::string::size_type behind = at + name.size();
    if (behind < output.size() && output[behind] == '[') {
        const std::string::size_type close = output.find(']', behind);
        behind = close == std::string::npos ? output.size() : close + 1;
    }
    ++behind;
    const std::string remainder = behind < output.size() ? output.substr(behind) : std::string();
    QLOG(INFO) << "the content change to" << remainder;
    const std::vector<std::string> parts = CommonUtils::splitString(remainder, " ");
    if (parts.size() < 2) {
        QLOG(INFO) << "image attributes missing, the content is: " << remainder;
        return false;
    }
    const std::vector<std::string> sides = CommonUtils::splitString(parts[1], "x");
    if (sides.size() != 2) {
        QLOG(INFO) << "image attributes fault. geometry is " << parts[1];
        return false;
    }
    try {
        width = boost::lexical_cast<unsigned int>(sides[0]);
        height = boost::lexical_cast<unsigned int>(sides[1]);
    } catch (const boost::bad_lexical_cast&) {
        QLOG(INFO) << "image attributes fault, invalid size.";
        return false;
    }
    return true;
}

}  // namespace

FILE* ImageUtils::sOpenRegularFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return NULL;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        errno = EINVAL;
        return NULL;
    }
    FILE* file = fdopen(fd, "rb");
    if (file == NULL) {
        close(fd);
    }
    return file;
}

std::string ImageUtils::sQuoteForShell(const std::string& path) {
    std::string quoted("\"");
    for (std::string::size_type i = 0; i < path.size(); ++i) {
        const char c = path[i];
        if (c == '"' || c == '\\' || c == '$' || c == '`') {
            quoted += '\\';
        }
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

int ImageUtils::resizeImage(const std::string& source, const std::string& target, int width,
                            int height) {
    // identify would wait forever on a FIFO; only regular files go to the tools.
    FILE* probe = sOpenRegularFile(source);
    if (probe == NULL) {
        QLOG(INFO) << "resize image, " << source << " is not a readable regular file";
        return kResizeFailed;
    }
    fclose(probe);

    // Both names go inside double quotes with ", \, $ and ` escaped, so no
    // name can end the quotes or run a command.
    const std::string name = commandLineName(source);
    std::string output;
    if (!CommonUtils::sCallSystem("identify " + sQuoteForShell(name), output)) {
        QLOG(INFO) << "identify fail. ";
        return kResizeFailed;
    }
    QLOG(INFO) << "the content is " << output;
    unsigned int sourceWidth = 0;
    unsigned int sourceHeight = 0;
    if (output.empty() || !readGeometry(output, name, sourceWidth, sourceHeight)) {
        return kResizeFailed;
    }
    if (sourceWidth > kMaxSide || sourceHeight > kMaxSide) {
        QLOG(INFO) << "resize image exceed limitation.";
        return kResizeRefused;
    }

    // convert writes a new file beside the target, which then takes its
    // place: a link or FIFO planted at the target is never written through.
    ReplacementFile replacement(target);
    if (replacement.stream() == NULL) {
        QLOG(INFO) << "resize image, can't write beside " << target;
        return kResizeFailed;
    }
    std::ostringstream command;
    command << "convert -define jpeg:size=80x80 " << sQuoteForShell(name) << " -thumbnail "
            << width << "x" << height << " " << sQuoteForShell(outputName(target, replacement));
    QLOG(INFO) << "resize image command is: " << command.str();
    return CommonUtils::sCallSystem(command.str()) == 0 &&
                   replacement.commit(kResizedFileMode, false)
               ? kResizeDone
               : kResizeFailed;
}

}  // namespace talvern
