#include "system/LocalizationHelper.h"

#include <boost/algorithm/string.hpp>
#include <sstream>
#include <vector>

#include "storage/File.h"
#include "system/CommonUtils.h"

namespace talvern {

namespace {

const char* const kCountryTableName = "/country.txt";
const char* const kSeparator = "###";
const char* const kTrimmed = "\r\n ";

}  // namespace

LocalizationHelper::LocalizationHelper(const std::string& rootPath)
    : languageValues_(), countryLanguages_(), rootPath_(rootPath) {
    init();
}

std::string LocalizationHelper::getValue(const std::string& key) {
    ValueMap::const_iterator found = languageValues_.find(key);
    return found == languageValues_.end() ? std::string() : found->second;
}

std::string LocalizationHelper::getLanguagelPath(const std::string& countryCode) {
    ValueMap::const_iterator found = countryLanguages_.find(countryCode);
    if (found == countryLanguages_.end()) {
        found = countryLanguages_.find(CommonUtils::DEFAULTCOUNTRYCODE_);
    }
    return found == countryLanguages_.end() ? std::string() : found->second;
}

void LocalizationHelper::init() {
    parseFile(countryLanguages_, rootPath_ + kCountryTableName);
    const std::string countryCode = CommonUtils::sGetCountryCode();
    parseFile(languageValues_, rootPath_ + "/" + getLanguagelPath(countryCode));
}

void LocalizationHelper::parseFile(ValueMap& values, const std::string& path) {
    values.clear();
    std::string text;
    File::sReadRegularFileLines(path, kMaxFileBytes, text);
    std::istringstream in(text);
    char buffer[kMaxLineLength + 1];
    // getline() fails on a line that doesn't fit the buffer, which ends the
    // file there; a last line without a line end still reads.
    while (in.getline(buffer, sizeof(buffer))) {
        const std::streamsize length = in.eof() ? in.gcount() : in.gcount() - 1;
        parseLine(values, std::string(buffer, static_cast<size_t>(length)));
    }
}

void LocalizationHelper::parseLine(ValueMap& values, const std::string& line) {
    std::vector<std::string> tokens = CommonUtils::splitStringTokenCompress(line, kSeparator);
    if (tokens.size() < 2) {
        return;
    }
    boost::algorithm::trim_if(tokens[0], boost::algorithm::is_any_of(kTrimmed));
    boost::algorithm::trim_if(tokens[1], boost::algorithm::is_any_of(kTrimmed));
    values[tokens[0]] = tokens[1];
}

}  // namespace talvern
