#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include "FileOperationsFixture.h"
#include "qn/FileAttributes.h"
#include "qn/ForwardingFileManager.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterExistenceTest : public FileOperationsFixture {
protected:
    // "exists/isDirectory/existing path"; the outs start opposite to what is expected of them.
    std::string find(std::string_view relative) {
        bool isDirectory = true;
        URL existing = URL::fileURLWithPath("/sentinel");
        const bool exists =
            presenter->itemExistsAtURL(documentURL(relative), &isDirectory, &existing);
        const std::string path = existing.path();
        return fmt::format("{}/{}/{}", exists, isDirectory,
                           path.starts_with(documents) ? path.substr(documents.size()) : path);
    }
};

TEST_F(QNiCloudDocumentsPresenterExistenceTest, CacheFirstThenDiskThenAnotherLetterCase) {
    // Before the cache is ready a name in another case is found in the parent's listing. An
    // item on disk under the asked spelling has no URL and (kept on purpose) is no directory.
    EXPECT_EQ(find("A.TXT"), "true/false//a.txt");
    EXPECT_EQ(find("FOLDER"), "true/true//Folder");
    EXPECT_EQ(find("Folder"), "true/false/");
    EXPECT_EQ(find("nothing.txt"), "false/false/");
    bool untouched = true;
    EXPECT_FALSE(presenter->itemExistsAtURL(URL(), &untouched));
    EXPECT_TRUE(untouched);
    // A move asks the same inside its coordination, and may not overwrite another case.
    Error error;
    EXPECT_FALSE(presenter->moveItemAtURL(documentURL("Folder"), documentURL("A.Txt"), &error));
    EXPECT_EQ(error.code(), QNiCloudErrorFileExists);

    // Once ready: the cache knows cloud-only items, in its own spelling; the case-insensitive
    // listing is no longer asked.
    initialize();
    std::filesystem::create_directories(documentPath("Late"));
    EXPECT_EQ(find("folder/B.TXT"), "true/false//Folder/b.txt");
    EXPECT_TRUE(presenter->fileExistsAtPath(documentPath("Book.pages")));
    EXPECT_FALSE(presenter->itemExistsAtPath(documentPath("LATE")));
    EXPECT_EQ(find("Late"), "true/false/");
}

// Refuses to read attributes, as a sandbox refuses the Documents directory.
class UnreadableFileManager final : public ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;
    bool loadAttributesOfItemAtPath(std::string_view, Dictionary*, Dictionary*,
                                    Error* error) override {
        setError(error, Error(NSCocoaErrorDomain, NSFileReadNoPermissionError));
        return false;
    }
};

TEST_F(QNiCloudDocumentsPresenterExistenceTest, DatesAndAttributes) {
    // Before the cache is ready the disk answers, with its errors.
    EXPECT_EQ(presenter->modificationDateForItemAtURL(documentURL("a.txt")), kCloudDate);
    Error error;
    EXPECT_EQ(presenter->modificationDateForItemAtURL(documentURL("Folder/b.txt"), &error),
              std::nullopt);
    EXPECT_EQ(error.code(), NSFileReadNoSuchFileError);
    Dictionary attributes;
    EXPECT_FALSE(
        presenter->loadAttributesOfItemAtPath(home.pathOf("none"), &attributes, nullptr, &error));
    EXPECT_EQ(error.code(), NSFileReadNoSuchFileError);

    // Afterwards a cloud-only item's date and attributes come from its metadata.
    initialize();
    EXPECT_EQ(presenter->modificationDateForItemAtURL(documentURL("Folder/b.txt")), kCloudDate);
    ASSERT_TRUE(
        presenter->loadAttributesOfItemAtPath(documentPath("Folder/b.txt"), &attributes, nullptr));
    EXPECT_EQ(attributes, (Dictionary{{NSFileType, NSFileTypeRegular},
                                      {NSFileSize, std::uint64_t{4}},
                                      {NSFileModificationDate, kCloudDate}}));

    // Without permission to read, only the Documents directory is answered (a directory).
    FileManager::setDefaultManager(
        std::make_shared<UnreadableFileManager>(FileManager::defaultManager()));
    error = Error();
    EXPECT_TRUE(
        presenter->loadAttributesOfItemAtPath(documents + "/", &attributes, nullptr, &error));
    EXPECT_EQ(attributes, (Dictionary{{NSFileType, NSFileTypeDirectory}}));
    EXPECT_FALSE(error);
    EXPECT_FALSE(
        presenter->loadAttributesOfItemAtPath(documentPath("a.txt"), &attributes, nullptr, &error));
    EXPECT_EQ(error.code(), NSFileReadNoPermissionError);
}

TEST_F(QNiCloudDocumentsPresenterExistenceTest, AttributeErrorPrecedence) {
    ASSERT_TRUE(presenter->setAttributes({{NSFilePosixPermissions, 0600}}, documentPath("a.txt")));
    struct stat status {};
    ASSERT_EQ(::stat(documentPath("a.txt").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);

    // Coordination failing before the accessor: reading reports it, writing stays silent.
    failCoordination(false);
    Dictionary attributes;
    Error error;
    EXPECT_FALSE(
        presenter->loadAttributesOfItemAtPath(documentPath("a.txt"), &attributes, nullptr, &error));
    EXPECT_EQ(error, coordinationError());
    const Error untouched("untouched", 1);
    error = untouched;
    EXPECT_FALSE(presenter->setAttributes({}, documentPath("a.txt"), &error));
    EXPECT_EQ(error, untouched);

    // Both failing: reading prefers the file manager's error, writing the coordination's.
    failCoordination(true);
    EXPECT_FALSE(
        presenter->loadAttributesOfItemAtPath(home.pathOf("none"), &attributes, nullptr, &error));
    EXPECT_EQ(error.code(), NSFileReadNoSuchFileError);
    EXPECT_FALSE(
        presenter->setAttributes({{NSFilePosixPermissions, 0644}}, home.pathOf("none"), &error));
    EXPECT_EQ(error, coordinationError());
    error = untouched;
    EXPECT_TRUE(presenter->setAttributes({}, documentPath("a.txt"), &error));
    EXPECT_EQ(error, untouched);
}

}  // namespace
}  // namespace qn::test
