#include "multimedia/MetadataTime.h"

#include <stdint.h>

#include <cstring>

namespace talvern {
namespace metadatatime {

namespace {

// A date text must be longer than a bare date to be read.
const size_t kMinDateTextLength = 10;

}  // namespace

long toDate(time_t seconds) {
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
    date = toDate(timelocal(&parts));
}

}  // namespace metadatatime
}  // namespace talvern
