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

TEST_F(PackagesTest, APackageIsAnExistingDirectoryWithAnExtensionTheHostMayReplace) {
    // Path, whether a package, whether a package or a file.
    for (const auto& [path, package, packageOrFile] : {
             std::tuple{at("Report.Pages"), true, true},  // extension in any case
             {at("Report.Pages") + "/", true, true},
             {at("Link.pages"), true, true},   // follows the link
             {at("Flat.pages"), false, true},  // a file is not a package
             {at("notes.txt"), false, true},
             {at("Archive.zip"), false, false},
             {at("Folder"), false, false},
             {at("Missing.pages"), false, false},
             {std::string(), false, false},
         }) {
        EXPECT_EQ(QNIsPackageFilePath(path), package) << path;
        EXPECT_EQ(QNIsPackageOrFilePath(path), packageOrFile) << path;
    }
    EXPECT_TRUE(QNIsPackageFileURL(qn::URL::fileURLWithPath(at("Report.Pages"))));

    EXPECT_TRUE(QNIsPackageFileExtension("RTFD"));
    EXPECT_FALSE(QNIsPackageFileExtension(""));
    qn::setPackageFileExtensions({".ZIP", ""});
    EXPECT_TRUE(QNIsPackageFilePath(at("Archive.zip")));
    EXPECT_FALSE(QNIsPackageFilePath(at("Report.Pages")));
    EXPECT_FALSE(QNIsPackageFileExtension(""));
}

TEST_F(PackagesTest, ReadersRunWhileTheSetIsReplaced) {
    std::atomic<bool> stop{false};
    std::vector<std::jthread> readers;
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
    readers.clear();  // joins them
    // The last replacement (the defaults) is the one in force.
    EXPECT_TRUE(QNIsPackageFileExtension("pages"));
    EXPECT_FALSE(QNIsPackageFileExtension("zip"));
}

}  // namespace
