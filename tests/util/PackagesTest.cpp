#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qn/util/Packages.h"
#include "support/TemporaryDirectory.h"

namespace {

class PackagesTest : public testing::Test {
protected:
    PackagesTest() {
        dir.symlink("Link.pages", dir.mkdir("Report.Pages"));
        dir.mkdir("Folder");
        dir.mkdir("Archive.zip");
        dir.write("Flat.pages", "x");
        dir.write("notes.txt", "x");
    }
    ~PackagesTest() override { qn::setPackageFileExtensions(qn::defaultPackageFileExtensions()); }
    std::string at(const char* name) const { return dir.pathOf(name); }

    qn::test::TemporaryDirectory dir;
};

TEST_F(PackagesTest, APackageIsAnExistingDirectoryWithAPackageExtension) {
    EXPECT_TRUE(QNIsPackageFilePath(at("Report.Pages")));  // extension in any case
    EXPECT_TRUE(QNIsPackageFilePath(at("Report.Pages") + "/"));
    EXPECT_TRUE(QNIsPackageFilePath(at("Link.pages")));  // follows the link
    EXPECT_TRUE(QNIsPackageFileURL(qn::URL::fileURLWithPath(at("Report.Pages"))));
    EXPECT_FALSE(QNIsPackageFilePath(at("Flat.pages")));  // a file is not a package
    EXPECT_FALSE(QNIsPackageFilePath(at("Archive.zip")));
    EXPECT_FALSE(QNIsPackageFilePath(at("Folder")));
    EXPECT_FALSE(QNIsPackageFilePath(at("Missing.pages")));
    EXPECT_FALSE(QNIsPackageFilePath(""));

    EXPECT_TRUE(QNIsPackageOrFilePath(at("Report.Pages")));
    EXPECT_TRUE(QNIsPackageOrFilePath(at("notes.txt")));
    EXPECT_FALSE(QNIsPackageOrFilePath(at("Folder")));
    EXPECT_FALSE(QNIsPackageOrFilePath(at("Missing.pages")));
    EXPECT_FALSE(QNIsPackageOrFilePath(""));
}

TEST_F(PackagesTest, TheHostCanReplaceTheExtensions) {
    EXPECT_TRUE(QNIsPackageFileExtension("RTFD"));
    EXPECT_FALSE(QNIsPackageFileExtension(""));
    qn::setPackageFileExtensions({".ZIP", ""});
    EXPECT_TRUE(QNIsPackageFilePath(at("Archive.zip")));
    EXPECT_FALSE(QNIsPackageFilePath(at("Report.Pages")));
    EXPECT_FALSE(QNIsPackageFileExtension(""));
    qn::setPackageFileExtensions(qn::defaultPackageFileExtensions());
    EXPECT_TRUE(QNIsPackageFilePath(at("Report.Pages")));
}

TEST_F(PackagesTest, ReadersRunWhileTheSetIsReplaced) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                QNIsPackageFileExtension("pages");
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        qn::setPackageFileExtensions(i % 2 ? qn::defaultPackageFileExtensions()
                                           : std::unordered_set<std::string>{"zip"});
    }
    stop = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    // The last replacement (the defaults) is the one in force.
    EXPECT_TRUE(QNIsPackageFileExtension("pages"));
    EXPECT_FALSE(QNIsPackageFileExtension("zip"));
}

}  // namespace
