#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qn/FileAttributes.h"
#include "qn/PosixFileManager.h"
#include "qn/UbiquityErrors.h"
#include "qn/util/QNFileManagerDelegate.h"
#include "support/TemporaryDirectory.h"

namespace {

using qn::test::TemporaryDirectory;
using ::testing::ElementsAre;

qn::Value valueOf(const qn::Dictionary& dictionary, std::string_view key) {
    const qn::Value* value = dictionary.find(key);
    return value != nullptr ? *value : qn::Value();
}

// The parts of a file manager error that callers rely on.
void expectFileError(const qn::Error& error, std::int64_t code, int errnoValue,
                     const std::string& path) {
    EXPECT_EQ(error.domain(), qn::NSCocoaErrorDomain) << error.description();
    EXPECT_EQ(error.code(), code) << error.description();
    ASSERT_NE(error.userInfo().stringForKey(qn::NSFilePathErrorKey), nullptr)
        << error.description();
    EXPECT_EQ(*error.userInfo().stringForKey(qn::NSFilePathErrorKey), path);
    ASSERT_NE(error.underlyingError(), nullptr) << error.description();
    EXPECT_EQ(error.underlyingError()->code(), errnoValue) << error.description();
}

// Items a delegate saw, as absolute strings (so that directories show their trailing "/").
struct Recorded {
    std::vector<std::string> items;
    std::vector<std::string> seconds;
};

// A QNFileManagerDelegate that records every question and declines the items named in `declined`
// (paths relative to `root`).
std::shared_ptr<QNFileManagerDelegate> recordingDelegate(const TemporaryDirectory& root,
                                                         std::vector<std::string> declined,
                                                         Recorded* recorded) {
    return std::make_shared<QNFileManagerDelegate>(
        [&root, declined, recorded](const qn::URL& item, const qn::URL& second, bool& proceed) {
            recorded->items.push_back(item.absoluteString());
            recorded->seconds.push_back(second.absoluteString());
            for (const std::string& name : declined) {
                if (item.path() == root.pathOf(name)) {
                    proceed = false;
                }
            }
        });
}

class FileManagerTest : public ::testing::Test {
protected:
    // "a/" names the directory URL of "a".
    std::string url(std::string_view relative) const {
        return dir.urlOf(relative, relative.ends_with('/')).absoluteString();
    }

