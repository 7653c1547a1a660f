#include "system/MacFilter.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <string>

#include "system/DeviceRoot.h"
#include "system/Log.h"

namespace talvern {

namespace {

const char* const kMacFilterFile = "/etc/config/macfilter";
const char* const kSysapiTool = "/usr/sbin/sysapi";
const char* const kToolOutputPattern = "/tmp/macfilter_access_control.tmp.%lu";
const char* const kEntryStart = "config mac";
const char* const kSectionStart = "config ";
const char* const kMacOption = "option mac '";
const char* const kYes = "yes";
const char* const kOpenByDefault = "lan";
const char* const kLineTrim = "\t\n\r ";
// Bytes of the tool's first line that are looked at.
const int kToolLineSize = 256;
const size_t kToolNameSize = 256;

bool beginsWithNoCase(const std::string& text, const char* prefix) {
    const size_t length = strlen(prefix);
    return text.size() >= length && strncasecmp(text.c_str(), prefix, length) == 0;
}

std::string trimmed(const char* line, size_t length) {
    std::string text(line, length);
    const std::string::size_type first = text.find_first_not_of(kLineTrim);
    if (first == std::string::npos) {
        return std::string();
    }
    const std::string::size_type last = text.find_last_not_of(kLineTrim);
    return text.substr(first, last - first + 1);
}

// Flags of the entry being read; a "config mac" line starts them afresh.
struct EntryState {
    bool inEntry;
    bool macMatched;
    bool attributeSeen;
    int result;
};

void startEntry(EntryState& state, bool inEntry) {
    state.inEntry = inEntry;
    state.macMatched = false;
    state.attributeSeen = false;
    state.result = 0;
}

// Runs one line of an entry; true when the line decides the answer.
bool entryLineDecides(EntryState& state, const std::string& text, const char* mac,
                      const std::string& search, MacCompareFunction compare) {
    if (beginsWithNoCase(text, kMacOption)) {
        const std::string stored = text.substr(strlen(kMacOption), MacFilter::kStoredMacLength);
        if (compare(stored.c_str(), mac, static_cast<unsigned>(strlen(mac))) == 0) {
            state.macMatched = true;
        }
    }
    if (beginsWithNoCase(text, search.c_str())) {
        state.result = beginsWithNoCase(text.substr(search.size()), kYes) ? 1 : 0;
        state.attributeSeen = true;
        return state.macMatched;
    }
    return state.macMatched && state.attributeSeen;
}

int caseInsensitiveCompare(const char* stored, const char* mac, unsigned length) {
    return strncasecmp(stored, mac, length);
}

std::string toolOutputPath() {
    char name[kToolNameSize];
    snprintf(name, sizeof(name), kToolOutputPattern, static_cast<unsigned long>(pthread_self()));
    return DeviceRoot::sPath(name);
}

// The output file is made here, exclusively and without following links, so
// the shell's redirection can only write into a file of this thread, never
// through a link planted under the predictable name.
bool createToolOutput(const std::string& path) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

// system() under a SIGCHLD at its default, so the shell's status can be
// reaped; the caller's handler comes back afterwards.
bool runTool(const std::string& command) {
    struct sigaction defaultAction;
    struct sigaction previous;
    memset(&defaultAction, 0, sizeof(defaultAction));
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    sigaction(SIGCHLD, &defaultAction, &previous);
    const int status = system(command.c_str());
    sigaction(SIGCHLD, &previous, NULL);
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int readToolAnswer(const std::string& path, const char* attribute) {
    FILE* output = fopen(path.c_str(), "r");
    if (output == NULL) {
        return 0;
    }
    char line[kToolLineSize];
    const bool hasLine = fgets(line, sizeof(line), output) != NULL;
    fclose(output);
    if (!hasLine) {
        return 0;
    }
    for (char* c = line; *c != '\0'; ++c) {
        *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
    }
    const std::string wanted = std::string(attribute) + "=" + kYes;
    return strstr(line, wanted.c_str()) != NULL ? 1 : 0;
}

}  // namespace

int MacFilter::sDefaultAnswer(const char* attribute) {
    return attribute != NULL && strncasecmp(attribute, kOpenByDefault, strlen(kOpenByDefault)) == 0;
}

// Lines are read whole, so a long value can't be cut into a piece that reads
// as an option or a section line of its own. An empty mac names no device and
// gets the default, rather than matching every entry on zero characters.
int MacFilter::sFindAttribute(FILE* macfilter, const char* mac, const char* attribute,
                              MacCompareFunction compare) {
    const int fallback = sDefaultAnswer(attribute);
    if (mac == NULL || *mac == '\0' || attribute == NULL || compare == NULL ||
        strlen(attribute) > kMaxAttributeLength) {
        return fallback;
    }
    const std::string search = std::string("option ") + attribute + " '";
    EntryState state;
    startEntry(state, false);
    char* line = NULL;
    size_t capacity = 0;
    ssize_t length;
    int answer = fallback;
    while ((length = getline(&line, &capacity, macfilter)) != -1) {
        const std::string text = trimmed(line, static_cast<size_t>(length));
        if (strcasecmp(text.c_str(), kEntryStart) == 0 && text.size() == strlen(kEntryStart)) {
            startEntry(state, true);
        } else if (beginsWithNoCase(text, kSectionStart)) {
            startEntry(state, false);
        } else if (state.inEntry && entryLineDecides(state, text, mac, search, compare)) {
            answer = state.result;
            break;
        }
    }
    free(line);
    return answer;
}

bool MacFilter::sIsPlainMac(const char* mac) {
    if (mac == NULL || *mac == '\0') {
        return false;
    }
    for (const char* c = mac; *c != '\0'; ++c) {
        if (!isxdigit(static_cast<unsigned char>(*c)) && *c != ':' && *c != '-') {
            return false;
        }
    }
    return true;
}

}  // namespace talvern

extern "C" int find_mac_attribute_from_macfilter_ex(const char* mac, const char* attribute,
                                                    MacCompareFunction compare) {
    FILE* macfilter = fopen(talvern::DeviceRoot::sPath(talvern::kMacFilterFile).c_str(), "r");
    if (macfilter == NULL) {
        return talvern::MacFilter::sDefaultAnswer(attribute);
    }
    const int answer = talvern::MacFilter::sFindAttribute(macfilter, mac, attribute, compare);
    fclose(macfilter);
    return answer;
}

extern "C" int find_mac_attribute_from_macfilter(const char* mac, const char* attribute) {
    return find_mac_attribute_from_macfilter_ex(mac, attribute, talvern::caseInsensitiveCompare);
}

// The MAC stands between single quotes in a shell command, so anything but a
// plain MAC is refused before a command exists: no caller text reaches a shell.
extern "C" int find_mac_attribute_from_macfilter_command(const char* mac, const char* attribute) {
    if (attribute == NULL) {
        return 0;
    }
    if (!talvern::MacFilter::sIsPlainMac(mac)) {
        QLOG(INFO) << "find_mac_attribute_from_macfilter_command: refused a mac that isn't plain";
        return 0;
    }
    const std::string outputPath = talvern::toolOutputPath();
    const std::string command = talvern::DeviceRoot::sPath(talvern::kSysapiTool) +
                                " macfilter get 'mac=" + mac + "' > " + outputPath;
    if (command.size() > talvern::MacFilter::kMaxCommandLength) {
        QLOG(INFO) << "find_mac_attribute_from_macfilter_command: command too long";
        return 0;
    }
    int answer = 0;
    if (talvern::createToolOutput(outputPath) && talvern::runTool(command)) {
        answer = talvern::readToolAnswer(outputPath, attribute);
    }
    unlink(outputPath.c_str());
    return answer;
}
