#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <sstream>

#include "system/CommonUtils.h"
#include "system/ConfigUtils.h"
#include "system/DeviceRoot.h"
#include "system/Log.h"

const std::string CommonUtils::DEFAULTCOUNTRYCODE_ = "CN";

namespace {

// Bytes handed to one fgets(); a longer line arrives in pieces.
const int kOutputBufferSize = 128;
const char* const kCountryCodeFile = "/tmp/commonutils.config.tmp";
const char* const kCountryCodeKey = "code";
const char* const kReleaseChannel = "release";
const size_t kVersionParts = 3;
// Above standard input, output and error.
const int kFirstFreeDescriptor = 3;

std::string hex(int value) {
    std::ostringstream text;
    text << std::hex << value;
    return text.str();
}

// Trims line ends and blanks from the ends of the whole text only, so inner
// lines keep their line ends, and logs what is left.
void trimAndLog(std::string& output) {
    boost::algorithm::trim_if(output, boost::algorithm::is_any_of("\r\n "));
    QLOG(INFO) << "excuete cmd output: " << output;
}

// Reads the whole stream.
void readOutput(FILE* stream, std::string& output) {
    output.clear();
    char buffer[kOutputBufferSize];
    while (fgets(buffer, sizeof(buffer), stream) != NULL) {
        output.append(buffer);
    }
    trimAndLog(output);
}

// Reads the pipe fd to its end; a signal that breaks into a read is no end.
void readPipe(int fd, std::string& output) {
    output.clear();
    char buffer[kOutputBufferSize];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof(buffer))) > 0 || (got < 0 && errno == EINTR)) {
        output.append(buffer, got > 0 ? got : 0);
    }
    trimAndLog(output);
}

// Decodes a wait status from system() or pclose(): the exit code, or bits 8
// to 15 (normally 0) when the command died from a signal.
int evaluateStatus(int status, const std::string& command) {
    QLOG(INFO) << "exit status value = [0x" << hex(status) << "]";
    if ((status & 0x7f) != 0) {
        return (status >> 8) & 0xff;
    }
    const int exitCode = (status >> 8) & 0xff;
    if (exitCode == 0) {
        QLOG(INFO) << "execute system command :" << command << " success,and return code: 0";
    } else {
        QLOG(ERROR) << "execute system command :" << command
                    << " fail,and return code: " << exitCode << ",exit status value = [0x"
                    << hex(status) << "]" << " and error msg is:" << strerror(errno);
    }
    return exitCode;
}

// fd itself when it lies above the standard descriptors, else a copy of it
// there; -1 with errno when no copy can be made.
int aboveStandard(int fd) {
    return fd >= kFirstFreeDescriptor ? fd : fcntl(fd, F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
}

// "/bin/sh -c command" started as system() starts it, with its standard
// input and output the descriptors input and output; its pid, or -1 with
// errno. posix_spawn rather than fork: other threads may hold locks that a
// forked copy would keep. A descriptor among the standard ones is first
// copied above them, so that binding one to 0 or 1 never overwrites the
// other there.
pid_t spawnShell(const std::string& command, int input, int output) {
    const int given[] = {input, output};
    const int from[] = {aboveStandard(input), aboveStandard(output)};
    int error = errno;
    pid_t child = -1;
    if (from[0] >= 0 && from[1] >= 0) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, from[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, from[1], STDOUT_FILENO);
        const char* const arguments[] = {"sh", "-c", command.c_str(), NULL};
        error = posix_spawn(&child, "/bin/sh", &actions, NULL, const_cast<char* const*>(arguments),
                            environ);
        posix_spawn_file_actions_destroy(&actions);
    }
    for (int i = 0; i < 2; ++i) {
        if (from[i] >= 0 && from[i] != given[i]) {
            close(from[i]);
        }
    }
    errno = error;
    return error == 0 ? child : -1;
}

