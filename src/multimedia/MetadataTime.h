#ifndef QUORVIA_MULTIMEDIA_METADATATIME_H
#define QUORVIA_MULTIMEDIA_METADATATIME_H

#include <time.h>

// Time conversions shared by the extraction routes. Thread-safe: no static
// storage of the C library is used.
namespace talvern {
namespace metadatatime {

// The low 32 bits, as the device's long holds them.
long toDate(time_t seconds);

// Reads text in format as a local wall-clock time into date. A text of a bare
// date (10 characters) or shorter, or one that doesn't parse, leaves date
// alone; anything after the parsed part is ignored.
void parseLocalTime(const char* text, const char* format, long& date);

}  // namespace metadatatime
}  // namespace talvern

#endif
