#include "system/ImageUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cctype>
#include <cstdio>
#include <memory>
#include <sstream>
#include <vector>

#include "storage/File.h"
#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "system/CommonUtils.h"
#include "system/HeldFolder.h"
#include "system/Log.h"

namespace talvern {

namespace {

// The tools read the source as their standard input and write the result
// to their standard output, both descriptors of ours: ImageMagick takes "[",
// "*", "?" and "%" in a file name as frame lists, patterns and counters, so
// no name of the disk ever reaches it. identify prints this name.
const char* const kSourceName = "/dev/stdin";

// The lower-case extension of path's last component, "" for none.
std::string extensionOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string::size_type dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return std::string();
    }
    return CommonUtils::sToLower(path.substr(dot + 1));
}

// An extension that ImageMagick may take as a format's name: letters and
// digits only, nothing it would read as syntax.
bool isFormatName(const std::string& extension) {
    for (char c : extension) {
        if (!isalnum(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return !extension.empty();
}

// convert's output, and the input as identify read it: a target of the
// source's own extension keeps its format and every frame; another
// extension names the format, which gets the first frame only (a JPEG holds
// one).
void convertEnds(const std::string& source, const std::string& target, std::string& input,
                 std::string& output) {
    const std::string extension = extensionOf(target);
    output = "/dev/stdout";
    if (extension == extensionOf(source) || !isFormatName(extension)) {
        return;
    }
    input += "[0]";
    output = extension + ":" + output;
}

// Picture formats that ImageMagick tells only by a name's extension, not by
// their first bytes. Only these are named for a source: a name picks any of
// its coders, and some of those read other files (a playlist, an SVG, an
// MVG script) or run other programs.
bool isNamedOnlyFormat(const std::string& extension) {
    static const char* const kFormats[] = {"tga",  "icb", "vda",  "vst", "ico", "cur",
                                           "wbmp", "xwd", "jbig", "jbg", "bie", "palm",
                                           "otb",  "avs", "mtv",  "hrz", "ipl"};
    for (const char* format : kFormats) {
        if (extension == format) {
            return true;
        }
    }
    return false;
}

// identify's output for the first frame of standard input read under the
// name input, "/dev/stdin FORMAT WxH ..."; false when identify could not be
// run. Every frame would cost it memory: a file of 100,000 tiny frames made
// it hold 2.3 GB.
bool identifyFirstFrame(const std::string& input, int source, const std::string& quotedSource,
                        std::string& output) {
    const std::string frame = input + "[0]";
    const std::string command = "identify " + frame;
    if (lseek(source, 0, SEEK_SET) != 0 ||
        !CommonUtils::sCallSystemWith(command, source, output, command + " < " + quotedSource)) {
        return false;
    }
    // "/dev/stdin[0]=>/dev/stdin PNG 30x20 ...": what was asked for, first.
    const std::string asked = frame + "=>";
    if (output.compare(0, asked.size(), asked) == 0) {
        output.erase(0, asked.size());
    }
    return true;
}

// identify's output for the source open as source, read as standard input
// under the name input; false when identify could not be run. A source in a
// format known by name only gives no output, and is tried once more as that
// format; input says so.
bool identify(const std::string& path, int source, const std::string& quotedSource,
              std::string& input, std::string& output) {
    input = kSourceName;
    if (!identifyFirstFrame(input, source, quotedSource, output)) {
        return false;
    }
    if (!output.empty() || !isNamedOnlyFormat(extensionOf(path))) {
        return true;
    }
    input = extensionOf(path) + ":" + kSourceName;
    return identifyFirstFrame(input, source, quotedSource, output);
}

// A file that convert left empty is no thumbnail.
bool holdsData(FILE* file) {
    FileStatus status;
    return FileStatus::sOfDescriptor(fileno(file), status) == 0 && status.size > 0;
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

namespace {

// convert run on the source open as source, from its start, into the new
// file open as thumbnail. Its budget holds every frame of an ordinary
// picture; one of many large frames fails it, and then gets the first frame
// only (emptied of what the failed run left). convert tells no failure from
// another by its exit code, so a damaged picture of several frames whose
// first frame reads gets a thumbnail of that frame too.
// command runs as its words up to the input, the input, then tail.
bool convertInto(const std::string& command, const std::string& input, const std::string& tail,
                 int source, const std::string& quotedSource, FILE* thumbnail,
                 const std::string& quotedTarget) {
    for (const std::string& frames : {input, input + "[0]"}) {
        const std::string run = command + " " + frames + tail;
        const std::string shown = run + " < " + quotedSource + " > " + quotedTarget;
        QLOG(INFO) << "resize image command is: " << shown;
        if (lseek(source, 0, SEEK_SET) == 0 && ftruncate(fileno(thumbnail), 0) == 0 &&
            lseek(fileno(thumbnail), 0, SEEK_SET) == 0 &&
            CommonUtils::sCallSystemWith(run, source, fileno(thumbnail), shown) == 0 &&
            holdsData(thumbnail)) {
            return true;
        }
        if (CommonUtils::endWith(input, "[0]")) {
            break;
        }
    }
    return false;
}

}  // namespace

int ImageUtils::resizeImage(const std::string& source, const std::string& target, int width,
                            int height) {
    // Read through this one descriptor by both tools: a source swapped for a
    // FIFO (on which they would wait for ever) or for a link once checked
    // reaches neither.
    const std::unique_ptr<FILE, int (*)(FILE*)> file(File::sOpenRegularFile(source), fclose);
    if (file == NULL) {
        QLOG(INFO) << "resize image, " << source << " is not a readable regular file";
        return kResizeFailed;
    }
    const int sourceFd = fileno(file.get());

    // Both names go to the log only, inside double quotes with ", \, $ and `
    // escaped, as a shell would take them.
    const std::string quotedSource = sQuoteForShell(source);
    std::string input;
    std::string output;
    if (!identify(source, sourceFd, quotedSource, input, output)) {
        QLOG(INFO) << "identify fail. ";
        return kResizeFailed;
    }
    QLOG(INFO) << "the content is " << output;
    unsigned int sourceWidth = 0;
    unsigned int sourceHeight = 0;
    if (output.empty() || !readGeometry(output, kSourceName, sourceWidth, sourceHeight)) {
        return kResizeFailed;
    }
    if (sourceWidth > kMaxSide || sourceHeight > kMaxSide) {
        QLOG(INFO) << "resize image exceed limitation.";
        return kResizeRefused;
    }

    // convert writes a new file beside the target, which then takes its
    // place: a link or FIFO planted at the target is never written through.
    // The new file is made in the folder walked here and written through the
    // descriptor open on it, so that no link planted on the disk, on the way
    // or at the new file's own name, leads the write elsewhere.
    const HeldFolder folder(target);
    ReplacementFile replacement(folder.descriptor(), folder.name());
    if (replacement.stream() == NULL) {
        QLOG(INFO) << "resize image, can't write beside " << target;
        return kResizeFailed;
    }
    std::string written;
    convertEnds(source, target, input, written);
    std::ostringstream command;
    command << "convert -limit memory " << kConvertMaxMemory << " -limit disk 0 -limit list-length "
            << kConvertMaxFrames << " -define jpeg:size=80x80";
    std::ostringstream tail;
    tail << " -thumbnail " << width << "x" << height << " " << written;
    return convertInto(command.str(), input, tail.str(), sourceFd, quotedSource,
                       replacement.stream(), sQuoteForShell(target)) &&
                   replacement.commitKeepingOwner(false)
               ? kResizeDone
               : kResizeFailed;
}

}  // namespace talvern