// 0 with the child's wait status, -1 when it can't be waited for.
int waitForChild(pid_t child, int& status) {
    pid_t waited;
    while ((waited = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return waited == child ? 0 : -1;
}

int closeAndEvaluate(FILE* stream, const std::string& command) {
    const int status = pclose(stream);
    if (status == -1) {
        QLOG(ERROR) << "pclose cmd failed: " << command << ", error msg is: " << strerror(errno);
        return -1;
    }
    return evaluateStatus(status, command);
}

// popen() under a SIGCHLD at its default, so that pclose() can reap the child
// even when somebody set the signal to be ignored. Not restored afterwards.
FILE* openWithDefaultSigchld(const std::string& command) {
    signal(SIGCHLD, SIG_DFL);
    QLOG(INFO) << "excuete cmd: " << command;
    FILE* stream = popen(command.c_str(), "r");
    if (stream == NULL) {
        QLOG(ERROR) << "excute cmd fail: " << command;
    }
    return stream;
}

std::string outputOf(const std::string& command) {
    std::string output;
    CommonUtils::sCallSystem(command, output);
    return output;
}

}  // namespace

int CommonUtils::sCallSystem(const std::string& command) {
    QLOG(WARNING) << "begin execute system command : " << command;
    signal(SIGCHLD, SIG_DFL);
    const int status = system(command.c_str());
    if (status == -1) {
        QLOG(ERROR) << "execute system command :" << command
                    << " fail,system error and return code:" << -1
                    << " and error number is:" << strerror(errno);
        return -1;
    }
    return evaluateStatus(status, command);
}

int CommonUtils::sCallSystemWith(const std::string& command, int input, int output,
                                 const std::string& shown) {
    QLOG(WARNING) << "begin execute system command : " << shown;
    signal(SIGCHLD, SIG_DFL);
    const pid_t child = spawnShell(command, input, output);
    int status = 0;
    if (child < 0 || waitForChild(child, status) != 0) {
        QLOG(ERROR) << "execute system command :" << shown
                    << " fail,system error and return code:" << -1
                    << " and error number is:" << strerror(errno);
        return -1;
    }
    return evaluateStatus(status, shown);
}

bool CommonUtils::sCallSystemWith(const std::string& command, int input, std::string& output,
                                  const std::string& shown) {
    QLOG(INFO) << "excuete cmd: " << shown;
    signal(SIGCHLD, SIG_DFL);
    output.clear();
    int pipeEnds[2];
    pid_t child = -1;
    if (pipe2(pipeEnds, O_CLOEXEC) == 0) {
        child = spawnShell(command, input, pipeEnds[1]);
        close(pipeEnds[1]);
        if (child >= 0) {
            readPipe(pipeEnds[0], output);
        }
        close(pipeEnds[0]);
    }
    int status = 0;
    if (child < 0 || waitForChild(child, status) != 0) {
        QLOG(INFO) << "excute cmd fail: " << shown;
        return false;
    }
    return true;
}

bool CommonUtils::sCallSystem(const std::string& command, std::string& output) {
    QLOG(INFO) << "excuete cmd: " << command;
    FILE* stream = popen(command.c_str(), "r");
    if (stream == NULL) {
        QLOG(INFO) << "excute cmd fail: " << command;
        return false;
    }
    readOutput(stream, output);
    pclose(stream);
    return true;
}

int CommonUtils::sCallPopenNoOutput(const std::string& command) {
    FILE* stream = openWithDefaultSigchld(command);
    if (stream == NULL) {
        return -1;
    }
    return closeAndEvaluate(stream, command);
}

int CommonUtils::sCallPopenWithOutput(const std::string& command, std::string& output) {
    FILE* stream = openWithDefaultSigchld(command);
    if (stream == NULL) {
        return -1;
    }
    readOutput(stream, output);
    return closeAndEvaluate(stream, command);
}

std::string CommonUtils::sGetRomVersion() {
    return outputOf("uci -c /usr/share/brendle get brendle_version.version.ROM");
}

std::string CommonUtils::sGetRomChannel() {
    return outputOf("uci -c /usr/share/brendle get brendle_version.version.CHANNEL");
}

std::string CommonUtils::sGetRomSN() { return outputOf("nvram get SN"); }

std::string CommonUtils::sGetDeviceId() {
    // The tool's own path is a device path; the argument is a uci key.
    const std::string command =
        talvern::DeviceRoot::sPath("/sbin/uci") + " get /etc/config/messaging.deviceInfo.DEVICE_ID";
    std::string output;
    if (!sCallSystem(command, output)) {
        return std::string();
    }
    return output;
}

std::string CommonUtils::sGetCountryCode() {
    // Filled once: later changes of the file or of nvram are not seen. The
    // lock keeps two first callers from writing the string at the same time.
    static boost::mutex cacheMutex;
    static std::string cachedCode;
    boost::lock_guard<boost::mutex> lock(cacheMutex);
    if (!cachedCode.empty()) {
        return cachedCode;
    }
    ConfigUtils countryFile(talvern::DeviceRoot::sPath(kCountryCodeFile));
    cachedCode = countryFile.getConfigFromKey(kCountryCodeKey);
    if (cachedCode.empty() && sGetRomChannel() == kReleaseChannel) {
        sCallSystem("nvram get CountryCode", cachedCode);
        boost::algorithm::trim_if(cachedCode, boost::algorithm::is_any_of("\r\n "));
    }
    if (cachedCode.empty()) {
        cachedCode = DEFAULTCOUNTRYCODE_;
    }
    return cachedCode;
}

bool CommonUtils::sCheckIsLowerVersionThanCurrentRom(std::string version) {
    try {
        const std::string romVersion = sGetRomVersion();
        QLOG(INFO) << "rom version is: " << romVersion << "  input version is: " << version;
        const std::vector<std::string> given = splitString(version, ".");
        const std::vector<std::string> current = splitString(romVersion, ".");
        if (given.size() != kVersionParts || current.size() != kVersionParts) {
            return false;
        }
        for (size_t i = 0; i < kVersionParts; ++i) {
            const int givenPart = boost::lexical_cast<int>(given[i]);
            const int currentPart = boost::lexical_cast<int>(current[i]);
            if (givenPart > currentPart) {
                return false;
            }
            if (givenPart < currentPart) {
                return true;
            }
        }
        return true;
    } catch (...) {
        return false;
    }
}
