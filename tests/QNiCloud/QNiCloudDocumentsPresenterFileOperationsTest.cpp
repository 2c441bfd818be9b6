#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FileOperationsFixture.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/FileAttributes.h"
#include "qn/ForwardingFileManager.h"

namespace qn::test {
namespace {

using Paths = std::vector<std::string>;

class QNiCloudDocumentsPresenterFileOperationsTest : public FileOperationsFixture {
protected:
    // Adds a folder "Dir" with "x.txt", "y.txt" and "Sub/z.txt", cached like the rest.
    void SetUp() override {
        FileOperationsFixture::SetUp();
        for (const char* file : {"Dir/x.txt", "Dir/y.txt", "Dir/Sub/z.txt"}) {
            home.write("Mobile Documents/iCloud~com~example~Notes/Documents/" + std::string(file),
                       file);
        }
        initialize();
        outside = home.mkdir("Outside");
    }

    // Declines every item named "y.txt".
    static void decliningY(const URL& item, const URL&, bool& proceed) {
        proceed = item.lastPathComponent() != "y.txt";
    }

    Paths cachedBelow(std::string_view relative) {
        Paths paths = cachedPaths();
        std::erase_if(paths, [&](const std::string& path) { return !path.starts_with(relative); });
        return paths;
    }
    bool onDisk(std::string_view relative) {
        return std::filesystem::exists(documentPath(relative));
    }

