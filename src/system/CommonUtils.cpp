#include "system/CommonUtils.h"

#include <sys/stat.h>

#include <boost/algorithm/string.hpp>
#include <cctype>

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
    struct stat64 info;
    if (stat64(path.c_str(), &info) != 0) {
        return 0;
    }
    return static_cast<uint64_t>(info.st_size);
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