    TemporaryDirectory dir;
    std::shared_ptr<qn::FileManager> manager = std::make_shared<qn::PosixFileManager>();
    qn::Error error;
};

TEST_F(FileManagerTest, AttributesAgreeWithStatAndDoNotFollowAFinalLink) {
    const std::string file = dir.write("doc.txt", "hello");
    ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
    dir.symlink("link", "doc.txt");
    dir.mkdir("folder");
    dir.symlink("folderLink", "folder");
    dir.symlink("dangling", "nowhere");

    const auto attributes = manager->attributesOfItemAtPath(file, &error);
    ASSERT_TRUE(attributes) << error.description();
    const struct stat status = dir.status("doc.txt");
    EXPECT_EQ(valueOf(*attributes, qn::NSFileType), qn::Value(qn::NSFileTypeRegular));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileSize), qn::Value(std::uint64_t{5}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFilePosixPermissions), qn::Value(std::int64_t{0640}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileModificationDate),
              qn::Value(qn::Date::fromTimespec(status.st_mtim)));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileOwnerAccountID),
              qn::Value(std::uint64_t{status.st_uid}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileGroupOwnerAccountID),
              qn::Value(std::uint64_t{status.st_gid}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileReferenceCount),
              qn::Value(std::uint64_t{status.st_nlink}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileSystemNumber),
              qn::Value(std::uint64_t{status.st_dev}));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileSystemFileNumber),
              qn::Value(std::uint64_t{status.st_ino}));
    if (const struct passwd* user = ::getpwuid(status.st_uid)) {
        EXPECT_EQ(valueOf(*attributes, qn::NSFileOwnerAccountName),
                  qn::Value(std::string(user->pw_name)));
    }
    if (const qn::Date* created = attributes->dateForKey(qn::NSFileCreationDate)) {
        EXPECT_LE(*created, *attributes->dateForKey(qn::NSFileModificationDate));
    }

    const auto link = manager->attributesOfItemAtPath(dir.pathOf("link"));
    ASSERT_TRUE(link);
    EXPECT_EQ(valueOf(*link, qn::NSFileType), qn::Value(qn::NSFileTypeSymbolicLink));
    EXPECT_EQ(valueOf(*link, qn::NSFileSize), qn::Value(std::uint64_t{7}));  // "doc.txt"
    EXPECT_EQ(valueOf(*manager->attributesOfItemAtPath(dir.pathOf("folder")), qn::NSFileType),
              qn::Value(qn::NSFileTypeDirectory));

    // Existence, by contrast, follows the link.
    bool isDirectory = true;
    EXPECT_TRUE(manager->fileExistsAtPath(dir.pathOf("link"), &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_TRUE(manager->fileExistsAtPath(dir.pathOf("folderLink"), &isDirectory));
    EXPECT_TRUE(isDirectory);
    EXPECT_FALSE(manager->fileExistsAtPath(dir.pathOf("dangling"), &isDirectory));
    EXPECT_FALSE(isDirectory);
}

TEST_F(FileManagerTest, FailuresMapToCocoaCodesByErrnoAndDirection) {
    dir.write("file", "x");
    const std::string missing = dir.pathOf("missing");
    const std::string throughFile = dir.pathOf("file/child");
    for (const auto& [path, errnoValue] : {std::pair{missing, ENOENT}, {throughFile, ENOTDIR}}) {
        SCOPED_TRACE(path);
        const qn::URL itemURL = qn::URL::fileURLWithPath(path, false);
        // Reading.
        EXPECT_FALSE(manager->attributesOfItemAtPath(path, &error));
        expectFileError(error, qn::NSFileReadNoSuchFileError, errnoValue, path);
        EXPECT_FALSE(manager->contentsOfDirectoryAtPath(path, &error));
        expectFileError(error, qn::NSFileReadNoSuchFileError, errnoValue, path);
        EXPECT_FALSE(manager->resourceValue(itemURL, qn::NSURLIsDirectoryKey, &error));
        expectFileError(error, qn::NSFileReadNoSuchFileError, errnoValue, path);
        EXPECT_EQ(valueOf(error.userInfo(), qn::NSURLErrorKey), qn::Value(itemURL));
        EXPECT_FALSE(manager->copyItemAtURL(itemURL, dir.urlOf("copy"), &error));
        expectFileError(error, qn::NSFileReadNoSuchFileError, errnoValue, path);
        // Writing.
        EXPECT_FALSE(manager->removeItemAtURL(itemURL, &error));
        expectFileError(error, qn::NSFileNoSuchFileError, errnoValue, path);
        EXPECT_FALSE(manager->moveItemAtURL(itemURL, dir.urlOf("moved"), &error));
        expectFileError(error, qn::NSFileNoSuchFileError, errnoValue, path);
        EXPECT_FALSE(manager->setAttributes({{qn::NSFilePosixPermissions, 0600}}, path, &error));
        expectFileError(error, qn::NSFileNoSuchFileError, errnoValue, path);
    }
    EXPECT_FALSE(manager->createDirectoryAtURL(dir.urlOf("file/a/b"), true, nullptr, &error));
    expectFileError(error, qn::NSFileNoSuchFileError, ENOTDIR, dir.pathOf("file/a/b"));

    // Listing something that exists but is no directory is another failure than a missing one.
    EXPECT_FALSE(manager->contentsOfDirectoryAtPath(dir.pathOf("file"), &error));
    expectFileError(error, qn::NSFileReadUnknownError, ENOTDIR, dir.pathOf("file"));
    EXPECT_FALSE(manager->subpathsOfDirectoryAtPath(dir.pathOf("file"), &error));
    expectFileError(error, qn::NSFileReadUnknownError, ENOTDIR, dir.pathOf("file"));

    const std::string longName = dir.pathOf(std::string(300, 'n'));
    EXPECT_FALSE(manager->attributesOfItemAtPath(longName, &error));
    expectFileError(error, qn::NSFileReadInvalidFileNameError, ENAMETOOLONG, longName);
    EXPECT_FALSE(manager->createDirectoryAtURL(qn::URL::fileURLWithPath(longName, true), false,
                                               nullptr, &error));
    expectFileError(error, qn::NSFileWriteInvalidFileNameError, ENAMETOOLONG, longName);
}

TEST_F(FileManagerTest, SetAttributesAppliesKnownKeysAndChangesNothingOnABadValue) {
    const std::string file = dir.write("doc", "x");
    const struct stat before = dir.status("doc");
    const qn::Date date = qn::Date::fromTimeIntervalSince1970(1'000'000'000.25);
    ASSERT_TRUE(manager->setAttributes({{qn::NSFilePosixPermissions, 0600},
                                        {qn::NSFileModificationDate, date},
                                        {"NSFileExtensionHidden", true}},
                                       file, &error))
        << error.description();
    struct stat after = dir.status("doc");
    EXPECT_EQ(after.st_mode & 07777, 0600u);
    EXPECT_EQ(qn::Date::fromTimespec(after.st_mtim), date);
    EXPECT_EQ(after.st_atim.tv_sec, before.st_atim.tv_sec);
    EXPECT_EQ(after.st_atim.tv_nsec, before.st_atim.tv_nsec);
    if (::geteuid() == 0) {
        ASSERT_TRUE(manager->setAttributes(
            {{qn::NSFileOwnerAccountID, 1234u}, {qn::NSFileGroupOwnerAccountID, 4321u}}, file,
            &error))
            << error.description();
        EXPECT_EQ(dir.status("doc").st_uid, 1234u);
        EXPECT_EQ(dir.status("doc").st_gid, 4321u);
    }

    for (const qn::Dictionary& bad : {
             qn::Dictionary{{qn::NSFilePosixPermissions, "0644"},
                            {qn::NSFileModificationDate, qn::Date()}},
             qn::Dictionary{{qn::NSFilePosixPermissions, 010000}},
             qn::Dictionary{{qn::NSFileOwnerAccountID, -1}},
             qn::Dictionary{{qn::NSFileModificationDate, 5}},
         }) {
        SCOPED_TRACE(bad.description());
        error = qn::Error();
        EXPECT_FALSE(manager->setAttributes(bad, file, &error));
        EXPECT_EQ(error.code(), qn::NSFileWriteUnknownError);
        EXPECT_THAT(error.localizedDescription(), ::testing::HasSubstr("must be"));
    }
    after = dir.status("doc");
    EXPECT_EQ(after.st_mode & 07777, 0600u);
    EXPECT_EQ(qn::Date::fromTimespec(after.st_mtim), date);
}

TEST_F(FileManagerTest, LoadAttributesReadsLinkDestinationsAndToleratesDanglingLinks) {
    dir.write("target", "12345678");
    dir.symlink("link", "target");
    dir.symlink("dangling", "nowhere");
    qn::Dictionary attributes;
    qn::Dictionary destination{{"stale", 1}};

    ASSERT_TRUE(
        manager->loadAttributesOfItemAtPath(dir.pathOf("link"), &attributes, &destination, &error))
        << error.description();
    EXPECT_EQ(valueOf(attributes, qn::NSFileType), qn::Value(qn::NSFileTypeSymbolicLink));
    EXPECT_EQ(valueOf(destination, qn::NSFileType), qn::Value(qn::NSFileTypeRegular));
    EXPECT_EQ(valueOf(destination, qn::NSFileSize), qn::Value(std::uint64_t{8}));
    EXPECT_FALSE(destination.contains("stale"));

    ASSERT_TRUE(manager->loadAttributesOfItemAtPath(dir.pathOf("dangling"), &attributes,
                                                    &destination, &error));
    EXPECT_EQ(valueOf(attributes, qn::NSFileType), qn::Value(qn::NSFileTypeSymbolicLink));
    EXPECT_TRUE(destination.empty());

    destination.set("stale", 1);
    ASSERT_TRUE(manager->loadAttributesOfItemAtPath(dir.pathOf("target"), &attributes, &destination,
                                                    &error));
    EXPECT_TRUE(destination.empty());  // Not a link: nothing stale may remain.

    EXPECT_FALSE(
        manager->loadAttributesOfItemAtPath(dir.pathOf("target"), nullptr, nullptr, &error));
    EXPECT_EQ(error.code(), qn::NSFileReadUnknownError);
    EXPECT_FALSE(
        manager->loadAttributesOfItemAtPath(dir.pathOf("missing"), &attributes, nullptr, &error));
    EXPECT_EQ(error.code(), qn::NSFileReadNoSuchFileError);
    EXPECT_TRUE(attributes.empty());
}

TEST_F(FileManagerTest, ResourceValuesDescribeTheItemItself) {
    dir.write("doc", "abc");
    dir.mkdir("folder");
    const qn::URL doc = dir.urlOf("doc");
    const qn::URL folder = dir.urlOf("folder", true);

    EXPECT_EQ(manager->resourceValue(doc, qn::NSURLFileSizeKey), qn::Value(std::uint64_t{3}));
    EXPECT_EQ(manager->resourceValue(doc, qn::NSURLIsRegularFileKey), qn::Value(true));
    EXPECT_EQ(manager->resourceValue(doc, qn::NSURLIsDirectoryKey), qn::Value(false));
    EXPECT_EQ(manager->resourceValue(doc, qn::NSURLContentModificationDateKey),
              qn::Value(qn::Date::fromTimespec(dir.status("doc").st_mtim)));
    EXPECT_EQ(manager->resourceValue(folder, qn::NSURLIsDirectoryKey), qn::Value(true));
    // No value and no error: a directory's size, the keys of ubiquitous items.
    for (const char* key : {qn::NSURLFileSizeKey, qn::NSURLUbiquitousItemIsUploadedKey,
                            qn::NSURLUbiquitousItemDownloadingStatusKey}) {
        error = qn::Error();
        EXPECT_FALSE(manager->resourceValue(folder, key, &error)) << key;
        EXPECT_FALSE(error) << key;
    }
}

TEST_F(FileManagerTest, ContentsEqualComparesTreesToTheLastByte) {
    const std::string big(200'000, 'a');
    for (const std::string side : {"left", "right"}) {
        dir.write(side + "/docs/big.bin", big);
        dir.write(side + "/docs/sub/deep.txt", "same");
        dir.symlink(side + "/docs/link", "big.bin");
        dir.mkdir(side + "/empty");
    }
    const std::string left = dir.pathOf("left");
    const std::string right = dir.pathOf("right");
    EXPECT_TRUE(manager->contentsEqualAtPath(left, right));

    std::string changed = big;
    changed[150'000] = 'b';  // Same size, difference beyond the first block.
    dir.write("right/docs/big.bin", changed);
    EXPECT_FALSE(manager->contentsEqualAtPath(left, right));
    dir.write("right/docs/big.bin", big);
    EXPECT_TRUE(manager->contentsEqualAtPath(left, right));

    dir.write("right/docs/sub/extra", "");
    EXPECT_FALSE(manager->contentsEqualAtPath(left, right));
    std::filesystem::remove(dir.pathOf("right/docs/sub/extra"));

    std::filesystem::remove(dir.pathOf("right/docs/link"));
    dir.symlink("right/docs/link", "sub/deep.txt");
    EXPECT_FALSE(manager->contentsEqualAtPath(left, right));

    EXPECT_FALSE(manager->contentsEqualAtPath(dir.pathOf("left/docs/sub"),
                                              dir.pathOf("left/docs/sub/deep.txt")));
    EXPECT_FALSE(manager->contentsEqualAtPath(left, dir.pathOf("missing")));
}

TEST_F(FileManagerTest, CreateDirectoryWithAndWithoutIntermediates) {
    const qn::Dictionary permissions{{qn::NSFilePosixPermissions, 0750}};
    EXPECT_FALSE(manager->createDirectoryAtURL(dir.urlOf("a/b/c"), false, nullptr, &error));
    expectFileError(error, qn::NSFileNoSuchFileError, ENOENT, dir.pathOf("a/b/c"));

    ASSERT_TRUE(manager->createDirectoryAtURL(dir.urlOf("a/b/c"), true, &permissions, &error))
        << error.description();
    for (const char* created : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(dir.status(created).st_mode & 07777, 0750u) << created;
    }
    EXPECT_TRUE(manager->createDirectoryAtURL(dir.urlOf("a/b"), true, nullptr, &error));
    EXPECT_FALSE(manager->createDirectoryAtURL(dir.urlOf("a/b"), false, nullptr, &error));
    expectFileError(error, qn::NSFileWriteFileExistsError, EEXIST, dir.pathOf("a/b"));

    dir.write("file", "");
    EXPECT_FALSE(manager->createDirectoryAtURL(dir.urlOf("file"), true, nullptr, &error));
    EXPECT_EQ(error.code(), qn::NSFileWriteFileExistsError);
}

TEST_F(FileManagerTest, CreateFileWritesEveryByteAndAppliesPermissions) {
    const mode_t previousMask = ::umask(022);
    const std::string contents("binary\0data", 11);
    EXPECT_TRUE(manager->createFileAtPath(dir.pathOf("new"), contents));
    EXPECT_EQ(dir.read("new"), contents);
    EXPECT_EQ(dir.status("new").st_mode & 07777, 0644u);

    const qn::Dictionary ownerOnly{{qn::NSFilePosixPermissions, 0600}};
    EXPECT_TRUE(manager->createFileAtPath(dir.pathOf("new"), "short", &ownerOnly));
    EXPECT_EQ(dir.read("new"), "short");  // Truncated, not overwritten in part.
    EXPECT_EQ(dir.status("new").st_mode & 07777, 0600u);

    EXPECT_FALSE(manager->createFileAtPath(dir.pathOf("missing/new"), "x"));
    const qn::Dictionary bad{{qn::NSFilePosixPermissions, "rw"}};
    EXPECT_FALSE(manager->createFileAtPath(dir.pathOf("other"), "x", &bad));
    EXPECT_FALSE(dir.exists("other"));
    ::umask(previousMask);
}

TEST_F(FileManagerTest, MoveNeverReplacesAnExistingItem) {
    dir.write("a", "A");
    dir.write("b", "B");
    EXPECT_FALSE(manager->moveItemAtURL(dir.urlOf("a"), dir.urlOf("b"), &error));
    expectFileError(error, qn::NSFileWriteFileExistsError, EEXIST, dir.pathOf("b"));
    EXPECT_EQ(dir.read("a"), "A");
    EXPECT_EQ(dir.read("b"), "B");

    dir.symlink("dangling", "nowhere");  // Also an item in the way.
    EXPECT_FALSE(manager->moveItemAtURL(dir.urlOf("a"), dir.urlOf("dangling"), &error));
    EXPECT_EQ(error.code(), qn::NSFileWriteFileExistsError);

    ASSERT_TRUE(manager->moveItemAtURL(dir.urlOf("a"), dir.urlOf("c"), &error))
        << error.description();
    EXPECT_FALSE(dir.exists("a"));
    EXPECT_EQ(dir.read("c"), "A");
}

TEST_F(FileManagerTest, CopyKeepsTreeShapeLinksPermissionsAndDates) {
    dir.write("src/doc.txt", "text");
    dir.write("src/sub/inner.bin", std::string(100'000, 'z'));
    dir.mkdir("src/empty");
    dir.symlink("src/link", "sub/inner.bin");
    ASSERT_TRUE(manager->setAttributes(
        {{qn::NSFilePosixPermissions, 0600}, {qn::NSFileModificationDate, qn::Date(1000.5)}},
        dir.pathOf("src/doc.txt")));
    ASSERT_TRUE(manager->setAttributes(
        {{qn::NSFilePosixPermissions, 0750}, {qn::NSFileModificationDate, qn::Date(2000.0)}},
        dir.pathOf("src/sub")));

    ASSERT_TRUE(manager->copyItemAtURL(dir.urlOf("src", true), dir.urlOf("dst"), &error))
        << error.description();
    EXPECT_TRUE(manager->contentsEqualAtPath(dir.pathOf("src"), dir.pathOf("dst")));
    EXPECT_TRUE(S_ISLNK(dir.status("dst/link").st_mode));
    for (const char* item : {"doc.txt", "sub"}) {
        const struct stat source = dir.status(std::string("src/") + item);
        const struct stat copy = dir.status(std::string("dst/") + item);
        EXPECT_EQ(copy.st_mode, source.st_mode) << item;
        EXPECT_EQ(qn::Date::fromTimespec(copy.st_mtim), qn::Date::fromTimespec(source.st_mtim))
            << item;
    }

    EXPECT_FALSE(
        manager->copyItemAtURL(dir.urlOf("src/doc.txt"), dir.urlOf("dst/doc.txt"), &error));
    expectFileError(error, qn::NSFileWriteFileExistsError, EEXIST, dir.pathOf("dst/doc.txt"));
    // Into itself: refused, and nothing is left behind.
    EXPECT_FALSE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("src/sub/again"), &error));
    EXPECT_FALSE(dir.exists("src/sub/again"));
}

TEST_F(FileManagerTest, CopyAsksTheDelegateParentFirstAndLeavesDeclinedSubtreesOut) {
    dir.write("src/a.txt", "a");
    dir.write("src/skip/deep.txt", "d");
    dir.write("src/sub/b.txt", "b");
    dir.write("src/sub/c.txt", "c");
    Recorded recorded;
    manager->setDelegate(recordingDelegate(dir, {"src/skip", "src/sub/b.txt"}, &recorded));

    ASSERT_TRUE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("dst"), &error))
        << error.description();
    EXPECT_THAT(recorded.items,
                ElementsAre(url("src/"), url("src/a.txt"), url("src/skip/"), url("src/sub/"),
                            url("src/sub/b.txt"), url("src/sub/c.txt")));
    EXPECT_THAT(recorded.seconds,
                ElementsAre(url("dst/"), url("dst/a.txt"), url("dst/skip/"), url("dst/sub/"),
                            url("dst/sub/b.txt"), url("dst/sub/c.txt")));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("dst")),
              (std::vector<std::string>{"a.txt", "sub", "sub/c.txt"}));

    // Declining the top item copies nothing, successfully.
    manager->setDelegate(recordingDelegate(dir, {"src"}, &recorded));
    EXPECT_TRUE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("none"), &error));
    EXPECT_FALSE(dir.exists("none"));
}

