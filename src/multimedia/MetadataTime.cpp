#include "multimedia/MetadataTime.h"

#include <stdint.h>

#include <cstring>

namespace talvern {
namespace metadatatime {

namespace {

// A date text must be longer than a bare date to be read.
const size_t kMinDateTextLength = 10;

}  // namespace

// mktime: glibc's timelocal is this very function, and musl has no other.
long localDate(struct tm& parts) {
    const time_t seconds = mktime(&parts);
    return seconds == static_cast<int32_t>(seconds) ? static_cast<long>(seconds) : -1;
}

void parseLocalTime(const char* text, const char* format, long& date) {
    if (std::strlen(text) <= kMinDateTextLength) {
        return;
    }
    struct tm parts;
    std::memset(&parts, 0, sizeof(parts));
    if (strptime(text, format, &parts) == NULL) {
        return;
    }
    // Let the zone's rules decide summer time for that day.
    parts.tm_isdst = -1;
    date = localDate(parts);
}

}  // namespace metadatatime
}  // namespace talvern
