#include "sdk/utils/QuorviaCli.h"

#include <stdint.h>

#include <exception>
#include <limits>
#include <memory>

#include <boost/lexical_cast.hpp>
#include <thrift/transport/TSocket.h>

#include "sdk/utils/ThriftClient.h"

const int QuorviaCli::EXIT_REPLY_;
const int QuorviaCli::EXIT_EMPTY_REPLY_;
const int QuorviaCli::EXIT_UNREACHABLE_;
const int QuorviaCli::EXIT_USAGE_;

namespace {

const char* const USAGE =
    "usage: quorvia-cli JSON\n"
    "       quorvia-cli --notify TYPE TEXT\n"
    "Sends one request to the quorvia daemon on localhost:9088 and prints the reply.\n"
    "Example: quorvia-cli '{\"api\":1,\"path\":\"/userdisk/data/a.mp3\",\"name\":\"a.mp3\",\"hash\":\"h1\"}'\n"
    "Exit status: 0 reply printed, 1 empty reply (request not routable),\n"
    "2 daemon not reachable, 64 usage.\n";

int usage(std::ostream& err) {
    err << USAGE;
    return QuorviaCli::EXIT_USAGE_;
}

bool parseType(const std::string& text, int32_t& type) {
    try {
        type = boost::lexical_cast<int32_t>(text);
        return true;
    } catch (const boost::bad_lexical_cast&) {
        return false;
    }
}

int printReply(const std::string& reply, std::ostream& out, std::ostream& err) {
    out << reply << "\n";
    if (reply.empty()) {
        err << "quorvia-cli: empty reply: the daemon could not route the request\n";
        return QuorviaCli::EXIT_EMPTY_REPLY_;
    }
    return QuorviaCli::EXIT_REPLY_;
}

}  // namespace

bool QuorviaCli::sDaemonReachable(std::string& reason) {
    try {
        apache::thrift::transport::TSocket socket(ThriftClient::HOST_, ThriftClient::PORT_);
        socket.open();
        socket.close();
        return true;
    } catch (const std::exception& e) {
        reason = e.what();
        return false;
    }
}

int QuorviaCli::sRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
        out << USAGE;
        return EXIT_REPLY_;
    }
    const bool notify = !args.empty() && args[0] == "--notify";
    int32_t type = 0;
    if (notify ? args.size() != 3 || !parseType(args[1], type) : args.size() != 1) {
        return usage(err);
    }
    std::string reason;
    if (!sDaemonReachable(reason)) {
        err << "quorvia-cli: can't reach the quorvia daemon on " << ThriftClient::HOST_ << ":"
            << ThriftClient::PORT_ << ": " << reason << "\n";
        return EXIT_UNREACHABLE_;
    }
    if (notify) {
        out << ThriftClient::sNotifyQuorvia(type, args[2]) << "\n";
        return EXIT_REPLY_;
    }
    return printReply(ThriftClient::sCallQuorvia(args[0]), out, err);
}