TEST_F(FileManagerTest, RemoveAsksAboutEverythingFirstAndKeepsWhatWasDeclined) {
    dir.write("top/a.txt", "a");
    dir.write("top/kept/inner.txt", "i");
    dir.write("top/sub/gone.txt", "g");
    dir.write("top/sub/keep.txt", "k");
    dir.write("outside/precious.txt", "p");
    dir.symlink("top/zlink", dir.pathOf("outside"));
    Recorded recorded;
    std::vector<bool> stillThere;
    const auto recorder = recordingDelegate(dir, {"top/kept", "top/sub/keep.txt"}, &recorded);
    manager->setDelegate(std::make_shared<QNFileManagerDelegate>(
        [&](const qn::URL& item, const qn::URL& second, bool& proceed) {
            stillThere.push_back(dir.exists("top/a.txt"));
            proceed = recorder->shouldRemoveItemAtURL(item);
            EXPECT_TRUE(second.isEmpty());
        }));

    ASSERT_TRUE(manager->removeItemAtURL(dir.urlOf("top"), &error)) << error.description();
    EXPECT_THAT(recorded.items,
                ElementsAre(url("top/"), url("top/a.txt"), url("top/kept/"), url("top/sub/"),
                            url("top/sub/gone.txt"), url("top/sub/keep.txt"), url("top/zlink")));
    EXPECT_THAT(stillThere, ::testing::Each(true));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("top")),
              (std::vector<std::string>{"kept", "kept/inner.txt", "sub", "sub/keep.txt"}));
    EXPECT_EQ(dir.read("outside/precious.txt"), "p");  // The link went, not what it points to.

    manager->setDelegate(nullptr);
    ASSERT_TRUE(manager->removeItemAtURL(dir.urlOf("top"), &error)) << error.description();
    EXPECT_FALSE(dir.exists("top"));
}

