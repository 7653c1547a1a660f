#include <gtest/gtest.h>

#include <glog/logging.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <deque>
#include <string>

#include "support/DeviceRootTest.h"
#include "support/SyslogListener.h"
#include "system/LogOutput.h"
#include "system/SyslogClient.h"

namespace {

namespace fs = boost::filesystem;
using quorvia_test::DeviceRootTest;
using quorvia_test::SyslogListener;
using talvern::LogOutput;
using talvern::LogRecord;
using talvern::SyslogClient;

class LogOutputTest : public DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        shell("mkdir -p '" + path("/dev") + "'");
    }

    // The clock of the syslog client: moved by hand.
    long long now_ = 0;
    SyslogClient::Clock clock() { return [this] { return now_; }; }
};

// A quarter second, which a double holds exactly: glog's own time of the
// line has the same microseconds.
LogRecord recordOf(int severity, const std::string& text) {
    LogRecord record = {severity, "/src/multimedia/Stuff.cpp", 42, {1764081462, 250000000},
                        static_cast<unsigned>(syscall(SYS_gettid)), text};
    return record;
}

TEST_F(LogOutputTest, LinesAreGlogsOwnAndSyslogsInTheCLibrarysFormat) {
    SyslogListener listener(path("/dev/log"));
    SyslogClient syslog("/dev/log", "quorvia", clock());
    LogOutput output("/dev/log", "quorvia", clock());
    const std::string pid = std::to_string(getpid());
    const std::pair<int, std::string> priorities[] = {
        {google::GLOG_INFO, "<14>"}, {google::GLOG_WARNING, "<12>"}, {google::GLOG_ERROR, "<11>"}};
    for (const auto& p : priorities) {
        const LogRecord record = recordOf(p.first, "caf\xc3\xa9 \"a b\" 100%s");
        const google::LogMessageTime time(record.when.tv_sec, record.when.tv_sec + 0.25);
        EXPECT_EQ(google::LogSink::ToString(p.first, "Stuff.cpp", 42, time, record.text.data(),
                                            record.text.size()) + "\n",
                  output.format(record));
        ASSERT_TRUE(syslog.send(record.severity, record.when, record.text));
        char date[32];
        strftime(date, sizeof(date), "%b %e %H:%M:%S", &time.tm());
        EXPECT_EQ(p.second + date + " quorvia[" + pid + "]: " + record.text, listener.next());
    }
    // A program of its own name.
    output.setIdentity("quorvia-cli");
    output.write(recordOf(google::GLOG_ERROR, "named"));
    EXPECT_NE(std::string::npos, listener.next().find(" quorvia-cli[" + pid + "]: named"));
    // A batch leaves in one call; a line too long for the listener is left
    // out, the others arrive in order.
    output.write(std::deque<LogRecord>{recordOf(google::GLOG_INFO, "first"),
                                       recordOf(google::GLOG_INFO, std::string(300000, 'x')),
                                       recordOf(google::GLOG_INFO, "last")});
    EXPECT_NE(std::string::npos, listener.next().find("]: first"));
    EXPECT_NE(std::string::npos, listener.next().find("]: last"));
    // A text's own final newline ends the line.
    EXPECT_EQ(output.format(recordOf(google::GLOG_INFO, "text")),
              output.format(recordOf(google::GLOG_INFO, "text\n")));
}

// The contents of the one file in folder whose name starts with prefix.
std::string fileStartingWith(const std::string& folder, const std::string& prefix) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) {
            return quorvia_test::slurp(entry.path().string());
        }
    }
    return "";
}

// As deployed, not to standard error: a line goes to glog's file of its
// severity and to those of the severities below it, in glog's format.
TEST_F(LogOutputTest, LinesGoToGlogsFilesOfTheirSeverityAndBelow) {
    FLAGS_logtostderr = false;
    FLAGS_stderrthreshold = google::GLOG_FATAL;
    for (int severity : {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR}) {
        google::SetLogDestination(severity,
                                  (root() + "/" + std::to_string(severity) + ".").c_str());
    }
    LogOutput output("/dev/log", "quorvia", clock());
    const LogRecord info = recordOf(google::GLOG_INFO, "said at INFO");
    const LogRecord warning = recordOf(google::GLOG_WARNING, "said at WARNING");
    output.write(info);
    output.write(warning);
    google::FlushLogFiles(google::GLOG_INFO);
    FLAGS_logtostderr = true;
    const std::string infoFile = fileStartingWith(root(), "0.");
    const std::string warningFile = fileStartingWith(root(), "1.");
    EXPECT_NE(std::string::npos, infoFile.find(output.format(info) + output.format(warning)));
    EXPECT_NE(std::string::npos, warningFile.find(output.format(warning)));
    EXPECT_EQ(std::string::npos, warningFile.find("said at INFO"));
    EXPECT_EQ("", fileStartingWith(root(), "2."));
}

// A syslog daemon that listens on a stream socket gets each line ended by a
// NUL, as the C library sends it there.
TEST_F(LogOutputTest, AStreamSocketGetsEachLineEndedByANul) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path("/dev/log").c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener, 1));
    SyslogClient syslog("/dev/log", "quorvia", clock());
    const LogRecord line = recordOf(google::GLOG_WARNING, "line");
    EXPECT_TRUE(syslog.send(line.severity, line.when, "first"));
    EXPECT_TRUE(syslog.send(line.severity, line.when, "second"));
    const int peer = accept(listener, NULL, NULL);
    char text[256];
    const ssize_t size = recv(peer, text, sizeof(text), MSG_WAITALL | MSG_DONTWAIT);
    const std::string received(text, size > 0 ? size : 0);
    const std::string stamp = received.substr(0, received.find("]: ") + 3);
    EXPECT_EQ("<12>", stamp.substr(0, 4));
    EXPECT_EQ(stamp + "first" + '\0' + stamp + "second" + '\0', received);
    close(peer);
    close(listener);
}

// A syslog daemon that is down costs one connection attempt a second; one
// that does not read refuses lines at once; one that restarts is found again.
TEST_F(LogOutputTest, SyslogIsTriedOnceASecondAndNeverWaitedFor) {
    SyslogClient syslog("/dev/log", "quorvia", clock());
    const LogRecord line = recordOf(google::GLOG_INFO, "line");
    EXPECT_FALSE(syslog.send(line.severity, line.when, "while down"));
    std::unique_ptr<SyslogListener> listener(new SyslogListener(path("/dev/log")));
    now_ = SyslogClient::kRetryMillis - 1;
    EXPECT_FALSE(syslog.send(line.severity, line.when, "within the second"));
    EXPECT_EQ("", listener->next(0));
    now_ = SyslogClient::kRetryMillis;
    EXPECT_TRUE(syslog.send(line.severity, line.when, "once up"));
    EXPECT_NE(std::string::npos, listener->next().find("]: once up"));

    int sent = 0;
    while (sent < 100000 && syslog.send(line.severity, line.when, std::to_string(sent))) {
        ++sent;
    }
    EXPECT_LT(sent, 100000);
    for (int i = 0; i < sent; ++i) {
        ASSERT_NE(std::string::npos, listener->next(0).find("]: " + std::to_string(i)));
    }

    listener.reset();
    listener.reset(new SyslogListener(path("/dev/log")));
    now_ += SyslogClient::kRetryMillis - 1;
    EXPECT_FALSE(syslog.send(line.severity, line.when, "restarted"));
    now_ += 1;
    EXPECT_TRUE(syslog.send(line.severity, line.when, "found again"));
    EXPECT_NE(std::string::npos, listener->next().find("]: found again"));
}

}  // namespace
