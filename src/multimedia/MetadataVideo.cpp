extern "C" {
#include <libavformat/avformat.h>
}
#include <string.h>

#include <boost/lexical_cast.hpp>
#include <chrono>
#include <string>

#include "multimedia/ContainerReader.h"
#include "multimedia/MediaReadGuard.h"
#include "multimedia/Metadata.h"
#include "multimedia/MetadataTime.h"
#include "multimedia/MetadataVideoProbe.h"
#include "storage/FileStatus.h"
#include "system/BoundedSpawner.h"
#include "system/Log.h"

namespace talvern {

namespace {

// Where the date and the time of a creation time meet: "T" (ISO 8601, as
// current muxers write it) or a blank (older muxers).
const size_t kDateTimeSeparatorIndex = 10;
// How long past the open's deadline the reading child may take to close and
// report; parts of an open (building an index) don't look at the deadline.
const int kReportGraceSeconds = 2;

typedef std::chrono::steady_clock Clock;

// A request to the reader process: the open's deadline, the policy, the path.
std::string requestFor(const std::string& path, videoprobe::StreamInfoPolicy policy,
                       Clock::time_point deadline) {
    const int64_t end = deadline.time_since_epoch().count();
    return std::string(reinterpret_cast<const char*>(&end), sizeof(end)) +
           static_cast<char>(policy) + path;
}

// Run in the reader process's child for each request.
std::string readRequested(const std::string& request) {
    int64_t end = 0;
    if (request.size() <= sizeof(end)) {
        return std::string();
    }
    memcpy(&end, request.data(), sizeof(end));
    const videoprobe::StreamInfoPolicy policy =
        static_cast<videoprobe::StreamInfoPolicy>(request[sizeof(end)]);
    return videoprobe::encodeFacts(videoprobe::readFacts(request.substr(sizeof(end) + 1), policy,
                                                         Clock::time_point(Clock::duration(end))));
}

// Without a reader process (a program of the library that started none, or
// one that has ended), the file is read here, under the read guard.
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
    // What is no regular file holds no container: no child is made for it.
    FileStatus status;
    if (FileStatus::sOfPath(path, status, true) != 0 || !status.isRegular()) {
        return true;
    }
    std::string report;
    switch (BoundedSpawner::sRun(requestFor(path, policy, deadline),
                                 deadline + std::chrono::seconds(kReportGraceSeconds), report)) {
        case BoundedSpawner::kReported:
            return videoprobe::decodeFacts(report, facts);
        case BoundedSpawner::kNotStarted:
            return readHere(path, policy, deadline, facts);
        // A limit met for a moment is no reason to store the file without
        // its duration for good.
        case BoundedSpawner::kNoChild:
            QLOG(WARNING) << "no process could be started to read " << path
                          << "; read by the daemon";
            return readHere(path, policy, deadline, facts);
        case BoundedSpawner::kDied:
            QLOG(WARNING) << "the process reading " << path << " ended without an answer";
            return false;
        case BoundedSpawner::kTimedOut:
            QLOG(WARNING) << "the process reading " << path << " ran out of time";
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

bool Metadata::sStartVideoReaders() {
    // Made once here, the tables of formats and codecs are every child's.
    ContainerReader::sPrepare();
    return BoundedSpawner::sStart(readRequested);
}

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