TEST_F(FileManagerTest, ReplaceSwapsInPlaceAndKeepsABackupOnlyWhenAsked) {
    dir.write("doc.txt", "old");
    ASSERT_EQ(::chmod(dir.pathOf("doc.txt").c_str(), 0600), 0);
    dir.write("staging/doc.txt", "new");
    qn::URL result;
    ASSERT_TRUE(manager->replaceItemAtURL(dir.urlOf("doc.txt"), dir.urlOf("staging/doc.txt"),
                                          "doc backup.txt", 0, &result, &error))
        << error.description();
    EXPECT_EQ(result, dir.urlOf("doc.txt"));
    EXPECT_EQ(dir.read("doc.txt"), "new");
    EXPECT_EQ(dir.status("doc.txt").st_mode & 07777, 0600u);  // The original's metadata.
    EXPECT_FALSE(dir.exists("staging/doc.txt"));
    EXPECT_FALSE(dir.exists("doc backup.txt"));

    dir.write("staging/doc.txt", "newer");
    ASSERT_EQ(::chmod(dir.pathOf("staging/doc.txt").c_str(), 0604), 0);
    dir.write("doc backup.txt", "an older backup");
    ASSERT_TRUE(manager->replaceItemAtURL(
        dir.urlOf("doc.txt"), dir.urlOf("staging/doc.txt"), "doc backup.txt",
        qn::NSFileManagerItemReplacementWithoutDeletingBackupItem |
            qn::NSFileManagerItemReplacementUsingNewMetadataOnly,
        &result, &error))
        << error.description();
    EXPECT_EQ(dir.read("doc.txt"), "newer");
    EXPECT_EQ(dir.read("doc backup.txt"), "new");
    EXPECT_EQ(dir.status("doc.txt").st_mode & 07777, 0604u);

    // Whole directories swap too, and nothing temporary is left next to them.
    dir.write("doc.rtfd/old.txt", "o");
    dir.write("staging/doc.rtfd/new.txt", "n");
    ASSERT_TRUE(manager->replaceItemAtURL(
        dir.urlOf("doc.rtfd", true), dir.urlOf("staging/doc.rtfd", true), "", 0, &result, &error))
        << error.description();
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("")),
              (std::vector<std::string>{"doc backup.txt", "doc.rtfd", "doc.rtfd/new.txt", "doc.txt",
                                        "staging"}));

    // No original: the replacement moves into place. No replacement: nothing changes.
    dir.write("staging/fresh.txt", "f");
    ASSERT_TRUE(manager->replaceItemAtURL(dir.urlOf("fresh.txt"), dir.urlOf("staging/fresh.txt"),
                                          "", 0, &result, &error))
        << error.description();
    EXPECT_EQ(dir.read("fresh.txt"), "f");
    EXPECT_FALSE(manager->replaceItemAtURL(dir.urlOf("fresh.txt"), dir.urlOf("staging/gone"), "", 0,
                                           &result, &error));
    EXPECT_EQ(error.code(), qn::NSFileNoSuchFileError);
    EXPECT_EQ(dir.read("fresh.txt"), "f");
}

