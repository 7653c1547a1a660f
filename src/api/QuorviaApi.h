#ifndef QUORVIA_API_QUORVIAAPI_H
#define QUORVIA_API_QUORVIAAPI_H

#include <string>

#include "api/ApiBase.h"

// The operations behind the router. A metadata operation answers from the
// store when it knows the hash and otherwise reads the file, stores the
// record and answers from that: the store is a cache keyed by the caller's
// content hash. Answers are JSON texts with "code" 0; a file that can't be
// read still answers, with what the extraction left (at worst empty strings
// and date 0). Holds no data; runs on several workers at once and relies on
// the store's own locking. Exceptions of the store or the extraction pass
// through to the caller's guard.
class QuorviaApi : public ApiBase {
public:
    virtual ~QuorviaApi() {}

    // {"code","msg","title","mime","date"}. defaultModifyTime is the caller's
    // date of the file, 0 for none.
    std::string getImageMetadata(const std::string& path, const std::string& name,
                                 long defaultModifyTime, const std::string& hash) const;
    // {"code","msg","title","mime","album","artist","duration","date"}.
    std::string getAudioMetadata(const std::string& path, const std::string& name,
                                 const std::string& hash) const;
    // {"code","msg","title","duration","date"}; no "mime".
    std::string getVedioMetadata(const std::string& path, const std::string& name,
                                 long defaultModifyTime, const std::string& hash) const;
    // Drops the rows of root and below; {"code","msg"} with code 0 whether or
    // not rows matched or the delete worked. The router keeps an empty root
    // and "/" away from here.
    std::string processUmount(const std::string& root) const;
};

#endif
