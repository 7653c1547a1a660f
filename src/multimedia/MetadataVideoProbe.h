#ifndef QUORVIA_MULTIMEDIA_METADATAVIDEOPROBE_H
#define QUORVIA_MULTIMEDIA_METADATAVIDEOPROBE_H

#include <chrono>
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

// The container part of video extraction: fills metadata.duration and, for the
// MP4 family, metadata.date from the creation time. false, with the record
// untouched, when path is not a regular file holding a container that
// ContainerReader takes within openLimit, or a file listed as unreadable
// (MediaReadGuard). Any thread.
bool readContainer(const std::string& path, metadata_s& metadata, StreamInfoPolicy policy,
                   std::chrono::steady_clock::duration openLimit =
                       std::chrono::seconds(Metadata::kOpenDeadlineSeconds));

}  // namespace videoprobe
}  // namespace talvern

#endif
