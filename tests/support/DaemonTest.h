#ifndef QUORVIA_TESTS_SUPPORT_DAEMONTEST_H
#define QUORVIA_TESTS_SUPPORT_DAEMONTEST_H

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "sdk/utils/ThriftClient.h"
#include "support/DaemonProcess.h"
#include "support/DeviceRootTest.h"

namespace quorvia_test {

// The real daemon on the test's device root, its output and glog's files in
// the root. A test whose daemon ended before the test did fails. Under
// qemu-user the built programs start only where the kernel hands ARM
// executables to qemu (binfmt_misc); elsewhere the tests skip and say so.
class DaemonTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        database_ = data_ + "/.systemconfig/DataBase";
#ifdef QUORVIA_EMULATED
        if (system((binary("quorvia-cli") + " --help >/dev/null 2>&1").c_str()) != 0) {
            GTEST_SKIP() << "the built programs can't start: no binfmt_misc entry for qemu";
        }
#endif
    }
    virtual void TearDown() {
        if (daemon_.pid() > 0) {
            EXPECT_TRUE(daemon_.running()) << slurp(path("/daemon.err"));
        }
        daemon_.stop();
        DeviceRootTest::TearDown();
    }

    void startDaemon(const std::vector<std::string>& args = {"-d"}, bool closed = false) {
        setenv("GLOG_log_dir", root().c_str(), 1);
        std::string why;
        ASSERT_TRUE(daemon_.startListening(path(""), args, ThriftClient::PORT_, why, closed))
            << why << "\n"
            << slurp(path("/daemon.err"));
    }

    // What the sqlite3 command prints for statement on the daemon's store,
    // as an operator would see it. The statement goes through a file: it may
    // be longer than a command line.
    std::string sql(const std::string& statement) {
        writeFile("/query.sql", statement + ";\n");
        return capture("sqlite3 -cmd '.timeout 5000' " + quoted(database_ + "/quorvia.db") +
                       " < " + quoted(path("/query.sql")) + " 2>&1");
    }

    // Whether the daemon's standard error holds text within five seconds.
    ::testing::AssertionResult daemonSaid(const std::string& text) {
        const std::string err = slurpHolding(path("/daemon.err"), text);
        if (err.find(text) != std::string::npos) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "the daemon did not say \"" << text << "\":\n"
                                             << err;
    }

    // Polls done until it holds or ten seconds have passed.
    static bool waitUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            usleep(50 * 1000);
        }
        return true;
    }

    DaemonProcess daemon_;
    std::string data_;
    std::string database_;
};

}  // namespace quorvia_test

#endif
