#ifndef QUORVIA_TESTS_SUPPORT_SYSLOGLISTENER_H
#define QUORVIA_TESTS_SUPPORT_SYSLOGLISTENER_H

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace quorvia_test {

// A syslog daemon's socket at path: datagrams, read when the test asks.
class SyslogListener {
public:
    explicit SyslogListener(const std::string& path) : path_(path) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        unlink(path.c_str());
        bind(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    }
    virtual ~SyslogListener() {
        close(fd_);
        unlink(path_.c_str());
    }

    // The next line, or "" when none comes within millis.
    std::string next(int millis = 5000) {
        struct pollfd ready = {fd_, POLLIN, 0};
        if (poll(&ready, 1, millis) != 1) {
            return "";
        }
        char line[65536];
        const ssize_t size = recv(fd_, line, sizeof(line), 0);
        return size > 0 ? std::string(line, size) : std::string();
    }

private:
    std::string path_;
    int fd_;
};

}  // namespace quorvia_test

#endif
