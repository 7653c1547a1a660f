#ifndef QUORVIA_SYSTEM_COMMONUTILS_H
#define QUORVIA_SYSTEM_COMMONUTILS_H

#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>

#include <boost/lexical_cast.hpp>
#include <set>
#include <string>
#include <vector>

#include "system/BuildAbi.h"

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
    // sCallSystem(command) with the command's standard input and output bound
    // to the descriptors input and output, which nothing reopens by a name
    // that could be swapped meanwhile. shown is the command as logged, with
    // what the descriptors stand for (say "command < \"source\"").
    static int sCallSystemWith(const std::string& command, int input, int output,
                               const std::string& shown);
    // sCallSystem(command, output) with the command's standard input bound
    // to the descriptor input, shown as above.
    static bool sCallSystemWith(const std::string& command, int input, std::string& output,
                                const std::string& shown);
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

    // Removes every trailing "/" from path itself, but never its first
    // character ("///" becomes "/"), and returns a copy.
    static std::string sRemoveSuffix(std::string& path);
    // Drops one layer of matching single or double quotes around text.
    static std::string sRemoveMarks(const std::string& text);
    // In place: leading blanks go, every other run of blanks (a trailing one
    // too) becomes one blank. Only the blank counts. A null text is left.
    static void sTrimAll(char* text);
    // true for 200 and 206 only.
    static bool sIsHttpCodeSucceed(int code);
    // true at the first of \ : * ? " < > | ; in name (logged at INFO).
    static bool sIsContainInvalidChar(const std::string& name);
    // path with a backslash before each blank, *, ?, ( and ) (each logged at
    // ERROR). Only those: quote a path before handing it to a shell.
    static std::string sGetEscapedPath(const std::string& path);
    // Makes key a valid libconfig name: "key_" in front unless it begins with
    // a letter or "*", then every byte but alphanumerics, "-", "_" and "*"
    // becomes "_". An empty key stays empty.
    static void sConvertToValidLibconfigKey(std::string& key);

    // Modification time in seconds; 0 when path can't be reached.
    static long sGetFileModifyTime(const std::string& path);
    // Access and modification time both set to time; the result of utimes().
    static int sSetFileModifyTime(const std::string& path, long time);
    // stat64 succeeds and path isn't a directory (devices and sockets count).
    static bool sIsFile(const std::string& path);
    // stat64 record of path (a time that time_t can't hold is 0); all zeros
    // when path can't be reached.
    static struct stat64 sGetFileStat(const std::string& path);
    // Local time as YYYY-MM-DDTHH:MM:SS; empty when time can't be converted.
    static std::string sConvertTimeFormat(long time);
    // time(NULL) as decimal text.
    static std::string sGetNowTimeStamp();
    // vasprintf(); on failure *result is null and the result negative. The
    // caller frees *result.
    static int xasprintf(char** result, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // Non-waiting lock of the whole file of fd to type (F_RDLCK or F_WRLCK):
    // 0, or -1 after closing fd.
    static int slockFileLock(struct flock& lock, short type, int fd, const std::string& name);
    // Unlocks and closes fd in any case: 0 or -1.
    static int sUnlockFileLock(struct flock& lock, int fd, const std::string& name);
    // source converted by boost::lexical_cast, defaultValue when it can't be.
    template <typename T, typename S>
    static T lexicalCast(const S& source, const T& defaultValue) {
        try {
            return boost::lexical_cast<T>(source);
        } catch (const std::exception&) {
            return defaultValue;
        }
    }

    // path itself when nothing is there, else the first free name with a
    // counter: "a.txt" -> "a(1).txt", "a(2).txt", ... (a stem that ends in ")"
    // without a counter gets "(1)" unchecked). Tries names until one is free.
    static std::string sGetDuplicateFileName(const std::string& path);
    // path itself when nothing is there, else the first free name with the
    // word suffix: "a.txt" -> "a-副本.txt", "a-副本2.txt", ... Empty for empty.
    static std::string sGetDuplicatePath(const std::string& path);
    // Resolves "." and ".." as text (no disk access), keeping a leading and a
    // trailing "/". false, result untouched, when ".." climbs above the start,
    // a component begins with "...", or path is empty.
    static bool sGetAbsolutePath(const std::string& path, std::string& result);
    // false for "", "/" and any device or mount point of the primary disk.
    static bool sIsCanUmountDevice(const std::string& path);
    // Total and available bytes of the mount from "df"; both 0 when no line
    // of df matches, or when mountPoint isn't plain (absolute, and nothing but
    // letters, digits, non-ASCII bytes and / . _ - + , : @ % =), as it goes to
    // the shell unquoted.
    static void sGetPartitionSpaceInfo(const std::string& mountPoint, unsigned long long& total,
                                       unsigned long long& available);

    // ---- File-type classification (CommonUtilsFileTypes.cpp) ----

    // Kind of a file told from its name alone; nothing is opened. The suffix
    // predicates test the end of the whole argument, case ignored, so a full
    // path serves as well as a name.
    static bool sIsImage(const std::string& path);
    static bool sIsCameraRawImage(const std::string& path);
    // extension is ".jpg" and the like, dot included; a path or name is false.
    // Camera raw formats are not supported.
    static bool sIsSupportedImage(const std::string& extension);
    static bool sIsAudio(const std::string& path);
    static bool sIsVideo(const std::string& path);
    static bool sIsDocument(const std::string& path);
    // True for a video whose bare file name (no directory) has the form that
    // cameras and telephones give ("VID_20140101_120000.mp4", "00012.mts").
    static bool sIsAutodyneVideo(std::string name);

    // ---- Privacy access control (CommonUtilsPrivacy.cpp) ----

    // true when the MAC filter entry whose MAC hashes (MD5, hex in any case)
    // to macHash has "pridisk" set to yes; false for an empty macHash.
    static bool sIsCanAccessPrivacyData(const std::string& macHash);
    // Adds mac to the whitelist (hasAuth) or removes every line holding it.
    // Does nothing when the whitelist is missing; an empty mac or one with
    // control characters is refused, so one call writes at most one line.
    static void sAuthAccessPrivacyData(const std::string& mac, bool hasAuth);
    // One statistics line at WARNING: "stat_points_privacy key=value".
    static void statPrivacy(const std::string& key, std::string value);
};

#endif
