extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}
#include <string.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <chrono>
#include <string>

#include "multimedia/ContainerReader.h"
#include "multimedia/MediaReadGuard.h"
#include "multimedia/Metadata.h"
#include "multimedia/MetadataTime.h"
#include "multimedia/MetadataVideoProbe.h"
#include "system/BoundedChild.h"
#include "system/Log.h"

namespace talvern {

namespace {

// Where the date and the time of a creation time meet: "T" (ISO 8601, as
// current muxers write it) or a blank (older muxers).
const size_t kDateTimeSeparatorIndex = 10;
// How long past the open's deadline the reading child may take to close and
// report; parts of an open (building an index) don't look at the deadline.
const int kReportGraceSeconds = 2;
const int kMaxLibraryLine = 1024;

typedef std::chrono::steady_clock Clock;

// libavformat's own complaints, written without the standard error stream's
// lock, which another thread of the parent may have held at the fork.
void writeLibraryLine(void* object, int level, const char* format, va_list arguments) {
    if (level > av_log_get_level()) {
        return;
    }
    char line[kMaxLibraryLine];
    int printPrefix = 1;
    av_log_format_line2(object, level, format, arguments, line, sizeof(line), &printPrefix);
    const ssize_t ignored = write(STDERR_FILENO, line, strlen(line));
    static_cast<void>(ignored);
}

std::string readInChild(const std::string& path, videoprobe::StreamInfoPolicy policy,
                        Clock::time_point deadline) {
    av_log_set_callback(writeLibraryLine);
    return videoprobe::encodeFacts(videoprobe::readFacts(path, policy, deadline));
}

// Where no child can be made (no memory for its tables, a process limit), the
// file is read here, under the read guard, rather than stored without its
// duration for good.
bool readHere(const std::string& path, videoprobe::StreamInfoPolicy policy,
              Clock::time_point deadline, videoprobe::ContainerFacts& facts) {
    MediaReadGuard guard(path);
    if (!guard.admitted()) {
        return false;
    }
    facts = videoprobe::readFacts(path, policy, deadline);
    return true;
}

// A crafted container can make libavformat allocate gigabytes or crash; read
// in a bounded child, it costs that child alone.
bool gatherFacts(const std::string& path, videoprobe::StreamInfoPolicy policy,
                 Clock::time_point deadline, videoprobe::ContainerFacts& facts) {
    ContainerReader::sPrepare();
    std::string report;
    int endSignal = 0;
    switch (BoundedChild::sRun([&] { return readInChild(path, policy, deadline); },
                               deadline + std::chrono::seconds(kReportGraceSeconds), report,
                               endSignal)) {
        case BoundedChild::kReported:
            return videoprobe::decodeFacts(report, facts);
        case BoundedChild::kNotStarted:
            QLOG(WARNING) << "can't start a process to read " << path << "; read by the daemon";
            return readHere(path, policy, deadline, facts);
        case BoundedChild::kDied:
            QLOG(WARNING) << "the process reading " << path << " ended without an answer (signal "
                          << endSignal << ")";
            return false;
        case BoundedChild::kTimedOut:
            QLOG(WARNING) << "the process reading " << path << " ran out of time; killed";
            return false;
    }
    return false;
}

void readDuration(const std::string& path, int64_t duration, metadata_s& metadata) {
    QLOG(INFO) << "find AVMEDIA_TYPE_VIDEO";
    if (duration < 1) {
        return;
    }
    metadata.duration = boost::lexical_cast<std::string>(duration / AV_TIME_BASE);
    QLOG(INFO) << "video " << path << " raw duration is " << metadata.duration;
}

void readCreationTime(const std::string& value, metadata_s& metadata) {
    QLOG(INFO) << "creation_time is " << value;
    std::string text(value);
    if (text.size() > kDateTimeSeparatorIndex && text[kDateTimeSeparatorIndex] == 'T') {
        text[kDateTimeSeparatorIndex] = ' ';
    }
    metadatatime::parseLocalTime(text.c_str(), "%Y-%m-%d %H:%M:%S", metadata.date);
}

}  // namespace

namespace videoprobe {

bool readContainer(const std::string& path, metadata_s& metadata, StreamInfoPolicy policy,
                   Clock::duration openLimit) {
    ContainerFacts facts;
    if (!gatherFacts(path, policy, Clock::now() + openLimit, facts)) {
        return false;
    }
    if (!facts.refusedOpen.empty()) {
        QLOG(WARNING) << "media file " << path << " asks to open " << facts.refusedOpen
                      << "; refused";
    }
    if (!facts.opened) {
        return false;
    }
    QLOG(INFO) << "av_open_input_file success";
    if (facts.hasVideo) {
        readDuration(path, facts.duration, metadata);
    }
    if (facts.hasCreationTime) {
        readCreationTime(facts.creationTime, metadata);
    }
    return true;
}

}  // namespace videoprobe

int Metadata::getVideoMetadata(const std::string& path, const std::string& name,
                               long defaultModifyTime, metadata_s& metadata,
                               const std::string& hash, bool viaThrift) {
    if (viaThrift) {
        return getVideoMetadataViaThrift(path, hash, name, defaultModifyTime, metadata);
    }
    if (!videoprobe::readContainer(path, metadata, videoprobe::kStreamInfoWhenHeaderIsOpen)) {
        QLOG(ERROR) << "av_open_input_file fail, path is " << path;
    }
    metadata.title = name;
    getModifyTime(path, metadata, defaultModifyTime);
    return 0;
}

}  // namespace talvern