TEST_F(FileManagerTest, MoveAndReplaceWorkAcrossFileSystems) {
    if (!std::filesystem::is_directory("/dev/shm")) {
        GTEST_SKIP() << "no /dev/shm";
    }
    TemporaryDirectory other("/dev/shm");
    if (other.status("").st_dev == dir.status("").st_dev) {
        GTEST_SKIP() << "/dev/shm is on the same file system as /tmp";
    }
    other.write("tree/doc.txt", "moved");
    other.symlink("tree/link", "doc.txt");
    ASSERT_EQ(::chmod(other.pathOf("tree").c_str(), 0750), 0);
    ASSERT_TRUE(manager->moveItemAtURL(other.urlOf("tree"), dir.urlOf("tree"), &error))
        << error.description();
    EXPECT_FALSE(other.exists("tree"));
    EXPECT_EQ(dir.read("tree/link"), "moved");
    EXPECT_EQ(dir.status("tree").st_mode & 07777, 0750u);

    other.write("replacement", "from elsewhere");
    ASSERT_TRUE(manager->replaceItemAtURL(dir.urlOf("tree/doc.txt"), other.urlOf("replacement"), "",
                                          0, nullptr, &error))
        << error.description();
    EXPECT_EQ(dir.read("tree/doc.txt"), "from elsewhere");
    EXPECT_FALSE(other.exists("replacement"));
    EXPECT_EQ(manager->contentsOfDirectoryAtPath(dir.pathOf("tree")),
              (std::vector<std::string>{"doc.txt", "link"}));
}

