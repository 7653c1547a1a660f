#ifndef QUORVIA_MULTIMEDIA_METADATATIME_H
#define QUORVIA_MULTIMEDIA_METADATATIME_H

#include <time.h>

// Time conversions shared by the extraction routes. Thread-safe: no static
// storage of the C library is used.
namespace talvern {
namespace metadatatime {

// parts read as a local wall-clock time, in seconds as the device's 32-bit
// time gives them: -1 beyond that range, where its conversion fails (the
// low 32 bits of a date in 2106-2173 would pass for a believable one on a
// 64-bit build). parts is normalised.
long localDate(struct tm& parts);

// Reads text in format as a local wall-clock time into date. A text of a bare
// date (10 characters) or shorter, or one that doesn't parse, leaves date
// alone; anything after the parsed part is ignored.
void parseLocalTime(const char* text, const char* format, long& date);

}  // namespace metadatatime
}  // namespace talvern

#endif
