#ifndef QUORVIA_SYSTEM_MACFILTER_H
#define QUORVIA_SYSTEM_MACFILTER_H

#include <cstddef>
#include <cstdio>

// Rights of client devices, known by MAC, as the router's MAC filter
// configuration ("/etc/config/macfilter", uci text format) holds them.
//
// compare(stored, mac, strlen(mac)) is asked for each entry's MAC (at most
// its first 17 characters) and means a match when it gives 0.
//
// The answer for mac and attribute comes from the first entry whose MAC
// matches and that holds the attribute: 1 when its value begins with "yes"
// (any case), else 0. An entry without the attribute is passed over. With no
// such entry, or no readable file, the default: 1 for an attribute beginning
// with "lan" (any case), 0 for any other. No lock: any thread may call these.
extern "C" {
typedef int (*MacCompareFunction)(const char* stored, const char* mac, unsigned length);

int find_mac_attribute_from_macfilter_ex(const char* mac, const char* attribute,
                                         MacCompareFunction compare);
// The same with a case-insensitive compare over the length of mac, so a
// shorter mac matches on the stored MAC's first characters.
int find_mac_attribute_from_macfilter(const char* mac, const char* attribute);
// The same question put to "/usr/sbin/sysapi macfilter get 'mac=MAC'": 1 when
// the tool's first line holds attribute (lower case) + "=yes", else 0, also
// for "lan" and for every failure of the tool. A mac that isn't plain (hex
// digits, ":" and "-" only) is refused before any command is built.
int find_mac_attribute_from_macfilter_command(const char* mac, const char* attribute);
}

namespace talvern {

class MacFilter {
public:
    // Longest attribute name; a longer one gets the default unread.
    static const size_t kMaxAttributeLength = 90;
    // Characters of an entry's MAC handed to the compare function.
    static const size_t kStoredMacLength = 17;
    // Longest command the tool route runs; a longer one is refused, not cut.
    static const size_t kMaxCommandLength = 255;

    virtual ~MacFilter() {}

    // The default answer for attribute (see above); 0 for null.
    static int sDefaultAnswer(const char* attribute);
    // The search over an open MAC filter text; the stream stays open.
    static int sFindAttribute(FILE* macfilter, const char* mac, const char* attribute,
                              MacCompareFunction compare);
    // Whether mac may stand between single quotes in a command: only
    // hexadecimal digits, ":" and "-".
    static bool sIsPlainMac(const char* mac);
};

}  // namespace talvern

#endif