    std::string outside;
};

TEST_F(QNiCloudDocumentsPresenterFileOperationsTest, MovesRefuseExistingDestinations) {
    // The destination exists only in the cloud, and still counts.
    Error error;
    EXPECT_FALSE(
        presenter->moveItemAtURL(documentURL("a.txt"), documentURL("Folder/b.txt"), &error));
    EXPECT_EQ(error, Error(QNiCloudErrorDomain, QNiCloudErrorFileExists,
                           {{QNiCloudSourcePathKey, documentPath("a.txt")},
                            {QNiCloudDestionationPathKey, documentPath("Folder/b.txt")},
                            {NSLocalizedDescriptionKey, "The operation couldn't be completed."}}));
    EXPECT_FALSE(presenter->moveItemAtPath(documentPath("a.txt"), documentPath("Book.pages")));
    EXPECT_TRUE(onDisk("a.txt"));

    // Within, out of and into the Documents directory: the cache follows each.
    Dictionary attributes;
    ASSERT_TRUE(
        presenter->moveItemAtURL(documentURL("a.txt"), documentURL("Dir/a.txt"), &attributes));
    EXPECT_EQ(attributes.uint64ForKey(NSFileSize), 3u);
    EXPECT_EQ(cachedBelow("Dir/a"), Paths{"Dir/a.txt"});
    EXPECT_TRUE(cachedBelow("a.txt").empty());
    ASSERT_TRUE(presenter->moveItemAtPath(documentPath("Dir/Sub"), outside + "/Sub", &error));
    EXPECT_TRUE(cachedBelow("Dir/Sub").empty());
    ASSERT_TRUE(presenter->moveItemAtPath(outside + "/Sub", documentPath("In")));
    EXPECT_EQ(cachedBelow("In"), (Paths{"In", "In/z.txt"}));

    // A failed coordination is reported only into an empty error.
    failCoordination(false);
    EXPECT_FALSE(presenter->moveItemAtURL(documentURL("In"), documentURL("Out"), &error));
    EXPECT_EQ(error.code(), QNiCloudErrorFileExists);
    error = Error();
    EXPECT_FALSE(presenter->moveItemAtURL(documentURL("In"), documentURL("Out"), &error));
    EXPECT_EQ(error, coordinationError());
    EXPECT_TRUE(onDisk("In"));
}

TEST_F(QNiCloudDocumentsPresenterFileOperationsTest, CopiesAndRemovalsLeaveDeclinedItems) {
    std::vector<URL> copiedTo;
    ASSERT_TRUE(presenter->copyItemAtURL(documentURL("Dir"), documentURL("Copy"),
                                         [&](const URL& item, const URL& to, bool& proceed) {
                                             copiedTo.push_back(to);
                                             decliningY(item, to, proceed);
                                         }));
    EXPECT_EQ(cachedBelow("Copy"), (Paths{"Copy", "Copy/Sub", "Copy/Sub/z.txt", "Copy/x.txt"}));
    EXPECT_EQ(copiedTo.front().path(), documentPath("Copy"));
    Error error;
    EXPECT_FALSE(presenter->copyItemAtURL(documentURL("a.txt"), documentURL("Copy"), &error));
    EXPECT_EQ(error.code(), QNiCloudErrorFileExists);
    ASSERT_TRUE(presenter->copyItemAtPath(documentPath("a.txt"), documentPath("a2.txt")));
    EXPECT_FALSE(presenter->metadataItemForPath(documentPath("a2.txt"))->isUploaded());

    // The folder holding the declined item stays, on disk and in the cache.
    ASSERT_TRUE(presenter->removeItemAtURL(documentURL("Dir"), decliningY));
    EXPECT_EQ(cachedBelow("Dir"), (Paths{"Dir", "Dir/y.txt"}));
    ASSERT_TRUE(presenter->removeItemAtPath(documentPath("Dir")));
    EXPECT_TRUE(cachedBelow("Dir").empty());
    EXPECT_FALSE(presenter->removeItemAtURL(URL()));
}

// Reports the replaced item under another name, as a file system may.
class RenamingFileManager final : public ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;
    bool replaceItemAtURL(const URL& original, const URL& with, std::string_view backup,
                          ItemReplacementOptions options, URL* resulting, Error* error) override {
        *resulting = original.URLByDeletingLastPathComponent().URLByAppendingPathComponent("R.txt");
        return ForwardingFileManager::replaceItemAtURL(original, with, backup, options, nullptr,
                                                       error) &&
               moveItemAtURL(original, *resulting, error);
    }
};

TEST_F(QNiCloudDocumentsPresenterFileOperationsTest, ReplacementsUpdateTheCacheAndKeepQuirks) {
    presenter->metadataItemForPath(documentPath("a.txt"))->setIsUploaded(true);
    const URL untouched = URL::fileURLWithPath("/untouched");
    URL resulting = untouched;
    ASSERT_TRUE(presenter->replaceItemAtURL(documentURL("a.txt"),
                                            URL::fileURLWithPath(home.write("Outside/n", "new")),
                                            "", 0, &resulting));
    EXPECT_EQ(resulting, untouched);
    EXPECT_EQ(readFile(documentPath("a.txt")), "new");
    const auto item = presenter->metadataItemForPath(documentPath("a.txt"));
    EXPECT_FALSE(item->isUploaded());
    EXPECT_NE(item->fsContentChangeDate(), kCloudDate);

    FileManager::setDefaultManager(
        std::make_shared<RenamingFileManager>(FileManager::defaultManager()));
    ASSERT_TRUE(presenter->replaceItemAtURL(
        documentURL("a.txt"), URL::fileURLWithPath(home.write("Outside/m", "m")), "", 0, nullptr));
    EXPECT_TRUE(cachedBelow("a.txt").empty());
    EXPECT_EQ(cachedBelow("R.txt"), Paths{"R.txt"});
    FileManager::setDefaultManager(nullptr);

    // Coordination failing before the replacement still answers true, with its error.
    failCoordination(false);
    Error error;
    EXPECT_TRUE(presenter->replaceItemAtURL(documentURL("R.txt"), URL::fileURLWithPath(outside), "",
                                            0, nullptr, &error));
    EXPECT_EQ(error, coordinationError());
    EXPECT_FALSE(presenter->replaceItemAtURL(URL(), documentURL("R.txt"), "", 0, nullptr));
}

}  // namespace
}  // namespace qn::test
