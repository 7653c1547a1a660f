#ifndef QUORVIA_SDK_UTILS_QUORVIACLI_H
#define QUORVIA_SDK_UTILS_QUORVIACLI_H

#include <ostream>
#include <string>
#include <vector>

// The command `quorvia-cli`, for a person trying the daemon by hand:
//   quorvia-cli JSON                 sends one request, prints the reply
//   quorvia-cli --notify TYPE TEXT   sends one notify call
// Speaks to the daemon on localhost:9088 as ThriftClient does, but bounded
// in time and telling why a call failed.
class QuorviaCli {
public:
    // Exit statuses; --help prints the usage on out and exits with
    // EXIT_REPLY_.
    static const int EXIT_REPLY_ = 0;
    // The daemon answered with the empty text: it could not route the request.
    static const int EXIT_EMPTY_REPLY_ = 1;
    // No reply: the daemon can't be reached, stays silent for
    // kReplyTimeoutMillis, or the call broke off.
    static const int EXIT_UNREACHABLE_ = 2;
    static const int EXIT_USAGE_ = 64;
    // Bounds the connect and each send and receive: a stopped or wedged
    // daemon still accepts connections (the kernel does), and only this ends
    // the wait. Long enough for the daemon to read a large video on a slow disk.
    static const int kReplyTimeoutMillis = 30000;

    virtual ~QuorviaCli() {}

    // args are the arguments after the program's name. The reply goes to out
    // with a newline; a wrong call's usage and failures go to err.
    // timeoutMillis bounds the connect and each send and receive.
    static int sRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                    int timeoutMillis = kReplyTimeoutMillis);
};

#endif
