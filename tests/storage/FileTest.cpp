#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <boost/thread.hpp>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStatus.h"
#include "storage/ReplacementFile.h"
#include "support/DeviceRootTest.h"
#include "tools/HashCalculator.h"

using quorvia_test::quoted;
using talvern::Directory;
using talvern::File;
namespace fs = boost::filesystem;

namespace {

class FileTest : public quorvia_test::DeviceRootTest {
protected:
    unsigned int modeOf(const std::string& file) const {
        struct stat info;
        return stat(file.c_str(), &info) == 0 ? info.st_mode & 0777u : 0u;
    }
    long entries(const std::string& folder) const {
        return std::distance(boost::filesystem::directory_iterator(path(folder)), {});
    }
};

TEST_F(FileTest, ExistsSizeAndDeleteTellFilesFromDirectories) {
    writeFile("/f.txt", "12345");
    EXPECT_EQ(5u, File::sGetFileSize(path("/f.txt")));
    EXPECT_EQ(0u, File::sGetFileSize(root()));
    EXPECT_TRUE(File::sDelete(path("/f.txt")).ok());
    EXPECT_FALSE(File::sExists(path("/f.txt")));
    EXPECT_TRUE(File::sDelete(path("/missing")).ok());
    EXPECT_TRUE(log_.lines().empty());

    EXPECT_TRUE(File::sDelete(root()).ok());
    EXPECT_TRUE(Directory::sExists(root()));
    EXPECT_EQ(1, log_.count("File delete with folder type. ignore it.", google::GLOG_ERROR));
    // A path that can't be examined counts as missing, and can't be deleted.
    EXPECT_FALSE(File::sExists(path("/" + std::string(300, 'n'))));
    EXPECT_EQ(ENAMETOOLONG, File::sDelete(path("/" + std::string(300, 'n'))).systemError().value());
}

TEST_F(FileTest, DirectoryCreateSetsTheModeAgainAndDeleteIsRecursiveOnlyWhenAsked) {
    chmod(root().c_str(), 0700);
    EXPECT_TRUE(Directory::sCreateDirectory(path("/a/b")).ok());
    EXPECT_TRUE(Directory::sCreateDirectory(root()).ok());
    EXPECT_EQ(0777u, modeOf(root()));
    writeFile("/plain", "x");
    EXPECT_TRUE(Directory::sCreateDirectory(path("/plain/sub")).systemError());
    EXPECT_EQ(EINVAL, Directory::sCreateDirectory("").systemError().value());

    writeFile("/a/b/f", "1");
    // 200 levels: deeper than the delete holds descriptors for.
    std::string deep = "/a/b";
    for (int level = 0; level < 200; ++level) {
        deep += "/d";
    }
    ASSERT_TRUE(Directory::sCreateDirectory(path(deep)).ok());
    writeFile(deep + "/f", "2");
    const size_t descriptors = quorvia_test::openDescriptors();
    EXPECT_TRUE(Directory::sDelete(path("/a"), false).systemError());
    EXPECT_TRUE(Directory::sDelete(path("/a"), true).ok());
    EXPECT_FALSE(Directory::sExists(path("/a")));
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors());
    EXPECT_TRUE(Directory::sDelete(path("/missing"), false).ok());
}

