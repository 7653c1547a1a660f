#ifndef QUORVIA_SYSTEM_LOCALIZATIONHELPER_H
#define QUORVIA_SYSTEM_LOCALIZATIONHELPER_H

#include <map>
#include <string>

namespace talvern {

// The localised texts of the device's language. Built on a localisation root
// folder holding "country.txt" (country code to language file name) and the
// language files; both are read once, in the constructor, which also asks
// CommonUtils::sGetCountryCode() for the device's country.
//
// File format, per line: key and value separated by any run of "#"; blanks,
// CR and LF trimmed from both ends of each (tabs kept); further fields
// dropped; a later key replaces an earlier one. A line longer than
// kMaxLineLength ends the reading of its file, and so does the end of its
// first kMaxFileBytes. Missing files read as empty, and so do a FIFO or a
// device.
// Not shared between threads.
class LocalizationHelper {
public:
    // Longest line that is read; the first longer line ends the file.
    static const size_t kMaxLineLength = 1023;
    // How much of a file is read at most: its head.
    static const size_t kMaxFileBytes = 1 << 20;

    explicit LocalizationHelper(const std::string& rootPath);

    // The text of key, or an empty string.
    std::string getValue(const std::string& key);
    // The language file name (not a path) for countryCode; for an unknown
    // code the one of CommonUtils::DEFAULTCOUNTRYCODE_, or empty.
    std::string getLanguagelPath(const std::string& countryCode);

private:
    typedef std::map<std::string, std::string> ValueMap;

    void init();
    void parseFile(ValueMap& values, const std::string& path);
    void parseLine(ValueMap& values, const std::string& line);

    ValueMap languageValues_;
    ValueMap countryLanguages_;
    std::string rootPath_;
};

}  // namespace talvern

#endif