TEST_F(FileManagerTest, ListingsIncludeHiddenItemsInByteOrder) {
    for (const char* name : {"b", ".hidden", "B", "\xC3\xA9", "a/y", "a/x"}) {
        dir.write(name, "");
    }
    EXPECT_EQ(manager->contentsOfDirectoryAtPath(dir.path(), &error),
              (std::vector<std::string>{".hidden", "B", "a", "b", "\xC3\xA9"}));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.path(), &error),
              (std::vector<std::string>{".hidden", "B", "a", "a/x", "a/y", "b", "\xC3\xA9"}));
}

TEST_F(FileManagerTest, PathEnumeratorWalksPreOrderWithoutFollowingLinks) {
    dir.write("a/x", "");
    dir.write("a/y/z", "");
    dir.write("b.rtfd/inside", "");
    dir.write("c", "");
    dir.symlink("d", "a");

    auto walk = manager->enumeratorAtPath(dir.path());
    ASSERT_NE(walk, nullptr);
    std::vector<std::pair<std::string, std::size_t>> seen;
    for (qn::Value item = walk->nextObject(); !item.isNull(); item = walk->nextObject()) {
        seen.emplace_back(*item.stringValue(), walk->level());
        if (*item.stringValue() == "d") {
            EXPECT_EQ(valueOf(*walk->fileAttributes(), qn::NSFileType),
                      qn::Value(qn::NSFileTypeSymbolicLink));
        }
    }
    using Seen = std::pair<std::string, std::size_t>;
    EXPECT_THAT(
        seen, ElementsAre(Seen{"a", 1}, Seen{"a/x", 2}, Seen{"a/y", 2}, Seen{"a/y/z", 3},
                          Seen{"b.rtfd", 1}, Seen{"b.rtfd/inside", 2}, Seen{"c", 1}, Seen{"d", 1}));
    EXPECT_EQ(valueOf(*walk->directoryAttributes(), qn::NSFileSystemFileNumber),
              qn::Value(std::uint64_t{dir.status("").st_ino}));

    walk = manager->enumeratorAtPath(dir.path());
    EXPECT_EQ(walk->nextObject(), qn::Value("a"));
    walk->skipDescendants();
    EXPECT_EQ(walk->nextObject(), qn::Value("b.rtfd"));

    EXPECT_EQ(manager->enumeratorAtPath(dir.pathOf("c")), nullptr);
    EXPECT_EQ(manager->enumeratorAtPath(dir.pathOf("missing")), nullptr);
}

