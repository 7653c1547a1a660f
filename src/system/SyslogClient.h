#ifndef QUORVIA_SYSTEM_SYSLOGCLIENT_H
#define QUORVIA_SYSTEM_SYSLOGCLIENT_H

#include <time.h>

#include <boost/function.hpp>
#include <string>
#include <vector>

namespace talvern {

// The daemon's own line to the system log: datagrams on the device's
// /dev/log in the C library's syslog format ("<14>Nov 25 14:37:42
// quorvia[812]: text"). Unlike the C library it never blocks and never
// retries a socket that is down for every line: a syslog daemon that is down
// costs one connection attempt per kRetryMillis, and one that does not read
// costs a refused send. A line that is not sent is still in glog's own sink.
// Not thread-safe: one writer (the logging thread, or callers under a lock).
class SyslogClient {
public:
    static constexpr int kRetryMillis = 1000;
    // The facility of every line, as glog's syslog route used.
    static constexpr int kFacility = 1 << 3;  // LOG_USER

    // Milliseconds of a clock that never goes back; a seam for tests.
    typedef boost::function<long long()> Clock;

    // socketPath is the fixed /dev/log path, mapped under the device root at
    // each connection attempt; identity names the program in every line. The
    // first connection is tried at the first line.
    SyslogClient(const std::string& socketPath, const std::string& identity, const Clock& clock);
    virtual ~SyslogClient();

    void setIdentity(const std::string& identity) {
        identity_ = identity;
        stamp_.clear();
    }

    // Sends text at glog severity (INFO, WARNING, ERROR) said at when; true
    // when the datagram left, false when it did not (no listener yet within
    // the back-off, a listener that does not read, a refused line).
    bool send(int severity, const struct timespec& when, const std::string& text);

    // The same for many lines: queue each, then flush, which sends them in
    // one system call on a datagram socket, so that a syslog daemon is woken
    // once for a batch rather than once a line. flush answers how many left.
    void queue(int severity, const struct timespec& when, const std::string& text);
    size_t flush();

    static long long sSteadyMillis();

private:
    const std::string& stamp(const struct timespec& when);
    bool connectWithinBackOff();
    size_t sendFrom(size_t first, size_t& sent);
    size_t sendDatagramsFrom(size_t first, size_t& sent);
    bool sendOnce(const std::string& line);
    void close();

    std::string socketPath_;
    Clock clock_;
    std::string identity_;
    int fd_;
    bool stream_;
    long long nextAttemptMillis_;
    time_t stampSecond_;
    std::string stamp_;
    std::vector<std::string> pending_;
};

}  // namespace talvern

#endif
