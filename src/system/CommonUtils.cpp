#include "system/CommonUtils.h"

#include <sys/stat.h>

#include <boost/algorithm/string.hpp>
#include <cctype>

#include "storage/FileStatus.h"

bool CommonUtils::startWith(const std::string& text, const std::string& prefix) {
    return boost::algorithm::istarts_with(text, prefix);
}

bool CommonUtils::endWith(const std::string& text, const std::string& suffix) {
    return boost::algorithm::iends_with(text, suffix);
}

std::string CommonUtils::sUnifyPathStyle(const std::string& path) {
    if (path.size() >= 2 && path[path.size() - 1] == '/') {
        return path.substr(0, path.size() - 1);
    }
    return path;
}

std::string CommonUtils::sToLower(const std::string& text) {
    std::string lower(text);
    for (std::string::size_type i = 0; i < lower.size(); ++i) {
        lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(lower[i])));
    }
    return lower;
}

uint64_t CommonUtils::sGetFileSize(const std::string& path) {
    talvern::FileStatus status;
    return talvern::FileStatus::sOfPath(path, status) == 0 ? status.size : 0;
}

std::vector<std::string> CommonUtils::splitString(const std::string& text,
                                                  const std::string& separators) {
    std::vector<std::string> fields;
    boost::algorithm::split(fields, text, boost::algorithm::is_any_of(separators),
                            boost::algorithm::token_compress_off);
    return fields;
}

std::vector<std::string> CommonUtils::splitStringTokenCompress(const std::string& text,
                                                               const std::string& separators) {
    std::vector<std::string> fields;
    boost::algorithm::split(fields, text, boost::algorithm::is_any_of(separators),
                            boost::algorithm::token_compress_on);
    return fields;
}

void CommonUtils::splitString(std::set<std::string>& result, const std::string& text,
                              const std::string& separators) {
    boost::algorithm::split(result, text, boost::algorithm::is_any_of(separators),
                            boost::algorithm::token_compress_on);
}
