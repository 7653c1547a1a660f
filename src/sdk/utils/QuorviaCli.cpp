#include "sdk/utils/QuorviaCli.h"

#include <stdint.h>

#include <boost/lexical_cast.hpp>
#include <exception>
#include <limits>
#include <memory>

#include "sdk/utils/ThriftClient.h"
#include "sdk/utils/ThriftConnection.h"

const int QuorviaCli::EXIT_REPLY_;
const int QuorviaCli::EXIT_EMPTY_REPLY_;
const int QuorviaCli::EXIT_UNREACHABLE_;
const int QuorviaCli::EXIT_USAGE_;
const int QuorviaCli::kReplyTimeoutMillis;

namespace {

const char* const USAGE =
    "usage: quorvia-cli JSON\n"
    "       quorvia-cli --notify TYPE TEXT\n"
    "Sends one request to the quorvia daemon on localhost:9088 and prints the reply.\n"
    "Example: quorvia-cli "
    "'{\"api\":1,\"path\":\"/userdisk/data/a.mp3\",\"name\":\"a.mp3\",\"hash\":\"h1\"}'\n"
    "Exit status: 0 reply printed, 1 empty reply (request not routable),\n"
    "2 no reply (the daemon can't be reached, stays silent for 30 s, or the call\n"
    "broke off), 64 usage.\n";

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

namespace {

// The call on a connection of its own; what failed goes to err.
bool call(bool notify, int32_t type, const std::string& text, int timeoutMillis, std::string& reply,
          std::ostream& err) {
    ThriftConnection connection(timeoutMillis);
    const std::string daemon = std::string("the quorvia daemon on ") + ThriftClient::HOST_ + ":" +
                               std::to_string(ThriftClient::PORT_);
    try {
        connection.transport().open();
    } catch (const std::exception& e) {
        err << "quorvia-cli: can't reach " << daemon << ": " << e.what() << "\n";
        return false;
    }
    try {
        if (notify) {
            connection.client().notify(reply, type, text);
        } else {
            connection.client().request(reply, text);
        }
        connection.transport().close();
        return true;
    } catch (const std::exception& e) {
        err << "quorvia-cli: no reply from " << daemon << ": " << e.what() << "\n";
        return false;
    }
}

}  // namespace

int QuorviaCli::sRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                     int timeoutMillis) {
    if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
        out << USAGE;
        return EXIT_REPLY_;
    }
    const bool notify = !args.empty() && args[0] == "--notify";
    int32_t type = 0;
    if (notify ? args.size() != 3 || !parseType(args[1], type) : args.size() != 1) {
        return usage(err);
    }
    std::string reply;
    if (!call(notify, type, notify ? args[2] : args[0], timeoutMillis, reply, err)) {
        return EXIT_UNREACHABLE_;
    }
    if (notify) {
        out << reply << "\n";
        return EXIT_REPLY_;
    }
    return printReply(reply, out, err);
}
