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

    // Country code used when the device gives none: "CN".
    static const std::string DEFAULTCOUNTRYCODE_;

    // Commands go to the shell as they stand: callers escape what they pass.
    // Exit code of the command run by system(); -1 when no shell could run.
    static int sCallSystem(const std::string& command);
    // true when the command could be started; output holds its trimmed
    // standard output (whatever the exit status).
    static bool sCallSystem(const std::string& command, std::string& output);
    // Exit code of a popen()ed command whose output is not read; -1 on failure.
    static int sCallPopenNoOutput(const std::string& command);
    // Exit code of a popen()ed command; -1 on failure; output trimmed.
    static int sCallPopenWithOutput(const std::string& command, std::string& output);

    // Identity of the device, read from its tools at each call; empty when the
    // tool couldn't run or printed nothing.
    static std::string sGetRomVersion();
    static std::string sGetRomChannel();
    static std::string sGetRomSN();
    static std::string sGetDeviceId();
    // Never empty; worked out once per process and cached.
    static std::string sGetCountryCode();
    // true when version (three numbers) is lower than or equal to the
    // firmware's version; false on any malformed input.
    static bool sCheckIsLowerVersionThanCurrentRom(std::string version);

    // ---- Directory filter (CommonUtilsDirFilter.cpp) ----

    // true when a directory of this bare name (no path) is not followed:
    // hidden names, recycle bins and the device's own folders, each matched as
    // a prefix ignoring case. A hit is logged at INFO. Asks ConfigInfo.
    static bool isFilterDir(const std::string& name);
    // true when path ends in ".td" or ".cfg" and lies in the download folder;
    // asking for the folder may create it.
    static bool sIsDownloadTmpFile(const std::string& path);

    // ---- Path and name utilities (CommonUtilsPaths.cpp) ----

    // ---- File-type classification (CommonUtilsFileTypes.cpp) ----

    // ---- Privacy access control (CommonUtilsPrivacy.cpp) ----
};

#endif
