#ifndef QUORVIA_SYSTEM_COMMONUTILS_H
#define QUORVIA_SYSTEM_COMMONUTILS_H

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

// Static helpers of the shared tree, without state. One header; the
// implementation is split by family (CommonUtils*.cpp). Every function may be
// called from any thread unless its comment says otherwise.
class CommonUtils {
public:
    virtual ~CommonUtils() {}

    // ---- Primitives (CommonUtils.cpp) ----

    // Prefix and suffix tests that ignore case (std::toupper, default locale).
    // An empty prefix or suffix matches every text; one longer than the text
    // matches none.
    static bool startWith(const std::string& text, const std::string& prefix);
    static bool endWith(const std::string& text, const std::string& suffix);

    // A text of two or more characters that ends in "/" loses that one "/".
    static std::string sUnifyPathStyle(const std::string& path);
    static std::string sToLower(const std::string& text);
    // stat64 size of path, 0 on failure.
    static uint64_t sGetFileSize(const std::string& path);

    // Splits at any character of separators. splitString keeps empty fields;
    // splitStringTokenCompress counts a run of separators as one; the set form
    // compresses too and replaces result by the distinct fields.
    static std::vector<std::string> splitString(const std::string& text,
                                                const std::string& separators);
    static std::vector<std::string> splitStringTokenCompress(const std::string& text,
                                                             const std::string& separators);
    static void splitString(std::set<std::string>& result, const std::string& text,
                            const std::string& separators);

    // ---- System commands and device identity (CommonUtilsCommands.cpp) ----

    // ---- Directory filter (CommonUtilsDirFilter.cpp) ----

    // ---- Path and name utilities (CommonUtilsPaths.cpp) ----

    // ---- File-type classification (CommonUtilsFileTypes.cpp) ----

    // ---- Privacy access control (CommonUtilsPrivacy.cpp) ----
};

#endif
