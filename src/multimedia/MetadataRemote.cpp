#include "multimedia/Metadata.h"

namespace talvern {

// The loopback client is not in this tree yet: the remote route answers as if
// the daemon could not be reached.
int Metadata::getImageMetadataViaThrift(const std::string&, const std::string&,
                                        const std::string&, long, metadata_s&) {
    return -1;
}

int Metadata::getAudioMetadataViaThrift(const std::string&, const std::string&,
                                        const std::string&, metadata_s&) {
    return -1;
}

int Metadata::getVideoMetadataViaThrift(const std::string&, const std::string&,
                                        const std::string&, long, metadata_s&) {
    return -1;
}

}  // namespace talvern
