// quorvia-cli: one request to the local quorvia daemon, by hand.

#include <glog/logging.h>
#include <thrift/TOutput.h>

#include <iostream>
#include <string>
#include <vector>

#include "sdk/utils/QuorviaCli.h"
#include "system/Log.h"

namespace {

// Thrift's own notes (one per loopback address tried) would only repeat what
// the command reports itself.
void silent(const char*) {}

}  // namespace

int main(int argc, char** argv) {
    google::InitGoogleLogging("quorvia-cli");
    FLAGS_logtostderr = true;
    FLAGS_minloglevel = google::GLOG_ERROR;
    talvern::Log::sSetIdentity("quorvia-cli");
    apache::thrift::GlobalOutput.setOutputFunction(silent);
    const std::vector<std::string> args(argv + 1, argv + argc);
    return QuorviaCli::sRun(args, std::cout, std::cerr);
}
