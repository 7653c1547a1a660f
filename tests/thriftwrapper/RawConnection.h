#ifndef QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H
#define QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

namespace quorvia_test {

// Thrift's framed binary protocol written byte by byte, so that tests can send
// what no generated client would and compare replies byte for byte.
namespace wire {

inline std::string i32(int32_t value) {
    const uint32_t big = htonl(static_cast<uint32_t>(value));
    return std::string(reinterpret_cast<const char*>(&big), 4);
}
inline std::string str(const std::string& text) {
    return i32(static_cast<int32_t>(text.size())) + text;
}
// Message head with the version word.
inline std::string head(const std::string& name, int type, int32_t sequenceId) {
    return i32(static_cast<int32_t>(0x80010000u | static_cast<uint32_t>(type))) + str(name) +
           i32(sequenceId);
}
// The head of a field: its type, then its id as a big-endian i16.
inline std::string field(char type, char id) { return std::string(1, type) + '\0' + id; }
inline std::string frame(const std::string& body) {
    return i32(static_cast<int32_t>(body.size())) + body;
}
// A struct of one string field, then the stop byte.
inline std::string stringStruct(char id, const std::string& text) {
    return field('\x0b', id) + str(text) + '\0';
}
inline std::string requestCall(const std::string& parameter, int32_t sequenceId = 0) {
    return frame(head("request", 1, sequenceId) + stringStruct(1, parameter));
}
// The body of a successful reply frame.
inline std::string reply(const std::string& text, int32_t sequenceId = 0) {
    return head("request", 2, sequenceId) + stringStruct(0, text);
}

}  // namespace wire

// A blocking TCP connection to 127.0.0.1 with a receive time-out, ten
// seconds unless told otherwise.
class RawConnection {
public:
    explicit RawConnection(int port, int timeoutSeconds = 10)
        : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        struct timeval timeout = {timeoutSeconds, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ =
            connect(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
    }
    virtual ~RawConnection() { close(fd_); }

    bool connected() const { return connected_; }

    bool send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    // The body of the next frame; "(none)" when the peer closed, failed or
    // timed out first.
    std::string readFrame() {
        uint32_t big = 0;
        if (recv(fd_, &big, 4, MSG_WAITALL) != 4) {
            return "(none)";
        }
        std::string body(ntohl(big), '\0');
        return recv(fd_, &body[0], body.size(), MSG_WAITALL) == static_cast<ssize_t>(body.size())
                   ? body
                   : "(none)";
    }

    // true when the peer closed the connection (end of stream or reset)
    // before the time-out.
    bool closedByPeer() {
        char byte;
        const ssize_t got = recv(fd_, &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }

    // true when data or the peer's end arrives within ms milliseconds.
    bool readableWithin(int ms) {
        struct pollfd wait = {fd_, POLLIN, 0};
        return poll(&wait, 1, ms) == 1;
    }

    // Closes with a reset, as a peer that vanishes does.
    void reset() {
        const struct linger now = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
        close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
    bool connected_;
};

// Waits up to five seconds for something to accept on 127.0.0.1:port.
inline bool waitForListener(int port) {
    for (int i = 0; i < 500; ++i) {
        if (port != 0 && RawConnection(port).connected()) {
            return true;
        }
        usleep(10 * 1000);
    }
    return false;
}

}  // namespace quorvia_test

#endif
