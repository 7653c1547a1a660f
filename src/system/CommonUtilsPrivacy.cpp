#include <openssl/evp.h>
#include <strings.h>

#include <cctype>
#include <cstring>
#include <sstream>
#include <vector>

#include "storage/File.h"
#include "storage/ReplacementFile.h"
#include "system/CommonUtils.h"
#include "system/DeviceRoot.h"
#include "system/Log.h"
#include "system/MacFilter.h"

namespace {

const char* const kWhitelistFile = "/data/etc/talvern/whitelist";
// A whitelist holds a line per device allowed in; beyond this it is not read.
const size_t kMaxWhitelistBytes = 1 << 20;
const char* const kPrivacyAttribute = "pridisk";
// Characters of a stored MAC that are hashed; the rest is ignored.
const size_t kMacHashInputLength = 49;

// 0 when md5 (hex, any case) is the MD5 digest of mac in lower case. length
// isn't used: the whole of md5 counts.
int sMacCompare(const char* mac, const char* md5, unsigned /*length*/) {
    char lowered[kMacHashInputLength + 1];
    size_t size = 0;
    for (; size < kMacHashInputLength && mac[size] != '\0'; ++size) {
        lowered[size] = static_cast<char>(tolower(static_cast<unsigned char>(mac[size])));
    }
    lowered[size] = '\0';
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    char hex[2 * EVP_MAX_MD_SIZE + 1] = "";
    if (EVP_Digest(lowered, size, digest, &digestLength, EVP_md5(), NULL) == 1) {
        for (unsigned int i = 0; i < digestLength; ++i) {
            snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        }
    }
    QLOG(INFO) << "sMacCompare, str1 : " << mac << " , str2 : " << md5
               << " , md5_hex : " << hex;
    return strcasecmp(hex, md5);
}

// One whitelist line per call: an entry with a line end or another control
// character would write more than one line, an empty one matches every line.
bool isWhitelistEntry(const std::string& mac) {
    if (mac.empty()) {
        return false;
    }
    for (std::string::size_type i = 0; i < mac.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(mac[i]);
        if (c < 0x20 || c == 0x7f) {
            return false;
        }
    }
    return true;
}

// The lines of the whitelist; false when it is no regular file or beyond
// kMaxWhitelistBytes (then it is left as it is: nothing waits on a FIFO).
bool readLines(const std::string& path, std::vector<std::string>& lines) {
    std::string content;
    if (!talvern::File::sReadRegularFile(path, kMaxWhitelistBytes, content)) {
        return false;
    }
    std::istringstream in(content);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return true;
}

// The new whitelist replaces the old one whole, with its owner and mode (a
// link planted at its name is replaced, never written through); a file that
// can't be written beside it is left as it was.
void writeWhitelist(const std::string& path, const std::vector<std::string>& lines,
                    const std::string& mac, bool hasAuth) {
    std::ostringstream out;
    bool present = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const bool holdsMac = lines[i].find(mac) != std::string::npos;
        present = present || holdsMac;
        if (hasAuth || !holdsMac) {
            out << lines[i] << "\n";
        }
    }
    if (hasAuth && !present) {
        out << mac << "\n";
    }
    const std::string content = out.str();
    talvern::ReplacementFile replacement(path);
    if (replacement.stream() != NULL &&
        fwrite(content.data(), 1, content.size(), replacement.stream()) == content.size()) {
        replacement.commitKeepingOwner(false);
    }
}

}  // namespace

bool CommonUtils::sIsCanAccessPrivacyData(const std::string& macHash) {
    if (macHash.empty()) {
        return false;
    }
    return find_mac_attribute_from_macfilter_ex(macHash.c_str(), kPrivacyAttribute, sMacCompare) !=
           0;
}

void CommonUtils::sAuthAccessPrivacyData(const std::string& mac, bool hasAuth) {
    const std::string path = talvern::DeviceRoot::sPath(kWhitelistFile);
    if (!talvern::File::sExists(path)) {
        return;
    }
    if (!isWhitelistEntry(mac)) {
        QLOG(INFO) << "AuthAccessPrivacyData, refused an empty mac or one with control characters";
        return;
    }
    std::vector<std::string> lines;
    if (readLines(path, lines)) {
        writeWhitelist(path, lines, mac, hasAuth);
    }
    QLOG(INFO) << "AuthAccessPrivacyData, mac : " << mac << " , hasAuth : " << (hasAuth ? 1 : 0);
}

void CommonUtils::statPrivacy(const std::string& key, std::string value) {
    QLOG(WARNING) << "stat_points_privacy " << key << "=" << value;
}
