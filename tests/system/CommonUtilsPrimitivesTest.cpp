#include <gtest/gtest.h>

#include <set>

#include "system/CommonUtils.h"

TEST(CommonUtilsPrimitives, PrefixAndSuffixIgnoreCase) {
    EXPECT_TRUE(CommonUtils::startWith("Primary=x", "PRIMARY="));
    EXPECT_TRUE(CommonUtils::startWith("abc", ""));
    EXPECT_TRUE(CommonUtils::startWith("", ""));
    EXPECT_FALSE(CommonUtils::startWith("ab", "abc"));
    EXPECT_FALSE(CommonUtils::startWith("xabc", "abc"));

    EXPECT_TRUE(CommonUtils::endWith("photo.JPG", ".jpg"));
    EXPECT_TRUE(CommonUtils::endWith(".JpG", ".jpg"));
    EXPECT_TRUE(CommonUtils::endWith("abc", ""));
    EXPECT_FALSE(CommonUtils::endWith("pg", ".jpg"));
    EXPECT_FALSE(CommonUtils::endWith("a.jpeg", ".jpg"));
}

TEST(CommonUtilsPrimitives, UnifyPathStyleRemovesOneTrailingSlash) {
    EXPECT_EQ("", CommonUtils::sUnifyPathStyle(""));
    EXPECT_EQ("/", CommonUtils::sUnifyPathStyle("/"));
    EXPECT_EQ("a/", CommonUtils::sUnifyPathStyle("a//"));
    EXPECT_EQ("/a/b", CommonUtils::sUnifyPathStyle("/a/b/"));
    EXPECT_EQ("/a/b", CommonUtils::sUnifyPathStyle("/a/b"));
}

TEST(CommonUtilsPrimitives, ToLowerChangesAsciiOnly) {
    EXPECT_EQ("abc.jpg", CommonUtils::sToLower("AbC.JPG"));
    EXPECT_EQ("照片.jpg", CommonUtils::sToLower("照片.JPG"));
}

TEST(CommonUtilsPrimitives, FileSizeIsZeroForMissingPath) {
    EXPECT_EQ(0u, CommonUtils::sGetFileSize("/nonexistent/quorvia/file"));
    EXPECT_GT(CommonUtils::sGetFileSize("/bin/sh"), 0u);
}

TEST(CommonUtilsPrimitives, SplitsKeepOrCompressEmptyFields) {
    std::vector<std::string> kept = CommonUtils::splitString("a,,b", ",");
    ASSERT_EQ(3u, kept.size());
    EXPECT_EQ("", kept[1]);

    std::vector<std::string> compressed = CommonUtils::splitStringTokenCompress("a,,b", ",");
    ASSERT_EQ(2u, compressed.size());
    EXPECT_EQ("b", compressed[1]);

    std::vector<std::string> mixed = CommonUtils::splitStringTokenCompress("a, ,b c", ", ");
    ASSERT_EQ(3u, mixed.size());
    EXPECT_EQ("c", mixed[2]);

    std::vector<std::string> hashes = CommonUtils::splitStringTokenCompress("k#v###w", "###");
    ASSERT_EQ(3u, hashes.size());
    EXPECT_EQ("v", hashes[1]);

    std::set<std::string> distinct;
    distinct.insert("stale");
    CommonUtils::splitString(distinct, "b,a,,b", ",");
    EXPECT_EQ((std::set<std::string>{"a", "b"}), distinct);
}
