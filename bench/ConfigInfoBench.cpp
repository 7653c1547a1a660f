// Start-up cost of the ConfigInfo singleton (localisation, housekeeping, one
// device command) and the cost of the configuration-file and command calls,
// on a private device root with the stand-in tools.
#include <glog/logging.h>
#include <stdlib.h>

#include <chrono>
#include <iostream>
#include <string>

#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

typedef std::chrono::steady_clock Clock;

double microsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

template <typename Call>
void report(const std::string& name, int rounds, Call call) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        call(i);
    }
    std::cout << name << ": " << microsSince(start) / rounds << " us per call (" << rounds
              << " calls)" << std::endl;
}

}  // namespace

int main() {
    google::InitGoogleLogging("ConfigInfoBench");
    FLAGS_minloglevel = google::GLOG_FATAL;
    char pattern[] = "/tmp/quorvia-bench-XXXXXX";
    if (mkdtemp(pattern) == NULL) {
        return 1;
    }
    const std::string root(pattern);
    const std::string source(QUORVIA_SOURCE_DIR);
    setenv("QUORVIA_ROOT", root.c_str(), 1);
    setenv("PATH", (source + "/tools/device:" + getenv("PATH")).c_str(), 1);
    system(("mkdir -p '" + root + "/etc/talvernconfig' && cp -r '" + source +
            "/data/localization' '" + root + "/etc/talvernconfig/' && mkdir -p '" + root +
            "/device/uci' && echo dev > '" + root + "/device/uci/brendle_version.version.CHANNEL'")
               .c_str());

    const Clock::time_point start = Clock::now();
    talvern::ConfigInfo* config = talvern::ConfigInfo::sGetInstance();
    std::cout << "first sGetInstance: " << microsSince(start) << " us" << std::endl;

    report("setConfig", 200, [config](int i) { config->setConfig("key", std::to_string(i)); });
    report("getConfig (reloads the file)", 200, [config](int) { config->getConfig("key"); });
    report("sCallPopenWithOutput(\"echo x\")", 50, [](int) {
        std::string output;
        CommonUtils::sCallPopenWithOutput("echo x", output);
    });

    system(("rm -rf '" + root + "'").c_str());
    return 0;
}