// What a disk user planted below the top is never followed; the top is.
TEST_F(FileTest, OpenAndCreateBelowFollowNoLinkBelowTheTop) {
    const size_t descriptors = quorvia_test::openDescriptors();
    ASSERT_TRUE(Directory::sCreateDirectory(path("/top/a/b")).ok());
    ASSERT_TRUE(Directory::sCreateDirectory(path("/outside")).ok());
    fs::create_symlink(path("/top"), path("/device"));
    fs::create_symlink(path("/outside"), path("/top/a/planted"));
    const int fd = Directory::sOpenBelow(path("/device"), path("/device/a//b/"));
    EXPECT_LE(0, fd);
    close(fd);
    const struct {
        const char* path;
        int error;
    } refused[] = {{"/top/a/planted", ELOOP},
                   {"/top/a/planted/x", ELOOP},
                   {"/top/a/../a", EINVAL},
                   {"/topmost", EINVAL},
                   {"/top/a/missing", ENOENT}};
    for (const auto& row : refused) {
        errno = 0;
        EXPECT_EQ(-1, Directory::sOpenBelow(path("/top"), path(row.path))) << row.path;
        EXPECT_EQ(row.error, errno) << row.path;
    }
    EXPECT_EQ(
        ELOOP,
        Directory::sCreateBelow(path("/top"), path("/top/a/planted/new")).systemError().value());
    EXPECT_TRUE(Directory::sCreateBelow(path("/device"), path("/device/a/new/deep")).ok());
    EXPECT_EQ(0777u, modeOf(path("/top/a/new/deep")));
    EXPECT_EQ("", quorvia_test::capture("ls -A " + path("/outside")));
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors());
}

// Where time_t has 32 bits, stat() fails with EOVERFLOW for whatever is dated
// past January 2038 (a camera with a wrong clock, a restored backup): it
// counted as missing, unreadable, unhashable and undeletable (regression).
TEST_F(FileTest, FilesAndFoldersDatedPast2038AreLikeAnyOtherRegression) {
    const std::string dir = path("/future"), file = dir + "/a.jpg", empty = dir + "/empty";
    writeFile("/future/a.jpg", "abc");
    writeFile("/today.jpg", "abc");
    fs::create_directory(empty);
    ASSERT_EQ(
        0, shell("touch -d 2040-01-01 " + quoted(file) + " " + quoted(empty) + " " + quoted(dir)));
    EXPECT_TRUE(File::sExists(file) && Directory::sExists(dir));
    EXPECT_EQ(3u, File::sGetFileSize(file));
    std::string content;
    EXPECT_TRUE(File::sReadRegularFile(file, 16, content));
    EXPECT_EQ(talvern::HashCalculator::calcFile(path("/today.jpg")),
              talvern::HashCalculator::calcFile(file));
    EXPECT_TRUE(Directory::sCreateDirectory(dir + "/sub").ok());
    EXPECT_TRUE(File::sDelete(file).ok() && Directory::sDelete(empty, false).ok());
    EXPECT_FALSE(fs::exists(file) || fs::exists(empty));
    EXPECT_TRUE(log_.lines().empty());
}

// An automount point on the disk (a share mounted on demand) is looked at
// without asking for its mount, as stat() does: once, the thread that
// follows the disk waited on the automounter (regression). The automounter
// here never answers, so a request would hold the test until its alarm.
TEST_F(FileTest, StatusNeverAsksForAnAutomountRegression) {
    const std::string share = path("/share");
    fs::create_directory(share);
    int requests[2];
    ASSERT_EQ(0, pipe2(requests, O_NONBLOCK));
    // The automounter's process group never triggers a mount: it must not be ours.
    const pid_t automounter = fork();
    ASSERT_LE(0, automounter) << "kill(-1) would reach every process";
    if (automounter == 0) {
        setpgid(0, 0);
        pause();
        _exit(0);
    }
    setpgid(automounter, automounter);
    const std::string options = "fd=" + std::to_string(requests[1]) +
                                ",pgrp=" + std::to_string(automounter) +
                                ",minproto=5,maxproto=5,direct";
    // Its own mount namespace, private, so that nothing reaches the machine's.
    if (unshare(CLONE_NEWNS) != 0 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0 ||
        mount("autofs", share.c_str(), "autofs", 0, options.c_str()) != 0) {
        kill(automounter, SIGKILL);
        GTEST_SKIP() << "no autofs mount here: " << strerror(errno);
    }
    alarm(10);
    talvern::FileStatus status;
    EXPECT_EQ(0, talvern::FileStatus::sOfPath(share, status));
    EXPECT_TRUE(Directory::sExists(share));
    char request;
    EXPECT_EQ(-1, read(requests[0], &request, 1));
    umount2(share.c_str(), MNT_DETACH);
    kill(automounter, SIGKILL);
}

