#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "qn/PathString.h"

namespace {

TEST(PathStringTest, StandardizingIsLexical) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a/./b//c/../d", "/a/b/d"},
        {"//", "/"},
        {"/..", "/"},
        {"/a/../../b", "/b"},  // never above the root
        {"/a/..", "/"},
        {"/...", "/..."},  // only "." and ".." are treated differently
        {"./a", "a"},
        {"a/..", "."},
        {"a/../../b", "../b"},  // a relative path keeps what it cannot resolve
        {"../../a/..", "../.."},
        {"", ""},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(qn::stringByStandardizingPath(input), expected) << input;
        EXPECT_EQ(qn::stringByStandardizingPath(expected), expected) << expected;
    }
}

TEST(PathStringTest, LastComponentAndParent) {
    EXPECT_EQ(qn::lastPathComponent("/a/b//"), "b");
    EXPECT_EQ(qn::lastPathComponent("//"), "/");
    EXPECT_EQ(qn::lastPathComponent(""), "");

    EXPECT_EQ(qn::stringByDeletingLastPathComponent("/a//b/"), "/a");
    EXPECT_EQ(qn::stringByDeletingLastPathComponent("//a"), "/");
    EXPECT_EQ(qn::stringByDeletingLastPathComponent("/"), "/");
    EXPECT_EQ(qn::stringByDeletingLastPathComponent("a"), "");
    EXPECT_EQ(qn::stringByDeletingLastPathComponent(""), "");
}

TEST(PathStringTest, AppendingPutsExactlyOneSeparatorAtTheJoin) {
    EXPECT_EQ(qn::stringByAppendingPathComponent("/a//", "//b/c/"), "/a/b/c");
    EXPECT_EQ(qn::stringByAppendingPathComponent("/", "/"), "/");
    EXPECT_EQ(qn::stringByAppendingPathComponent("/a/", ""), "/a");
    EXPECT_EQ(qn::stringByAppendingPathComponent("", "b/"), "b/");
    EXPECT_EQ(qn::stringByAppendingPathComponent("", ""), "");
}

TEST(PathStringTest, Extensions) {
    EXPECT_EQ(qn::pathExtension("/x/Doc.pages/"), "pages");
    EXPECT_EQ(qn::pathExtension("/x/.hidden"), "");
    EXPECT_EQ(qn::pathExtension("/x.d/readme"), "");

    EXPECT_EQ(qn::stringByDeletingPathExtension("/x/Doc.pages/"), "/x/Doc");
    EXPECT_EQ(qn::stringByDeletingPathExtension("/x/archive.tar.gz"), "/x/archive.tar");
    EXPECT_EQ(qn::stringByDeletingPathExtension("/x.d/readme/"), "/x.d/readme");

    EXPECT_EQ(qn::stringByAppendingPathExtension("/x/Doc/", "pages"), "/x/Doc.pages");
    EXPECT_EQ(qn::stringByAppendingPathExtension("a.", "b"), "a..b");
    EXPECT_EQ(qn::stringByAppendingPathExtension("/x/a", "b/c"), "/x/a");
    EXPECT_EQ(qn::stringByAppendingPathExtension("/", "b"), "/");
}

}  // namespace