TEST_F(FileManagerTest, URLEnumeratorHonoursOptionsAndReportsUnreadableDirectories) {
    dir.write("a/x", "");
    dir.write("b.rtfd/inside", "");
    dir.write(".hidden/file", "");
    dir.write("c", "");
    auto urls = [&](qn::DirectoryEnumerationOptions options) {
        std::vector<std::string> result;
        for (const qn::Value& item :
             manager->enumeratorAtURL(dir.url(), {}, options, nullptr)->allObjects()) {
            result.push_back(item.urlValue()->absoluteString());
        }
        return result;
    };
    EXPECT_THAT(urls(0), ElementsAre(url(".hidden/"), url(".hidden/file"), url("a/"), url("a/x"),
                                     url("b.rtfd/"), url("b.rtfd/inside"), url("c")));
    EXPECT_THAT(urls(qn::NSDirectoryEnumerationSkipsSubdirectoryDescendants),
                ElementsAre(url(".hidden/"), url("a/"), url("b.rtfd/"), url("c")));
    EXPECT_THAT(urls(qn::NSDirectoryEnumerationSkipsPackageDescendants |
                     qn::NSDirectoryEnumerationSkipsHiddenFiles),
                ElementsAre(url("a/"), url("a/x"), url("b.rtfd/"), url("c")));

    // A directory that disappears once returned cannot be entered: the handler decides.
    for (const bool goOn : {false, true}) {
        std::vector<std::pair<std::string, std::int64_t>> reported;
        auto walk = manager->enumeratorAtURL(
            dir.url(), {}, qn::NSDirectoryEnumerationSkipsHiddenFiles,
            [&](const qn::URL& failed, const qn::Error& failure) {
                reported.emplace_back(failed.absoluteString(), failure.code());
                return goOn;
            });
        EXPECT_EQ(walk->nextObject(), qn::Value(dir.urlOf("a", true)));
        std::filesystem::remove_all(dir.pathOf("a"));
        const qn::Value next = walk->nextObject();
        EXPECT_EQ(next, goOn ? qn::Value(dir.urlOf("b.rtfd", true)) : qn::Value());
        EXPECT_THAT(reported, ElementsAre(std::pair{url("a/"), qn::NSFileReadNoSuchFileError}));
        dir.write("a/x", "");
    }

    std::vector<std::string> reported;
    auto missing = manager->enumeratorAtURL(dir.urlOf("missing", true), {}, 0,
                                            [&](const qn::URL& failed, const qn::Error&) {
                                                reported.push_back(failed.absoluteString());
                                                return true;
                                            });
    ASSERT_NE(missing, nullptr);
    EXPECT_TRUE(missing->nextObject().isNull());
    EXPECT_TRUE(missing->nextObject().isNull());
    EXPECT_THAT(reported, ElementsAre(url("missing/")));
}

