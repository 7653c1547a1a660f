#include "support/DeviceRootTest.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = boost::filesystem;

namespace quorvia_test {

std::string binary(const std::string& name) {
    return std::string(QUORVIA_BINARY_DIR) + "/bin/" + name;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void writeAll(const std::string& path, const std::string& content) {
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out << content;
}

std::string slurpHolding(const std::string& path, const std::string& text) {
    std::string content = slurp(path);
    for (int i = 0; i < 500 && content.find(text) == std::string::npos; ++i) {
        usleep(10 * 1000);
        content = slurp(path);
    }
    return content;
}

std::string capture(const std::string& command, int& status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == NULL) {
        status = -1;
        return output;
    }
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output.append(buffer, got);
    }
    status = WEXITSTATUS(pclose(pipe));
    return output;
}

std::string capture(const std::string& command) {
    int status = 0;
    return capture(command, status);
}

std::string quoted(std::string text) {
    std::string result = "'";
    for (char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

size_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

double processCpuMillis() {
    struct timespec used = {0, 0};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1000.0 + used.tv_nsec / 1e6;
}

size_t currentStackSize() {
    pthread_attr_t attributes;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
    }
    return size;
}

namespace {

void initLoggingOnce() {
    FLAGS_logtostderr = true;
    if (!google::IsGoogleLoggingInitialized()) {
        google::InitGoogleLogging("quorvia-test");
    }
}

std::string deviceToolsDir() { return std::string(QUORVIA_SOURCE_DIR) + "/tools/device"; }

}  // namespace

void DeviceRootTest::SetUp() {
    initLoggingOnce();
    log_.clear();
    char pattern[] = "/tmp/quorvia-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern) != NULL);
    root_ = pattern;
    setenv("QUORVIA_ROOT", root_.c_str(), 1);
    const std::string searchPath = deviceToolsDir() + ":" + getenv("PATH");
    setenv("PATH", searchPath.c_str(), 1);

    fs::create_directories(path("/etc/talvernconfig"));
    fs::create_directories(path("/sbin"));
    fs::create_directories(path("/usr/sbin"));
    fs::create_directories(path("/tmp"));
    ASSERT_EQ(0, shell("cp -r '" + std::string(QUORVIA_SOURCE_DIR) + "/data/localization' '" +
                       path("/etc/talvernconfig/localization") + "'"));
    fs::create_symlink(deviceToolsDir() + "/uci", path("/sbin/uci"));
    fs::create_symlink(deviceToolsDir() + "/sysapi", path("/usr/sbin/sysapi"));
}

void DeviceRootTest::TearDown() {
    if (!root_.empty()) {
        shell("chmod -R u+rwx '" + root_ + "' 2>/dev/null; rm -rf '" + root_ + "'");
    }
}

void DeviceRootTest::writeFile(const std::string& fixedPath, const std::string& content) const {
    fs::create_directories(fs::path(path(fixedPath)).parent_path());
    writeAll(path(fixedPath), content);
}

std::string DeviceRootTest::readFile(const std::string& fixedPath) const {
    return slurp(path(fixedPath));
}

void DeviceRootTest::setToolValue(const std::string& tool, const std::string& key,
                                  const std::string& value) const {
    std::string name = key;
    std::replace(name.begin(), name.end(), '/', '_');
    writeFile("/device/" + tool + "/" + name, value);
}

int DeviceRootTest::shell(const std::string& command) {
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace quorvia_test