TEST(DirectoryAncestor, ComparesWholeComponents) {
    const struct { const char* ancestor; const char* path; bool expected; } cases[] = {
        {"/a/b", "/a/bc", false}, {"/a/b/", "/a/b/c", true}, {"/a/b", "/a/b/c/", true},
        {"/a/b/", "/a/b", true},  {"", "/a", false},         {"/a/B", "/a/b/c", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Directory::sIsAncestorPath(c.ancestor, c.path))
            << c.ancestor << " " << c.path;
    }
}

TEST_F(FileTest, CopyCopiesContentAndModeOrReportsWhyNot) {
    const std::string content(5000, 'q');
    writeFile("/src.bin", content);
    const size_t descriptors = quorvia_test::openDescriptors();
    EXPECT_TRUE(File::sCopy(path("/src.bin"), path("/dst.bin")).ok());
    EXPECT_EQ(descriptors, quorvia_test::openDescriptors());
    EXPECT_EQ(content, readFile("/dst.bin"));
    EXPECT_EQ(0777u, modeOf(path("/dst.bin")));
    // A name near the length limit, 83 three-byte characters and ".jpg",
    // whose new content goes under whole characters of it only.
    std::string longest = "/";
    for (int i = 0; i < 83; ++i) {
        longest += "照";
    }
    longest += ".jpg";
    EXPECT_TRUE(File::sCopy(path("/src.bin"), path(longest)).ok());
    EXPECT_EQ(content, readFile(longest));
    EXPECT_EQ(path("/." + longest.substr(1, 82 * 3) + ".XXXXXX").size(),
              talvern::ReplacementFile(path(longest)).temporaryPath().size());
    // Two new contents of one file at once each get a name of their own.
    const talvern::ReplacementFile first(path("/dst.bin")), second(path("/dst.bin"));
    EXPECT_NE(first.temporaryPath(), second.temporaryPath());
    EXPECT_TRUE(first.stream() != NULL && second.stream() != NULL);

    EXPECT_EQ(FILE_COPY_FAILED, File::sCopy(path("/missing"), path("/dst")).apiError());
    EXPECT_EQ(1, log_.count("open file " + path("/missing") + " failed", google::GLOG_ERROR));
    // A destination whose space can't be read has 0 bytes available.
    EXPECT_EQ(NO_SPACE_LEFT_ON_DEVICE,
              File::sCopy(path("/src.bin"), path("/no/such/dir/dst")).apiError());
    // A write cut short (a full disk, here a file size limit) leaves the old
    // destination in place.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    const struct rlimit small = {1000, saved.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    const int cut = File::sRawCopyFile(path("/src.bin"), path("/dst.bin"));
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
    EXPECT_EQ(-1, cut);
    EXPECT_EQ(content, readFile("/dst.bin"));
    // So does one cut short only as the last of it leaves.
    writeFile("/small.bin", std::string(2000, 's'));
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    EXPECT_EQ(-1, File::sRawCopyFile(path("/small.bin"), path("/dst.bin")));
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
    EXPECT_EQ(content, readFile("/dst.bin"));
    EXPECT_TRUE(log_.contains("copy file to " + path("/dst.bin") + " not completed"));
}

TEST_F(FileTest, InterruptedCopyLeavesTheDestinationAsItWas) {
    // /dev/zero never ends, so the copy loops until it is interrupted.
    talvern::ErrorCode result;
    writeFile("/copy/dst", "old");
    boost::thread copier([this, &result] { result = File::sCopy("/dev/zero", path("/copy/dst")); });
    // The copy goes to a new file beside the destination first.
    while (entries("/copy") < 2) {
        boost::this_thread::sleep_for(boost::chrono::milliseconds(1));
    }
    copier.interrupt();
    copier.join();
    EXPECT_EQ(COPY_CANCELLED, result.apiError());
    EXPECT_EQ("old", readFile("/copy/dst"));
    EXPECT_EQ(1, entries("/copy")) << "the new file is gone";
}

}  // namespace
