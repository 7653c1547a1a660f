#ifndef QUORVIA_SDK_UTILS_QUORVIACLI_H
#define QUORVIA_SDK_UTILS_QUORVIACLI_H

#include <ostream>
#include <string>
#include <vector>

// The command `quorvia-cli`, for a person trying the daemon by hand:
//   quorvia-cli JSON                 sends one request, prints the reply
//   quorvia-cli --notify TYPE TEXT   sends one notify call
// Speaks to the daemon on localhost:9088 through ThriftClient.
class QuorviaCli {
public:
    // Exit statuses; --help prints the usage on out and exits with
    // EXIT_REPLY_.
    static const int EXIT_REPLY_ = 0;
    // The daemon answered with the empty text: it could not route the request.
    static const int EXIT_EMPTY_REPLY_ = 1;
    static const int EXIT_UNREACHABLE_ = 2;
    static const int EXIT_USAGE_ = 64;

    virtual ~QuorviaCli() {}

    // args are the arguments after the program's name. The reply goes to out
    // with a newline; a wrong call's usage and failures go to err.
    static int sRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

    // true when something accepts connections on the daemon's port; reason
    // tells why not.
    static bool sDaemonReachable(std::string& reason);
};

#endif
