#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "qn/URL.h"
#include "support/TemporaryDirectory.h"

namespace {

qn::URL file(std::string_view path) {
    return qn::URL::fileURLWithPath(path, false);
}
qn::URL directory(std::string_view path) {
    return qn::URL::fileURLWithPath(path, true);
}

TEST(URLTest, StandardizingIsLexicalAndKeepsTheDirectoryFlag) {
    EXPECT_EQ(file("/a/./b//c/../d").URLByStandardizingPath(), file("/a/b/d"));
    EXPECT_EQ(file("/..").URLByStandardizingPath(), directory("/"));
    EXPECT_EQ(qn::URL::fileURLWithPath("/a/b/../").URLByStandardizingPath(), directory("/a"));
    // Only standardizing collapses separators; equality compares the paths as written.
    EXPECT_NE(file("/a//b"), file("/a/b"));
    EXPECT_NE(file("/a"), directory("/a"));
    EXPECT_NE(std::hash<qn::URL>{}(file("/a")), std::hash<qn::URL>{}(directory("/a")));
}

TEST(URLTest, ComponentsKeepTheDirectoryFlagWhereTheyShould) {
    const qn::URL root = file("/");
    EXPECT_TRUE(root.hasDirectoryPath());
    EXPECT_EQ(root.lastPathComponent(), "/");
    EXPECT_EQ(root.URLByDeletingLastPathComponent(), root);
    EXPECT_EQ(root.absoluteString(), "file:///");

    const qn::URL docs = qn::URL::fileURLWithPath("/Users/a/Docs//");
    EXPECT_TRUE(docs.hasDirectoryPath());
    EXPECT_EQ(docs.path(), "/Users/a/Docs");
    EXPECT_EQ(docs.pathComponents(), (std::vector<std::string>{"/", "Users", "a", "Docs"}));
    EXPECT_EQ(docs.absoluteString(), "file:///Users/a/Docs/");

    EXPECT_EQ(file("/x/.hidden").URLByDeletingPathExtension(), file("/x/.hidden"));
    EXPECT_EQ(directory("/x/Doc").URLByAppendingPathExtension("pages"), directory("/x/Doc.pages"));
    EXPECT_EQ(file("/x/a").URLByAppendingPathExtension("b/c"), file("/x/a"));

    EXPECT_EQ(file("/a").URLByAppendingPathComponent("b/"), directory("/a/b"));
    EXPECT_EQ(directory("/a").URLByAppendingPathComponent("/b/c"), file("/a/b/c"));
    EXPECT_EQ(file("/a").URLByAppendingPathComponent("b", true), directory("/a/b"));
    EXPECT_EQ(file("/a").URLByAppendingPathComponent(""), file("/a"));
    EXPECT_EQ(file("/a").URLByDeletingLastPathComponent(), directory("/"));
    EXPECT_EQ(file("/a/b").URLByDeletingLastPathComponent(), directory("/a"));

    const qn::URL empty;
    EXPECT_EQ(empty.absoluteString(), "");
    EXPECT_TRUE(empty.pathComponents().empty());
    EXPECT_TRUE(empty.URLByAppendingPathComponent("a").isEmpty());
    EXPECT_TRUE(qn::URL::fileURLWithPath("").isEmpty());
}

TEST(URLTest, AbsoluteStringRoundTripsThroughFromString) {
    const qn::URL url = file("/tmp/My Docs/r\xC3\xA9sum\xC3\xA9 #1?100%.txt");
    EXPECT_EQ(url.absoluteString(), "file:///tmp/My%20Docs/r%C3%A9sum%C3%A9%20%231%3F100%25.txt");
    EXPECT_EQ(qn::URL::fromString(url.absoluteString()), url);
    EXPECT_EQ(fmt::format("{}", url), url.absoluteString());

    const qn::URL folder = directory("/a b/c;d=e@f");
    EXPECT_EQ(folder.absoluteString(), "file:///a%20b/c;d=e@f/");
    EXPECT_EQ(qn::URL::fromString(folder.absoluteString()), folder);

    EXPECT_EQ(qn::URL::fromString("file://localhost/a/b"), file("/a/b"));
    EXPECT_EQ(qn::URL::fromString("FILE:///a%2fb"), file("/a/b"));
    for (const char* bad : {"http://host/a", "file:/a", "file://host/a", "file:///a%2",
                            "file:///a%00", "file:///a?q"}) {
        EXPECT_EQ(qn::URL::fromString(bad), std::nullopt) << bad;
    }
    // A raw NUL too (found by fuzzing: the URL's own text, with it encoded, did not read back).
    EXPECT_EQ(qn::URL::fromString(std::string_view("file:///a\0b", 11)), std::nullopt);
}

TEST(URLTest, FileURLWithPathAsksTheFileSystemAndResolvesRelativePaths) {
    const qn::test::TemporaryDirectory dir;
    dir.symlink("link", dir.mkdir("dir"));
    dir.write("file.txt", "x");
    EXPECT_TRUE(qn::URL::fileURLWithPath(dir.pathOf("dir")).hasDirectoryPath());
    EXPECT_FALSE(qn::URL::fileURLWithPath(dir.pathOf("file.txt")).hasDirectoryPath());
    EXPECT_FALSE(qn::URL::fileURLWithPath(dir.pathOf("missing")).hasDirectoryPath());
    EXPECT_TRUE(qn::URL::fileURLWithPath(dir.pathOf("missing/")).hasDirectoryPath());

    const qn::URL link = qn::URL::fileURLWithPath(dir.pathOf("link"));
    EXPECT_TRUE(link.hasDirectoryPath());  // Follows the link.
    EXPECT_EQ(link.URLByResolvingSymlinksInPath().path(),
              std::filesystem::canonical(dir.pathOf("dir")).string());
    EXPECT_EQ(dir.urlOf("missing").URLByResolvingSymlinksInPath(), dir.urlOf("missing"));

    const std::string cwd = std::filesystem::current_path().string();
    EXPECT_EQ(qn::URL::fileURLWithPath("x/./y/../z", false), file(cwd + "/x/z"));
    EXPECT_EQ(qn::URL::fileURLWithPath("."), directory(cwd));
}

}  // namespace
