#ifndef QUORVIA_SYSTEM_CONFIGUTILS_H
#define QUORVIA_SYSTEM_CONFIGUTILS_H

#include <boost/thread/mutex.hpp>
#include <string>

// Reader of one libconfig file, given at construction. The file is read again
// at every lookup. Any thread may call; calls on one object are serialised.
class ConfigUtils {
public:
    explicit ConfigUtils(const std::string& path);

    // The string setting key at the root of the file; empty when the file is
    // missing or doesn't parse, or the key is missing or not a string. Logs
    // nothing and throws nothing.
    std::string getConfigFromKey(const std::string& key);

private:
    boost::mutex mutex_;
    std::string path_;
};

#endif
