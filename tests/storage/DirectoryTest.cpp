#include "storage/Directory.h"

#include <sys/stat.h>

#include "storage/File.h"
#include "support/DeviceRootTest.h"

using talvern::Directory;
using talvern::File;

namespace {

class DirectoryTest : public quorvia_test::DeviceRootTest {};

TEST_F(DirectoryTest, CreateMakesParentsAndSetsModeAgainAndFailsBelowAFile) {
    EXPECT_TRUE(Directory::sCreateDirectory(path("/a/b/c")).ok());
    chmod(path("/a/b/c").c_str(), 0700);
    EXPECT_TRUE(Directory::sCreateDirectory(path("/a/b/c")).ok());
    struct stat info;
    ASSERT_EQ(0, stat(path("/a/b/c").c_str(), &info));
    EXPECT_EQ(0777u, info.st_mode & 0777u);

    writeFile("/plain", "x");
    EXPECT_TRUE(Directory::sCreateDirectory(path("/plain/sub")).systemError());
    EXPECT_TRUE(Directory::sExists(path("/plain")));
}

TEST_F(DirectoryTest, DeleteRecursiveOrSingle) {
    writeFile("/t/x/y", "1");
    EXPECT_TRUE(Directory::sDelete(path("/t"), false).systemError());
    EXPECT_TRUE(File::sExists(path("/t/x/y")));
    EXPECT_TRUE(Directory::sDelete(path("/t"), true).ok());
    EXPECT_FALSE(Directory::sExists(path("/t")));
    EXPECT_TRUE(Directory::sDelete(path("/missing"), false).ok());
    EXPECT_TRUE(Directory::sDelete(path("/missing"), true).ok());
}

TEST(DirectoryAncestor, ComparesWholeComponents) {
    const struct { const char* ancestor; const char* path; bool expected; } cases[] = {
        {"/a/b", "/a/bc", false}, {"/a/b/", "/a/b/c", true}, {"/a/b", "/a/b/c/", true},
        {"/a/b/", "/a/b", true},  {"", "/a", false},        {"/a", "", false},
        {"/a/B", "/a/b/c", false}, {"/a/b/c", "/a/b", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Directory::sIsAncestorPath(c.ancestor, c.path))
            << c.ancestor << " vs " << c.path;
    }
}

}  // namespace
