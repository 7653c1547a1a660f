#ifndef QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H
#define QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

namespace quorvia_test {

// Thrift's framed binary protocol written and read byte by byte, so that tests
// can send what no generated client would.
class WireMessage {
public:
    virtual ~WireMessage() {}

    static std::string i32(int32_t value) {
        const uint32_t big = htonl(static_cast<uint32_t>(value));
        return std::string(reinterpret_cast<const char*>(&big), 4);
    }
    static std::string i16(int16_t value) {
        const uint16_t big = htons(static_cast<uint16_t>(value));
        return std::string(reinterpret_cast<const char*>(&big), 2);
    }
    static std::string str(const std::string& text) {
        return i32(static_cast<int32_t>(text.size())) + text;
    }
    // Message head, with the version word (strict) or in the old form.
    static std::string head(const std::string& name, int type, int32_t sequenceId, bool strict) {
        if (strict) {
            return i32(static_cast<int32_t>(0x80010000u | static_cast<uint32_t>(type))) +
                   str(name) + i32(sequenceId);
        }
        return str(name) + std::string(1, static_cast<char>(type)) + i32(sequenceId);
    }
    // Field 1 of type string, then the stop byte.
    static std::string stringArgs(const std::string& parameter) {
        return std::string(1, '\x0b') + i16(1) + str(parameter) + std::string(1, '\0');
    }
    static std::string frame(const std::string& body) {
        return i32(static_cast<int32_t>(body.size())) + body;
    }
    static std::string requestCall(const std::string& parameter, int32_t sequenceId = 0) {
        return frame(head("request", 1, sequenceId, true) + stringArgs(parameter));
    }
};

// What a reply frame holds, read leniently.
struct WireReply {
    bool strict;
    int type;
    std::string name;
    int32_t sequenceId;
    // Field 0 (a reply's success) or field 1 (an exception's message).
    bool hasString;
    std::string text;
    // The application exception's type (field 2), -1 when none.
    int32_t exceptionType;
};

// A blocking TCP connection to 127.0.0.1 with a receive time-out.
class RawConnection {
public:
    explicit RawConnection(int port, int timeoutSeconds = 10) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        struct timeval timeout = {timeoutSeconds, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
    }
    virtual ~RawConnection() { close(fd_); }

    bool connected() const { return connected_; }

    bool send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    // One frame's body; false when the peer closed, failed or timed out.
    bool readFrame(std::string& body) {
        std::string length;
        if (!readExactly(4, length)) {
            return false;
        }
        uint32_t big = 0;
        memcpy(&big, length.data(), 4);
        const uint32_t size = ntohl(big);
        return readExactly(size, body);
    }

    bool readReply(WireReply& reply) {
        std::string body;
        if (!readFrame(body)) {
            return false;
        }
        return parse(body, reply);
    }

    // true when the peer closed the connection (end of stream or reset)
    // before the time-out.
    bool closedByPeer() {
        char byte;
        const ssize_t got = recv(fd_, &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }

private:
    bool readExactly(size_t size, std::string& out) {
        out.resize(size);
        size_t done = 0;
        while (done < size) {
            const ssize_t got = recv(fd_, &out[done], size - done, 0);
            if (got <= 0) {
                return false;
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }

    static int32_t readI32(const std::string& body, size_t& at) {
        uint32_t big = 0;
        body.copy(reinterpret_cast<char*>(&big), 4, at);
        at += 4;
        return static_cast<int32_t>(ntohl(big));
    }
    static std::string readStr(const std::string& body, size_t& at) {
        const int32_t size = readI32(body, at);
        const std::string text = body.substr(at, static_cast<size_t>(size));
        at += static_cast<size_t>(size);
        return text;
    }

    static bool parse(const std::string& body, WireReply& reply) {
        size_t at = 0;
        const uint32_t first = static_cast<uint32_t>(readI32(body, at));
        reply.strict = (first & 0xffff0000u) == 0x80010000u;
        if (!reply.strict) {
            return false;
        }
        reply.type = static_cast<int>(first & 0xffu);
        reply.name = readStr(body, at);
        reply.sequenceId = readI32(body, at);
        reply.hasString = false;
        reply.exceptionType = -1;
        while (at < body.size() && body[at] != '\0') {
            const int fieldType = body[at];
            uint16_t bigId = 0;
            memcpy(&bigId, body.data() + at + 1, 2);
            const int16_t id = static_cast<int16_t>(ntohs(bigId));
            at += 3;
            if (fieldType == 11) {
                reply.text = readStr(body, at);
                reply.hasString = true;
            } else if (fieldType == 8 && id == 2) {
                reply.exceptionType = readI32(body, at);
            } else {
                return false;
            }
        }
        return true;
    }

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
