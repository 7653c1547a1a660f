#ifndef QUORVIA_SYSTEM_CONFIGUTILS_H
#define QUORVIA_SYSTEM_CONFIGUTILS_H

#include <boost/thread/mutex.hpp>
#include <cstddef>
#include <libconfig.h++>
#include <string>

// Reader of one libconfig file, given at construction. The file is read again
// at every lookup. Any thread may call; calls on one object are serialised.
class ConfigUtils {
public:
    // Bytes a configuration file may hold: the device's are a few lines long.
    static constexpr std::size_t kMaxFileBytes = 1 << 20;

    explicit ConfigUtils(const std::string& path);

    // libconfig's readFile of path into config, for files that others may
    // plant: a FIFO, a device or a file beyond kMaxFileBytes throws
    // libconfig::FileIOException as a missing file does; nothing is waited
    // on. A file that doesn't parse throws libconfig::ParseException.
    static void sReadFile(libconfig::Config& config, const std::string& path);
    // The same for name in the folder open as the descriptor folder; a link
    // at name is followed only when followLink.
    static void sReadFileIn(libconfig::Config& config, int folder, const std::string& name,
                            bool followLink);

    // The string setting key at the root of the file; empty when the file is
    // missing or doesn't parse, or the key is missing or not a string. Logs
    // nothing and throws nothing.
    std::string getConfigFromKey(const std::string& key);

private:
    boost::mutex mutex_;
    std::string path_;
};

#endif