TEST_F(FileManagerTest, UbiquityCallsAnswerAsAMachineWithoutAnAccount) {
    dir.write("doc", "");
    EXPECT_FALSE(manager->ubiquityIdentityToken());
    EXPECT_FALSE(manager->URLForUbiquityContainerIdentifier("iCloud.com.example.app"));
    EXPECT_FALSE(manager->startDownloadingUbiquitousItemAtURL(dir.urlOf("doc"), &error));
    EXPECT_EQ(error.code(), qn::NSUbiquitousFileUnavailableError);
    error = qn::Error();
    EXPECT_FALSE(manager->evictUbiquitousItemAtURL(dir.urlOf("doc"), &error));
    EXPECT_EQ(error.code(), qn::NSUbiquitousFileUnavailableError);
}

TEST_F(FileManagerTest, OneManagerServesSeveralThreadsWhileItsDelegateChanges) {
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int worker = 0; worker < 4; ++worker) {
        workers.emplace_back([&, worker] {
            const std::string base = "w" + std::to_string(worker);
            for (int round = 0; round < 25; ++round) {
                const bool ok =
                    manager->createDirectoryAtURL(dir.urlOf(base + "/tree/sub"), true) &&
                    manager->createFileAtPath(dir.pathOf(base + "/tree/sub/f"), "data") &&
                    manager->copyItemAtURL(dir.urlOf(base + "/tree"), dir.urlOf(base + "/copy")) &&
                    manager->contentsEqualAtPath(dir.pathOf(base + "/tree"),
                                                 dir.pathOf(base + "/copy")) &&
                    manager->removeItemAtURL(dir.urlOf(base));
                failures += ok ? 0 : 1;
            }
        });
    }
    std::thread changer([&] {
        const auto everything = std::make_shared<QNFileManagerDelegate>();
        while (!done) {
            manager->setDelegate(everything);
            manager->setDelegate(nullptr);
        }
    });
    for (std::thread& worker : workers) {
        worker.join();
    }
    done = true;
    changer.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
