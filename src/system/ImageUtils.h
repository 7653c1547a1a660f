#ifndef QUORVIA_SYSTEM_IMAGEUTILS_H
#define QUORVIA_SYSTEM_IMAGEUTILS_H

#include <sys/types.h>

#include <string>

namespace talvern {

// Resizing through ImageMagick's command-line tools, run as external
// programs found through PATH. Any thread.
class ImageUtils {
public:
    // Results of resizeImage.
    static constexpr int kResizeFailed = 0;
    static constexpr int kResizeDone = 1;
    static constexpr int kResizeRefused = 2;
    // Longest side resizeImage accepts; 2001 is refused.
    static constexpr unsigned int kMaxSide = 2000;
    // What convert may hold of the pictures it reads, with nothing spilled
    // to a file (a router's /tmp is memory too): the budget of the
    // in-process route. Ten frames of 2000x2000 in a GIF of 38 KB took 427 MB.
    static constexpr unsigned long kConvertMaxMemory = 128UL * 1024 * 1024;
    static constexpr unsigned int kConvertMaxFrames = 300;

    virtual ~ImageUtils() {}

    // Shrinks source into target as a width x height thumbnail: identify reads
    // its geometry, convert writes target (whose directory must exist). The
    // tools get the source, opened once, as standard input and write to
    // standard output, the new file: no name reaches them. A target of the
    // source's extension keeps its format and frames (the first frame only
    // when all of them exceed kConvertMaxMemory or kConvertMaxFrames);
    // another extension gives that format, first frame.
    // kResizeDone, kResizeRefused for a source larger than kMaxSide on a side,
    // kResizeFailed when identify failed, printed no readable geometry,
    // convert failed (beyond its limits too) or wrote nothing, or source is
    // not a readable regular file.
    int resizeImage(const std::string& source, const std::string& target, int width, int height);

    // path between double quotes for the shell, with ", \, $ and ` escaped so
    // that nothing in it can end the quotes or expand.
    static std::string sQuoteForShell(const std::string& path);
};

}  // namespace talvern

#endif
