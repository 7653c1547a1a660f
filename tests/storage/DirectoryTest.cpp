#include "storage/Directory.h"

#include <sys/stat.h>

#include "storage/File.h"
#include "support/DeviceRootTest.h"

using talvern::Directory;
using talvern::File;

namespace {

class DirectoryTest : public quorvia_test::DeviceRootTest {};

TEST_F(DirectoryTest, CreateSetsTheModeAgainAndDeleteIsRecursiveOnlyWhenAsked) {
    chmod(root().c_str(), 0700);
    EXPECT_TRUE(Directory::sCreateDirectory(path("/a/b")).ok());
    EXPECT_TRUE(Directory::sCreateDirectory(root()).ok());
    struct stat info;
    ASSERT_EQ(0, stat(root().c_str(), &info));
    EXPECT_EQ(0777u, info.st_mode & 0777u);
    writeFile("/plain", "x");
    EXPECT_TRUE(Directory::sCreateDirectory(path("/plain/sub")).systemError());

    writeFile("/a/b/f", "1");
    EXPECT_TRUE(Directory::sDelete(path("/a"), false).systemError());
    EXPECT_TRUE(File::sExists(path("/a/b/f")));
    EXPECT_TRUE(Directory::sDelete(path("/a"), true).ok());
    EXPECT_FALSE(Directory::sExists(path("/a")));
    EXPECT_TRUE(Directory::sDelete(path("/missing"), false).ok());
}

TEST(DirectoryAncestor, ComparesWholeComponents) {
    const struct { const char* ancestor; const char* path; bool expected; } cases[] = {
        {"/a/b", "/a/bc", false}, {"/a/b/", "/a/b/c", true}, {"/a/b", "/a/b/c/", true},
        {"/a/b/", "/a/b", true},  {"", "/a", false},        {"/a/B", "/a/b/c", false},
        {"/a/b/c", "/a/b", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Directory::sIsAncestorPath(c.ancestor, c.path))
            << c.ancestor << " vs " << c.path;
    }
}

}  // namespace
