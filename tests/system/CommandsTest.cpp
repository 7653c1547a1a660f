#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <string>
#include <vector>

#include "support/DeviceRootTest.h"
#include "system/CommonUtils.h"

namespace {

void ignoreAlarm(int) {}

class CommandsTest : public quorvia_test::DeviceRootTest {};

TEST_F(CommandsTest, ExitCodeFormsAgreeAndSurviveAnIgnoredSigchld) {
    // With SIGCHLD ignored the kernel reaps children itself and pclose() or
    // system() would lose the status; the command functions reset it first.
    // A command killed by a signal counts as 0, a missing one as 127.
    const struct { const char* command; int code; } cases[] = {
        {"exit 0", 0}, {"exit 3", 3}, {"kill -9 $$", 0}, {"quorvia-no-such-tool 2>/dev/null", 127},
    };
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        std::string output = "stale";
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(c.code, CommonUtils::sCallSystem(c.command));
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(c.code, CommonUtils::sCallSystemWith(c.command, null, null, c.command));
        signal(SIGCHLD, SIG_IGN);
        EXPECT_TRUE(CommonUtils::sCallSystemWith(c.command, null, output, c.command));
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(c.code, CommonUtils::sCallPopenNoOutput(c.command));
        signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(c.code, CommonUtils::sCallPopenWithOutput(c.command, output));
        EXPECT_EQ("", output);
    }
    close(null);
}

TEST_F(CommandsTest, OutputIsTrimmedAtTheEndsOnlyWhateverTheExitStatus) {
    std::string output;
    EXPECT_EQ(2, CommonUtils::sCallPopenWithOutput("printf ' \\r\\none\\n\\ttwo \\nthree\\r\\n '; exit 2",
                                                   output));
    EXPECT_EQ("one\n\ttwo \nthree", output);

    EXPECT_TRUE(CommonUtils::sCallSystem("printf '%5000s\\n' '' | tr ' ' x; exit 1", output));
    EXPECT_EQ(std::string(5000, 'x'), output);
}

// The command reads and writes the descriptors given, whatever their
// numbers: an output at 0 was overwritten by the input bound there first,
// and the input became the command's standard output (a picture was
// overwritten by its thumbnail).
TEST_F(CommandsTest, TheDescriptorFormsBindTheirDescriptorsEvenAtZeroRegression) {
    writeFile("/in", " text\n");
    const int in = open(path("/in").c_str(), O_RDONLY | O_CLOEXEC);
    const int saved = dup(STDIN_FILENO);
    const int out = open(path("/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_EQ(STDIN_FILENO, dup2(out, STDIN_FILENO));
    EXPECT_EQ(0, CommonUtils::sCallSystemWith("cat", in, STDIN_FILENO, "cat"));
    ASSERT_EQ(STDIN_FILENO, dup2(saved, STDIN_FILENO));
    EXPECT_EQ(" text\n", readFile("/in"));
    EXPECT_EQ(" text\n", readFile("/out"));
    std::string output;
    ASSERT_EQ(0, lseek(in, 0, SEEK_SET));
    EXPECT_TRUE(CommonUtils::sCallSystemWith("cat; exit 1", in, output, "cat"));
    EXPECT_EQ("text", output);
    for (const int fd : {in, saved, out}) {
        close(fd);
    }
}

TEST_F(CommandsTest, CountryCodeFirstAskedByManyThreadsIsFilledOnceAndCachedForTheProcess) {
    writeFile("/tmp/commonutils.config.tmp", "code = \"US\";\n");
    std::vector<std::string> codes(8);
    boost::thread_group threads;
    for (size_t i = 0; i < codes.size(); ++i) {
        threads.create_thread([&codes, i] { codes[i] = CommonUtils::sGetCountryCode(); });
    }
    threads.join_all();
    EXPECT_EQ(std::vector<std::string>(codes.size(), "US"), codes);
    writeFile("/tmp/commonutils.config.tmp", "code = \"DE\";\n");
    EXPECT_EQ("US", CommonUtils::sGetCountryCode());
}

TEST_F(CommandsTest, CountryCodeOfAReleaseDeviceComesFromNvram) {
    setToolValue("uci", "brendle_version.version.CHANNEL", "release");
    setToolValue("nvram", "CountryCode", " GB \r");
    EXPECT_EQ("GB", CommonUtils::sGetCountryCode());
}

// A country file that doesn't parse counts as none, silently.
TEST_F(CommandsTest, CountryCodeOfOtherChannelsNeverAsksNvram) {
    writeFile("/tmp/commonutils.config.tmp", "code = \"TW\"\n{{{");
    setToolValue("uci", "brendle_version.version.CHANNEL", "dev");
    EXPECT_EQ("CN", CommonUtils::sGetCountryCode());
    EXPECT_FALSE(log_.contains("nvram get CountryCode"));
    EXPECT_FALSE(log_.contains("commonutils.config.tmp"));
}

TEST_F(CommandsTest, VersionComparisonIsNumericPartByPart) {
    EXPECT_FALSE(CommonUtils::sCheckIsLowerVersionThanCurrentRom("0.0.0"));  // no firmware version
    // The last part of 2.9.x is never converted: the second part decides.
    const struct { const char* version; bool lowerOrEqual; } cases[] = {
        {"2.10.3", true}, {"1.99.99", true}, {"2.9.x", true},     {"2.10.4", false},
        {"2.11.0", false}, {"2.10", false},  {"2.10.3.1", false}, {"x.10.3", false},
    };
    setToolValue("uci", "brendle_version.version.ROM", "2.10.3");
    for (const auto& c : cases) {
        EXPECT_EQ(c.lowerOrEqual, CommonUtils::sCheckIsLowerVersionThanCurrentRom(c.version))
            << c.version;
    }
}

// A signal whose handler doesn't restart calls broke off the read of the
// output, which came back empty (every resize of a program with a profiling
// timer failed). A command that can't start has no output to log.
TEST_F(CommandsTest, TheOutputFormReadsPastSignalsAndLogsNoOutputOfACommandNotStartedRegression) {
    struct sigaction handler = {};
    struct sigaction saved;
    handler.sa_handler = ignoreAlarm;
    ASSERT_EQ(0, sigaction(SIGALRM, &handler, &saved));
    const struct itimerval every50ms = {{0, 50000}, {0, 50000}}, off = {};
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &every50ms, NULL));
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::string output;
    EXPECT_TRUE(CommonUtils::sCallSystemWith("sleep 0.2; echo late", null, output, "late"));
    EXPECT_EQ("late", output);
    setitimer(ITIMER_REAL, &off, NULL);
    sigaction(SIGALRM, &saved, NULL);
    close(null);
    log_.clear();
    EXPECT_FALSE(CommonUtils::sCallSystemWith("echo never", -1, output, "never"));
    EXPECT_EQ(1, log_.count("excute cmd fail: never"));
    EXPECT_FALSE(log_.contains("excuete cmd output"));
}

}  // namespace
