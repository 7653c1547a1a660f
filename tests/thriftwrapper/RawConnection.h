#ifndef QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H
#define QUORVIA_TESTS_THRIFTWRAPPER_RAWCONNECTION_H

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

namespace quorvia_test {

// Thrift's framed binary protocol written byte by byte, so that tests can send
// what no generated client would.
class WireMessage {
public:
    virtual ~WireMessage() {}

    static std::string i32(int32_t value) {
        const uint32_t big = htonl(static_cast<uint32_t>(value));
        return std::string(reinterpret_cast<const char*>(&big), 4);
    }
    static std::string str(const std::string& text) {
        return i32(static_cast<int32_t>(text.size())) + text;
    }
    // Message head with the version word.
    static std::string head(const std::string& name, int type, int32_t sequenceId) {
        return i32(static_cast<int32_t>(0x80010000u | static_cast<uint32_t>(type))) + str(name) +
               i32(sequenceId);
    }
    // The head of field id of type (big-endian id).
    static std::string field(char type, char id) { return std::string(1, type) + '\0' + id; }
    // Field 1 of type string, then the stop byte.
    static std::string stringArgs(const std::string& parameter) {
        return field('\x0b', 1) + str(parameter) + '\0';
    }
    static std::string frame(const std::string& body) {
        return i32(static_cast<int32_t>(body.size())) + body;
    }
    static std::string requestCall(const std::string& parameter, int32_t sequenceId = 0) {
        return frame(head("request", 1, sequenceId) + stringArgs(parameter));
    }
};

// What a strict reply frame holds.
struct WireReply {
    int type;
    std::string name;
    int32_t sequenceId;
    // Field 0 (a reply's success) or field 1 (an exception's message);
    // "(absent)" when the reply has neither.
    std::string text;
};

// A blocking TCP connection to 127.0.0.1 with a receive time-out.
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

    // One frame, parsed; false when the peer closed, failed, timed out or
    // sent something else.
    bool readReply(WireReply& reply) {
        std::string bytes(4, '\0');
        size_t at = 0;
        if (!receive(bytes)) {
            return false;
        }
        bytes.resize(static_cast<uint32_t>(readI32(bytes, at)));
        return receive(bytes) && parse(bytes, reply);
    }

    // true when the peer closed the connection (end of stream or reset)
    // before the time-out.
    bool closedByPeer() {
        char byte;
        const ssize_t got = recv(fd_, &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }

private:
    bool receive(std::string& out) {
        return recv(fd_, &out[0], out.size(), MSG_WAITALL) == static_cast<ssize_t>(out.size());
    }

    static int32_t readI32(const std::string& body, size_t& at) {
        uint32_t big = 0;
        body.copy(reinterpret_cast<char*>(&big), 4, at);
        at += 4;
        return static_cast<int32_t>(ntohl(big));
    }
    static std::string readStr(const std::string& body, size_t& at) {
        const size_t size = static_cast<uint32_t>(readI32(body, at));
        at += size;
        return body.substr(at - size, size);
    }

    static bool parse(const std::string& body, WireReply& reply) {
        size_t at = 0;
        const uint32_t first = static_cast<uint32_t>(readI32(body, at));
        if ((first & 0xffff0000u) != 0x80010000u) {
            return false;
        }
        reply.type = static_cast<int>(first & 0xffu);
        reply.name = readStr(body, at);
        reply.sequenceId = readI32(body, at);
        reply.text = "(absent)";
        // Strings and an exception's i32 type are all a reply can hold.
        while (at < body.size() && body[at] != '\0') {
            const char fieldType = body[at];
            at += 3;
            if (fieldType == 11) {
                reply.text = readStr(body, at);
            } else if (fieldType == 8) {
                at += 4;
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
