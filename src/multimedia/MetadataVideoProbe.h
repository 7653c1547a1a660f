#ifndef QUORVIA_MULTIMEDIA_METADATAVIDEOPROBE_H
#define QUORVIA_MULTIMEDIA_METADATAVIDEOPROBE_H

#include <stdint.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "multimedia/Metadata.h"

namespace talvern {
namespace videoprobe {

// When the container's streams are probed by decoding frames.
enum StreamInfoPolicy {
    // Only where the header leaves the duration or a stream's type open: the
    // record comes out the same, at a fraction of the cost.
    kStreamInfoWhenHeaderIsOpen,
    // Always, as a reference for the record and the cost.
    kStreamInfoAlways
};

// What extraction takes from a container, gathered where it is parsed and
// carried back as bytes.
struct ContainerFacts {
    // Longest text carried: a creation time is some thirty characters.
    static constexpr std::size_t kMaxTextBytes = 1024;

    bool opened;
    bool hasVideo;
    // The container's duration in AV_TIME_BASE units, as libavformat gives it.
    int64_t duration;
    // The MP4 family's "creation_time", when it has one.
    bool hasCreationTime;
    std::string creationTime;
    // The first other input the file asked libavformat to open (refused).
    std::string refusedOpen;

    ContainerFacts() : opened(false), hasVideo(false), duration(0), hasCreationTime(false) {}
};

// Opens path with ContainerReader until deadline and gathers its facts. Logs
// nothing: in a reader child, its lines would reach no log; the caller logs
// what the facts say.
ContainerFacts readFacts(const std::string& path, StreamInfoPolicy policy,
                         std::chrono::steady_clock::time_point deadline);
std::string encodeFacts(const ContainerFacts& facts);
// false when text is not one whole encoding.
bool decodeFacts(const std::string& text, ContainerFacts& facts);

// The container part of video extraction: fills metadata.duration and, for the
// MP4 family, metadata.date from the creation time. The container is parsed in
// a child of the reader process (Metadata::sStartVideoReaders), or here when
// there is none.
// false, with the record untouched, when path is not a regular file holding a
// container that ContainerReader takes within openLimit, or its reader died or
// ran out of time. Any thread.
bool readContainer(const std::string& path, metadata_s& metadata, StreamInfoPolicy policy,
                   std::chrono::steady_clock::duration openLimit =
                       std::chrono::seconds(Metadata::kOpenDeadlineSeconds));

}  // namespace videoprobe
}  // namespace talvern

#endif
