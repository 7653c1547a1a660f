#ifndef QUORVIA_TESTS_SUPPORT_DEVICEROOTTEST_H
#define QUORVIA_TESTS_SUPPORT_DEVICEROOTTEST_H

#include <gtest/gtest.h>

#include <string>

#include "support/LogCapture.h"

namespace quorvia_test {

// Fixture for tests that touch the device: a private QUORVIA_ROOT under /tmp
// holding the sample localisation folder and the stand-in tools (first on
// PATH, and at /sbin/uci and /usr/sbin/sysapi under the root). Each ctest case
// runs in a process of its own, so singletons built inside a test see this
// root. Log lines are captured in log_.
class DeviceRootTest : public ::testing::Test {
protected:
    virtual void SetUp();
    virtual void TearDown();

    const std::string& root() const { return root_; }
    // A fixed device path ("/userdisk/data") under the test's root.
    std::string path(const std::string& fixedPath) const { return root_ + fixedPath; }
    // Writes content to a fixed device path under the root, making parents.
    void writeFile(const std::string& fixedPath, const std::string& content) const;
    std::string readFile(const std::string& fixedPath) const;
    // What a stand-in tool ("uci", "nvram", "getdisk", "sysapi") prints for key.
    void setToolValue(const std::string& tool, const std::string& key,
                      const std::string& value) const;
    // Runs a shell command (test set-up only) and returns its exit status.
    static int shell(const std::string& command);

    LogCapture log_;

private:
    std::string root_;
};

// A program built next to the tests (build/bin/NAME).
std::string binary(const std::string& name);
std::string slurp(const std::string& path);
void writeAll(const std::string& path, const std::string& content);
// The content of path once it holds text, or as it is after five seconds: a
// daemon's lines reach its log a few milliseconds after they are said.
std::string slurpHolding(const std::string& path, const std::string& text);
// Standard output of a shell command, and its exit status.
std::string capture(const std::string& command, int& status);
std::string capture(const std::string& command);
// text as one single-quoted shell word (taken by value, so that it wins over
// std::quoted for a string that is not const).
std::string quoted(std::string text);
// Descriptors this process has open: a leak shows as growth.
size_t openDescriptors();
// The stack size of the calling thread; 0 if it can't be read.
size_t currentStackSize();
// Milliseconds of processor time the whole process has used.
double processCpuMillis();

}  // namespace quorvia_test

#endif
