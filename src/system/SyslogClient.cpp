#include "system/SyslogClient.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "system/DeviceRoot.h"

namespace talvern {

namespace {

// The syslog level of each glog severity: INFO, WARNING, ERROR, FATAL.
const int kLevelOfSeverity[] = {LOG_INFO, LOG_WARNING, LOG_ERR, LOG_EMERG};
const int kSeverities = sizeof(kLevelOfSeverity) / sizeof(kLevelOfSeverity[0]);

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

SyslogClient::SyslogClient(const std::string& socketPath, const std::string& identity,
                           const Clock& clock)
    : socketPath_(socketPath),
      clock_(clock),
      identity_(identity),
      fd_(-1),
      stream_(false),
      nextAttemptMillis_(clock()),
      stampSecond_(0) {}

SyslogClient::~SyslogClient() { close(); }

long long SyslogClient::sSteadyMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool SyslogClient::send(int severity, const struct timespec& when, const std::string& text) {
    queue(severity, when, text);
    return flush() == 1;
}

void SyslogClient::queue(int severity, const struct timespec& when, const std::string& text) {
    const int level =
        severity >= 0 && severity < kSeverities ? kLevelOfSeverity[severity] : LOG_ERR;
    pending_.push_back("<" + std::to_string(kFacility | level) + ">" + stamp(when) + text);
}

size_t SyslogClient::flush() {
    size_t sent = 0;
    if (!pending_.empty() && (fd_ >= 0 || connectWithinBackOff())) {
        const size_t stopped = sendFrom(0, sent);
        // The listener went away (a syslog daemon restarted): a new
        // connection, within the back-off, for the lines not sent.
        if (stopped < pending_.size() && errno != EAGAIN && errno != EWOULDBLOCK) {
            close();
            if (connectWithinBackOff()) {
                sendFrom(stopped, sent);
            }
        }
    }
    pending_.clear();
    return sent;
}

// Sends the lines from first on and counts those that left in sent; answers
// where it stopped: the end, or the line refused with errno telling why. A
// line too long for the listener is skipped; a listener that does not read
// now (EAGAIN) ends the batch, as it would refuse the rest too.
size_t SyslogClient::sendFrom(size_t first, size_t& sent) {
    if (!stream_) {
        return sendDatagramsFrom(first, sent);
    }
    size_t next = first;
    // On a stream socket a line ends at a NUL.
    for (; next < pending_.size() && sendOnce(pending_[next] + '\0'); ++next) {
        ++sent;
    }
    return next;
}

size_t SyslogClient::sendDatagramsFrom(size_t first, size_t& sent) {
    std::vector<struct iovec> parts(pending_.size() - first);
    std::vector<struct mmsghdr> messages(parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
        parts[i].iov_base = &pending_[first + i][0];
        parts[i].iov_len = pending_[first + i].size();
        memset(&messages[i], 0, sizeof(messages[i]));
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    size_t next = first;
    while (next < pending_.size()) {
        const unsigned int count =
            static_cast<unsigned int>(std::min<size_t>(pending_.size() - next, UIO_MAXIOV));
        const int done =
            sendmmsg(fd_, &messages[next - first], count, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (done > 0) {
            next += static_cast<size_t>(done);
            sent += static_cast<size_t>(done);
        } else if (errno == EMSGSIZE) {
            ++next;
        } else {
            break;
        }
    }
    return next;
}

// "Nov 25 14:37:42 quorvia[812]: ": the month in English whatever the
// process's locale, as the C library writes it. Made once a second.
const std::string& SyslogClient::stamp(const struct timespec& when) {
    if (when.tv_sec != stampSecond_ || stamp_.empty()) {
        struct tm local;
        localtime_r(&when.tv_sec, &local);
        char date[32];
        snprintf(date, sizeof(date), "%s %2d %02d:%02d:%02d ", kMonths[local.tm_mon], local.tm_mday,
                 local.tm_hour, local.tm_min, local.tm_sec);
        stamp_ = date + identity_ + "[" + std::to_string(getpid()) + "]: ";
        stampSecond_ = when.tv_sec;
    }
    return stamp_;
}

bool SyslogClient::connectWithinBackOff() {
    const long long now = clock_();
    if (now < nextAttemptMillis_) {
        return false;
    }
    nextAttemptMillis_ = now + kRetryMillis;
    const std::string path = DeviceRoot::sPath(socketPath_);
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // Datagrams first, as syslog daemons listen; a stream socket otherwise.
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        fd_ = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ < 0) {
            return false;
        }
        if (connect(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0) {
            stream_ = type == SOCK_STREAM;
            return true;
        }
        const bool otherType = errno == EPROTOTYPE;
        close();
        if (!otherType) {
            return false;
        }
    }
    return false;
}

bool SyslogClient::sendOnce(const std::string& line) {
    const ssize_t sent = ::send(fd_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<size_t>(sent) < line.size()) {
        errno = EPIPE;  // half a line on a stream: start again on a new connection
    }
    return sent >= 0 && static_cast<size_t>(sent) == line.size();
}

void SyslogClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace talvern
