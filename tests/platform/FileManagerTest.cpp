#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/FileTreeOperations.h"
#include "qn/FileAttributes.h"
#include "qn/PosixFileManager.h"
#include "qn/util/QNFileManagerDelegate.h"
#include "support/TemporaryDirectory.h"

namespace {

using qn::test::TemporaryDirectory;
using ::testing::ElementsAre;
using Strings = std::vector<std::string>;

qn::Value valueOf(const qn::Dictionary& dictionary, std::string_view key) {
    const qn::Value* value = dictionary.find(key);
    return value != nullptr ? *value : qn::Value();
}

class FileManagerTest : public ::testing::Test {
protected:
    // "a/" names the directory URL of "a".
    std::string url(std::string_view relative) const {
        return dir.urlOf(relative, relative.ends_with('/')).absoluteString();
    }
    mode_t permissions(std::string_view relative) const {
        return dir.status(relative).st_mode & 07777;
    }
    // The contents and permissions of the file `relative`, as in "text 644".
    std::string file(std::string_view relative) const {
        return dir.read(relative) + " " + fmt::format("{:o}", permissions(relative));
    }

    // Whether a call failed with what callers rely on: the Cocoa code and, when given, the errno
    // underneath and the path. Clears the error, so that the next check sees only its own call's.
    template <class Result>
    testing::AssertionResult failed(const Result& result, std::int64_t code, int errnoValue = 0,
                                    std::string_view path = {}) {
        const qn::Error seen = std::exchange(error, qn::Error());
        const auto underlying = seen.underlyingError();
        const bool matches =
            !result && seen.domain() == qn::NSCocoaErrorDomain && seen.code() == code &&
            (errnoValue == 0 || (underlying && underlying->code() == errnoValue)) &&
            (path.empty() || valueOf(seen.userInfo(), qn::NSFilePathErrorKey) == qn::Value(path));
        return matches ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << seen.description();
    }

    // Sets a delegate that records each item it is asked about and where it would go (as absolute
    // strings, so that directories show their trailing "/"), and declines the items named.
    void recordDelegateCalls(Strings declined, std::function<void()> onEach = nullptr) {
        manager->setDelegate(std::make_shared<QNFileManagerDelegate>(
            [=, this](const qn::URL& item, const qn::URL& second, bool& proceed) {
                asked.push_back(item.absoluteString());
                seconds.push_back(second.absoluteString());
                proceed = std::ranges::none_of(declined, [&](const std::string& name) {
                    return item.path() == dir.pathOf(name);
                });
                if (onEach) {
                    onEach();
                }
            }));
    }

    TemporaryDirectory dir;
    std::shared_ptr<qn::FileManager> manager = std::make_shared<qn::PosixFileManager>();
    qn::Error error;
    Strings asked;
    Strings seconds;
};

// The size, permissions and modification date (as attributes) and the size, date and
// directory flag (as resource values) reach the presenter tests and the synchronisation test
// exactly; the rest is here.
TEST_F(FileManagerTest, AttributesAndResourceValuesDescribeTheItemItself) {
    const std::string file = dir.write("doc.txt", "hello");
    dir.symlink("link", "doc.txt");
    dir.symlink("folderLink", dir.mkdir("folder"));
    dir.symlink("dangling", "nowhere");

    const auto attributes = manager->attributesOfItemAtPath(file, &error);
    ASSERT_TRUE(attributes) << error.description();
    EXPECT_EQ(valueOf(*attributes, qn::NSFileType), qn::Value(qn::NSFileTypeRegular));
    EXPECT_EQ(valueOf(*attributes, qn::NSFileOwnerAccountID),
              qn::Value(std::uint64_t{dir.status("doc.txt").st_uid}));
    // A link's attributes are its own; loading also reads what it points to, and never leaves
    // stale destination attributes.
    EXPECT_EQ(valueOf(manager->attributesOfItemAtPath(dir.pathOf("link")).value(), qn::NSFileType),
              qn::Value(qn::NSFileTypeSymbolicLink));
    qn::Dictionary loaded;
    qn::Dictionary destination{{"stale", 1}};
    auto load = [&](std::string_view name, qn::Dictionary* attributes, qn::Dictionary* linked) {
        return manager->loadAttributesOfItemAtPath(dir.pathOf(name), attributes, linked, &error);
    };
    ASSERT_TRUE(load("link", &loaded, &destination)) << error.description();
    EXPECT_EQ(valueOf(loaded, qn::NSFileType), qn::Value(qn::NSFileTypeSymbolicLink));
    EXPECT_EQ(valueOf(loaded, qn::NSFileSize), qn::Value(std::uint64_t{7}));  // "doc.txt"
    EXPECT_EQ(valueOf(destination, qn::NSFileSize), qn::Value(std::uint64_t{5}));
    EXPECT_FALSE(destination.contains("stale"));
    for (const char* notALink : {"dangling", "doc.txt"}) {
        destination.set("stale", 1);
        ASSERT_TRUE(load(notALink, &loaded, &destination)) << error.description();
        EXPECT_TRUE(destination.empty()) << notALink;
    }
    EXPECT_TRUE(failed(load("doc.txt", nullptr, nullptr), qn::NSFileReadUnknownError));
    EXPECT_TRUE(failed(load("missing", &loaded, nullptr), qn::NSFileReadNoSuchFileError));
    EXPECT_TRUE(loaded.empty());

    for (const auto& [name, key, value] :
         {std::tuple{"doc.txt", qn::NSURLIsRegularFileKey, qn::Value(true)},
          {"folderLink", qn::NSURLIsDirectoryKey, false}}) {
        EXPECT_EQ(manager->resourceValue(dir.urlOf(name), key), value) << name << " " << key;
    }
    // No value and no error: a directory's size, a key nobody knows.
    for (const char* key : {qn::NSURLFileSizeKey, "NSURLNoSuchKey"}) {
        EXPECT_FALSE(manager->resourceValue(dir.urlOf("folder"), key, &error)) << key;
        EXPECT_FALSE(error) << key;
    }

    // Existence, by contrast, follows the link.
    for (const auto& [name, exists, isDirectory] : {std::tuple{"link", true, false},
                                                    {"folderLink", true, true},
                                                    {"dangling", false, false}}) {
        bool seenDirectory = !isDirectory;
        EXPECT_EQ(manager->fileExistsAtPath(dir.pathOf(name), &seenDirectory), exists) << name;
        EXPECT_EQ(seenDirectory, isDirectory) << name;
    }
}

TEST_F(FileManagerTest, FailuresMapToCocoaCodesByErrnoAndDirection) {
    dir.write("file", "x");
    for (const auto& [path, errnoValue] :
         {std::pair{dir.pathOf("missing"), ENOENT}, {dir.pathOf("file/child"), ENOTDIR}}) {
        SCOPED_TRACE(path);
        const qn::URL item = qn::URL::fileURLWithPath(path, false);
        const auto reading = qn::NSFileReadNoSuchFileError;
        EXPECT_TRUE(
            failed(manager->attributesOfItemAtPath(path, &error), reading, errnoValue, path));
        EXPECT_TRUE(
            failed(manager->contentsOfDirectoryAtPath(path, &error), reading, errnoValue, path));
        EXPECT_TRUE(failed(manager->copyItemAtURL(item, dir.urlOf("copy"), &error), reading,
                           errnoValue, path));
        const auto value = manager->resourceValue(item, qn::NSURLIsDirectoryKey, &error);
        EXPECT_EQ(valueOf(error.userInfo(), qn::NSURLErrorKey), qn::Value(item));
        EXPECT_TRUE(failed(value, reading, errnoValue, path));

        const auto writing = qn::NSFileNoSuchFileError;
        EXPECT_TRUE(failed(manager->removeItemAtURL(item, &error), writing, errnoValue, path));
        EXPECT_TRUE(failed(manager->moveItemAtURL(item, dir.urlOf("moved"), &error), writing,
                           errnoValue, path));
        EXPECT_TRUE(
            failed(manager->setAttributes({{qn::NSFilePosixPermissions, 0600}}, path, &error),
                   writing, errnoValue, path));
    }

    // Listing something that exists but is no directory is another failure than a missing one.
    EXPECT_TRUE(failed(manager->contentsOfDirectoryAtPath(dir.pathOf("file"), &error),
                       qn::NSFileReadUnknownError, ENOTDIR, dir.pathOf("file")));

    const std::string longName = dir.pathOf(std::string(300, 'n'));
    EXPECT_TRUE(failed(manager->attributesOfItemAtPath(longName, &error),
                       qn::NSFileReadInvalidFileNameError, ENAMETOOLONG, longName));
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
    for (const qn::Dictionary& bad : {
             qn::Dictionary{{qn::NSFilePosixPermissions, "0644"},
                            {qn::NSFileModificationDate, qn::Date()}},
             qn::Dictionary{{qn::NSFileOwnerAccountID, -1}},
             qn::Dictionary{{qn::NSFileModificationDate, 5}},
         }) {
        const bool applied = manager->setAttributes(bad, file, &error);
        EXPECT_THAT(error.localizedDescription(), ::testing::HasSubstr("must be"));
        EXPECT_TRUE(failed(applied, qn::NSFileWriteUnknownError)) << bad.description();
    }
    const struct stat after = dir.status("doc");  // As set first, whatever came after.
    EXPECT_EQ(after.st_mode & 07777, 0600u);
    EXPECT_EQ(qn::Date::fromTimespec(after.st_mtim), date);
    EXPECT_EQ(qn::Date::fromTimespec(after.st_atim), qn::Date::fromTimespec(before.st_atim));
}

TEST_F(FileManagerTest, ContentsEqualComparesTreesToTheLastByte) {
    const std::string big(200'000, 'a');
    for (const std::string side : {"left", "right"}) {
        dir.write(side + "/docs/big.bin", big);
        dir.write(side + "/docs/sub/deep.txt", "same");
        dir.symlink(side + "/docs/link", "big.bin");
        dir.mkdir(side + "/empty");
    }
    auto equal = [&] {
        return manager->contentsEqualAtPath(dir.pathOf("left"), dir.pathOf("right"));
    };
    EXPECT_TRUE(equal());
    std::string changed = big;
    changed[150'000] = 'b';  // Same size, difference beyond the first block.
    dir.write("right/docs/big.bin", changed);
    EXPECT_FALSE(equal());
    dir.write("right/docs/big.bin", big);
    dir.write("right/docs/sub/extra", "");
    EXPECT_FALSE(equal());
    std::filesystem::remove(dir.pathOf("right/docs/sub/extra"));
    EXPECT_TRUE(equal());
    std::filesystem::remove(dir.pathOf("right/docs/link"));
    dir.symlink("right/docs/link", "sub/deep.txt");
    EXPECT_FALSE(equal());

    EXPECT_FALSE(manager->contentsEqualAtPath(dir.pathOf("left"), dir.pathOf("missing")));
}

TEST_F(FileManagerTest, CreatingAndMovingNeverReplaceAnExistingItem) {
    const qn::Dictionary mode0750{{qn::NSFilePosixPermissions, 0750}};
    EXPECT_TRUE(failed(manager->createDirectoryAtURL(dir.urlOf("a/b/c"), false, nullptr, &error),
                       qn::NSFileNoSuchFileError, ENOENT, dir.pathOf("a/b/c")));
    ASSERT_TRUE(manager->createDirectoryAtURL(dir.urlOf("a/b/c"), true, &mode0750, &error))
        << error.description();
    for (const char* created : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(permissions(created), 0750u) << created;
    }
    EXPECT_TRUE(manager->createDirectoryAtURL(dir.urlOf("a/b"), true, nullptr, &error));
    EXPECT_TRUE(failed(manager->createDirectoryAtURL(dir.urlOf("a/b"), false, nullptr, &error),
                       qn::NSFileWriteFileExistsError, EEXIST, dir.pathOf("a/b")));
    dir.write("file", "");
    EXPECT_TRUE(failed(manager->createDirectoryAtURL(dir.urlOf("file"), true, nullptr, &error),
                       qn::NSFileWriteFileExistsError));

    // Files are written whole, truncated when they exist, and honour the umask by default.
    const mode_t previousMask = ::umask(022);
    const std::string contents("binary\0data", 11);
    EXPECT_TRUE(manager->createFileAtPath(dir.pathOf("new"), contents));
    EXPECT_EQ(file("new"), contents + " 644");
    const qn::Dictionary ownerOnly{{qn::NSFilePosixPermissions, 0600}};
    EXPECT_TRUE(manager->createFileAtPath(dir.pathOf("new"), "short", &ownerOnly));
    EXPECT_EQ(file("new"), "short 600");
    ::umask(previousMask);
    // A replaced file keeps its mode and a link to it stays. A write that runs out of room (the
    // file size limit here) leaves the old file whole and nothing beside it.
    dir.symlink("link", "new");
    EXPECT_TRUE(manager->createFileAtPath(dir.pathOf("link"), "short"));
    EXPECT_TRUE(S_ISLNK(dir.status("link").st_mode));
    struct rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const struct rlimit previousLimit = limit;
    limit.rlim_cur = 4096;
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(manager->createFileAtPath(dir.pathOf("new"), std::string(8192, 'x')));
    ::setrlimit(RLIMIT_FSIZE, &previousLimit);
    ::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(file("new"), "short 600");
    EXPECT_EQ(manager->contentsOfDirectoryAtPath(dir.path()),
              (Strings{"a", "file", "link", "new"}));
    EXPECT_FALSE(manager->createFileAtPath(dir.pathOf("missing/new"), "x"));
    const qn::Dictionary bad{{qn::NSFilePosixPermissions, "rw"}};
    EXPECT_FALSE(manager->createFileAtPath(dir.pathOf("other"), "x", &bad));
    EXPECT_FALSE(dir.exists("other"));

    auto moveNewTo = [&](const char* path) {
        return manager->moveItemAtURL(dir.urlOf("new"), dir.urlOf(path), &error);
    };
    // An item in the way, even a dangling link, is never replaced (that a file keeps its contents
    // the conflict copies of the file version test show).
    dir.symlink("dangling", "nowhere");
    EXPECT_TRUE(failed(moveNewTo("dangling"), qn::NSFileWriteFileExistsError, EEXIST,
                       dir.pathOf("dangling")));
    ASSERT_TRUE(moveNewTo("c")) << error.description();
    EXPECT_EQ(dir.read("c"), "short");
    EXPECT_FALSE(dir.exists("new"));
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
    for (const std::string item : {"doc.txt", "sub"}) {
        const struct stat source = dir.status("src/" + item);
        const struct stat copy = dir.status("dst/" + item);
        EXPECT_EQ(copy.st_mode, source.st_mode) << item;
        EXPECT_EQ(qn::Date::fromTimespec(copy.st_mtim), qn::Date::fromTimespec(source.st_mtim))
            << item;
    }

    EXPECT_TRUE(
        failed(manager->copyItemAtURL(dir.urlOf("src/doc.txt"), dir.urlOf("dst/doc.txt"), &error),
               qn::NSFileWriteFileExistsError, EEXIST, dir.pathOf("dst/doc.txt")));
    // Into itself: refused, and nothing is left behind.
    EXPECT_FALSE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("src/sub/again"), &error));
    EXPECT_FALSE(dir.exists("src/sub/again"));
}

TEST_F(FileManagerTest, AFailedCopyRemovesWhatItCopiedIntoReadOnlyDirectories) {
    // Permissions do not stop root, so the copy runs as nobody in a child process.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::geteuid() == 0 && (::chown(dir.path().c_str(), 65534, 65534) != 0 ||
                                 ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(77);
        }
        const qn::Dictionary readOnly{{qn::NSFilePosixPermissions, 0555}};
        const qn::Dictionary unreadable{{qn::NSFilePosixPermissions, 0}};
        // "ro" is copied whole, with its mode, before "z" cannot be read.
        const bool prepared = manager->createDirectoryAtURL(dir.urlOf("src/ro"), true, nullptr) &&
                              manager->createFileAtPath(dir.pathOf("src/ro/file"), "x") &&
                              manager->setAttributes(readOnly, dir.pathOf("src/ro")) &&
                              manager->createFileAtPath(dir.pathOf("src/z"), "x", &unreadable);
        const bool copied = prepared && manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("dst"));
        ::_exit(!prepared ? 2 : copied ? 3 : dir.exists("dst") ? 4 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "cannot switch to another user";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(FileManagerTest, UndoingACopyAtTheSourceLeavesWhatAWriterAddedOrReplaced) {
    for (const char* name : {"src/a", "src/replaced", "src/sub/b"}) {
        dir.write(name, "x");
    }
    std::vector<qn::CopiedItem> copied;
    ASSERT_TRUE(qn::copyItemTree(dir.urlOf("src"), dir.urlOf("dst"), nullptr, &error, &copied))
        << error.description();
    dir.write("src/sub/new", "n");
    dir.write("replacement", "r");
    std::filesystem::rename(dir.pathOf("replacement"), dir.pathOf("src/replaced"));
    EXPECT_TRUE(
        failed(qn::removeCopiedItems(dir.pathOf("src"), copied, qn::CopySide::Source, &error),
               qn::NSFileWriteUnknownError, ENOTEMPTY, dir.pathOf("src/sub")));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("src")),
              (Strings{"replaced", "sub", "sub/new"}));
    EXPECT_EQ(dir.read("src/replaced"), "r");
}

TEST_F(FileManagerTest, CopyAsksTheDelegateParentFirstAndLeavesDeclinedSubtreesOut) {
    for (const char* name : {"src/a.txt", "src/skip/deep.txt", "src/sub/b.txt", "src/sub/c.txt"}) {
        dir.write(name, "x");
    }
    recordDelegateCalls({"src/skip", "src/sub/b.txt"});
    ASSERT_TRUE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("dst"), &error))
        << error.description();
    EXPECT_THAT(asked, ElementsAre(url("src/"), url("src/a.txt"), url("src/skip/"), url("src/sub/"),
                                   url("src/sub/b.txt"), url("src/sub/c.txt")));
    EXPECT_THAT(seconds, ElementsAre(url("dst/"), url("dst/a.txt"), url("dst/skip/"),
                                     url("dst/sub/"), url("dst/sub/b.txt"), url("dst/sub/c.txt")));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("dst")),
              (Strings{"a.txt", "sub", "sub/c.txt"}));

    // Declining the top item copies nothing, successfully.
    recordDelegateCalls({"src"});
    EXPECT_TRUE(manager->copyItemAtURL(dir.urlOf("src"), dir.urlOf("none"), &error));
    EXPECT_FALSE(dir.exists("none"));
}

TEST_F(FileManagerTest, RemoveAsksAboutEverythingFirstAndKeepsWhatWasDeclined) {
    for (const char* name : {"top/a.txt", "top/kept/inner.txt", "top/sub/gone.txt",
                             "top/sub/keep.txt", "outside/precious.txt"}) {
        dir.write(name, "x");
    }
    dir.symlink("top/zlink", dir.pathOf("outside"));
    std::vector<bool> stillThere;
    recordDelegateCalls({"top/kept", "top/sub/keep.txt"},
                        [&] { stillThere.push_back(dir.exists("top/a.txt")); });

    ASSERT_TRUE(manager->removeItemAtURL(dir.urlOf("top"), &error)) << error.description();
    EXPECT_THAT(asked,
                ElementsAre(url("top/"), url("top/a.txt"), url("top/kept/"), url("top/sub/"),
                            url("top/sub/gone.txt"), url("top/sub/keep.txt"), url("top/zlink")));
    EXPECT_THAT(seconds, ::testing::Each(""));
    EXPECT_THAT(stillThere, ::testing::Each(true));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.pathOf("top")),
              (Strings{"kept", "kept/inner.txt", "sub", "sub/keep.txt"}));
    EXPECT_EQ(dir.read("outside/precious.txt"), "x");  // The link went, not what it points to.

    manager->setDelegate(nullptr);
    ASSERT_TRUE(manager->removeItemAtURL(dir.urlOf("top"), &error)) << error.description();
    EXPECT_FALSE(dir.exists("top"));
}

TEST_F(FileManagerTest, ReplaceSwapsInPlaceAndKeepsABackupOnlyWhenAsked) {
    qn::URL result;
    auto replace = [&](std::string_view original, std::string_view replacement,
                       std::string_view backupName, qn::ItemReplacementOptions options = 0) {
        return manager->replaceItemAtURL(dir.urlOf(original), dir.urlOf(replacement), backupName,
                                         options, &result, &error);
    };
    dir.write("doc.txt", "old");
    ASSERT_EQ(::chmod(dir.pathOf("doc.txt").c_str(), 0600), 0);
    dir.write("staging/doc.txt", "new");
    ASSERT_TRUE(replace("doc.txt", "staging/doc.txt", "doc backup.txt")) << error.description();
    EXPECT_EQ(result, dir.urlOf("doc.txt"));
    EXPECT_EQ(file("doc.txt"), "new 600");  // The original's metadata.
    EXPECT_FALSE(dir.exists("staging/doc.txt"));
    EXPECT_FALSE(dir.exists("doc backup.txt"));

    dir.write("staging/doc.txt", "newer");
    ASSERT_EQ(::chmod(dir.pathOf("staging/doc.txt").c_str(), 0604), 0);
    dir.write("doc backup.txt", "an older backup");
    ASSERT_TRUE(replace("doc.txt", "staging/doc.txt", "doc backup.txt",
                        qn::NSFileManagerItemReplacementWithoutDeletingBackupItem |
                            qn::NSFileManagerItemReplacementUsingNewMetadataOnly))
        << error.description();
    EXPECT_EQ(file("doc.txt"), "newer 604");
    EXPECT_EQ(dir.read("doc backup.txt"), "new");

    // Whole directories swap too, and nothing temporary is left next to them.
    dir.write("doc.rtfd/old.txt", "o");
    dir.write("staging/doc.rtfd/new.txt", "n");
    ASSERT_TRUE(replace("doc.rtfd", "staging/doc.rtfd", "")) << error.description();
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.path()),
              (Strings{"doc backup.txt", "doc.rtfd", "doc.rtfd/new.txt", "doc.txt", "staging"}));

    // No original: the replacement moves into place. No replacement: nothing changes.
    dir.write("staging/fresh.txt", "f");
    ASSERT_TRUE(replace("fresh.txt", "staging/fresh.txt", "")) << error.description();
    EXPECT_EQ(dir.read("fresh.txt"), "f");
    EXPECT_TRUE(failed(replace("fresh.txt", "staging/gone", ""), qn::NSFileNoSuchFileError));
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
    // Moved as a copy (which keeps what the copy test shows it keeps), then removed.
    other.write("tree/doc.txt", "moved");
    other.symlink("tree/link", "doc.txt");
    ASSERT_TRUE(manager->moveItemAtURL(other.urlOf("tree"), dir.urlOf("tree"), &error))
        << error.description();
    EXPECT_FALSE(other.exists("tree"));
    EXPECT_EQ(dir.read("tree/link"), "moved");

    other.write("replacement", "from elsewhere");
    ASSERT_TRUE(manager->replaceItemAtURL(dir.urlOf("tree/doc.txt"), other.urlOf("replacement"), "",
                                          0, nullptr, &error))
        << error.description();
    EXPECT_EQ(dir.read("tree/doc.txt"), "from elsewhere");
    EXPECT_FALSE(other.exists("replacement"));
    // The staged copy's temporary name must fit beside a name as long as this one.
    const std::string longName(240, 'l');
    dir.write("tree/" + longName, "old");
    other.write("long", "new");
    ASSERT_TRUE(manager->replaceItemAtURL(dir.urlOf("tree/" + longName), other.urlOf("long"), "", 0,
                                          nullptr, &error))
        << error.description();
    EXPECT_EQ(dir.read("tree/" + longName), "new");
    EXPECT_EQ(manager->contentsOfDirectoryAtPath(dir.pathOf("tree")),
              (Strings{"doc.txt", "link", longName}));
}

TEST_F(FileManagerTest, ListingsAndEnumeratorsGoInByteOrderAndNeverFollowLinks) {
    for (const char* name : {".hidden/file", "B", "a/x", "a/y/z", "b.rtfd/inside", "\xC3\xA9"}) {
        dir.write(name, "");
    }
    dir.symlink("d", "a");
    EXPECT_EQ(manager->contentsOfDirectoryAtPath(dir.path()),
              (Strings{".hidden", "B", "a", "b.rtfd", "d", "\xC3\xA9"}));
    EXPECT_EQ(manager->subpathsOfDirectoryAtPath(dir.path()),
              (Strings{".hidden", ".hidden/file", "B", "a", "a/x", "a/y", "a/y/z", "b.rtfd",
                       "b.rtfd/inside", "d", "\xC3\xA9"}));

    auto walk = manager->enumeratorAtPath(dir.pathOf("a"));
    ASSERT_NE(walk, nullptr);
    using Seen = std::pair<std::string, std::size_t>;
    std::vector<Seen> seen;
    for (qn::Value item = walk->nextObject(); !item.isNull(); item = walk->nextObject()) {
        seen.emplace_back(*item.stringValue(), walk->level());
    }
    EXPECT_THAT(seen, ElementsAre(Seen{"x", 1}, Seen{"y", 1}, Seen{"y/z", 2}));
    EXPECT_EQ(valueOf(*walk->directoryAttributes(), qn::NSFileSystemFileNumber),
              qn::Value(std::uint64_t{dir.status("a").st_ino}));
    walk = manager->enumeratorAtPath(dir.path());
    EXPECT_EQ(walk->nextObject(), qn::Value(".hidden"));
    walk->skipDescendants();
    EXPECT_EQ(walk->nextObject(), qn::Value("B"));
    EXPECT_EQ(manager->enumeratorAtPath(dir.pathOf("B")), nullptr);

    auto urls = [&](qn::DirectoryEnumerationOptions options) {
        Strings result;
        for (const qn::Value& item :
             manager->enumeratorAtURL(dir.url(), {}, options, nullptr)->allObjects()) {
            result.push_back(item.urlValue()->absoluteString());
        }
        return result;
    };
    EXPECT_THAT(urls(qn::NSDirectoryEnumerationSkipsSubdirectoryDescendants),
                ElementsAre(url(".hidden/"), url("B"), url("a/"), url("b.rtfd/"), url("d"),
                            url("\xC3\xA9")));
    EXPECT_THAT(urls(qn::NSDirectoryEnumerationSkipsPackageDescendants |
                     qn::NSDirectoryEnumerationSkipsHiddenFiles),
                ElementsAre(url("B"), url("a/"), url("a/x"), url("a/y/"), url("a/y/z"),
                            url("b.rtfd/"), url("d"), url("\xC3\xA9")));
}

TEST_F(FileManagerTest, URLEnumeratorLetsItsHandlerDecideAboutDirectoriesItCannotEnter) {
    dir.write("a/x", "");
    dir.mkdir("b");
    std::vector<std::pair<std::string, std::int64_t>> reported;
    auto reporting = [&](bool goOn) {
        reported.clear();
        return [&, goOn](const qn::URL& failed, const qn::Error& failure) {
            reported.emplace_back(failed.absoluteString(), failure.code());
            return goOn;
        };
    };
    // A directory that disappears once returned cannot be entered.
    for (const bool goOn : {false, true}) {
        auto walk = manager->enumeratorAtURL(dir.url(), {}, 0, reporting(goOn));
        EXPECT_EQ(walk->nextObject(), qn::Value(dir.urlOf("a", true)));
        std::filesystem::remove_all(dir.pathOf("a"));
        EXPECT_EQ(walk->nextObject(), goOn ? qn::Value(dir.urlOf("b", true)) : qn::Value());
        EXPECT_THAT(reported, ElementsAre(std::pair{url("a/"), qn::NSFileReadNoSuchFileError}));
        dir.write("a/x", "");
    }
    auto missing = manager->enumeratorAtURL(dir.urlOf("missing", true), {}, 0, reporting(true));
    EXPECT_TRUE(missing->allObjects().empty());
    EXPECT_TRUE(missing->nextObject().isNull());
    EXPECT_THAT(reported, ElementsAre(std::pair{url("missing/"), qn::NSFileReadNoSuchFileError}));
}

TEST_F(FileManagerTest, OneManagerServesSeveralThreadsWhileItsDelegateChanges) {
    std::atomic<bool> done{false};
    std::thread changer([&] {
        const auto everything = std::make_shared<QNFileManagerDelegate>();
        while (!done) {
            manager->setDelegate(everything);
            manager->setDelegate(nullptr);
        }
    });
    std::atomic<int> failures{0};
    std::vector<std::jthread> workers;
    for (const std::string base : {"w0/", "w1/", "w2/"}) {
        dir.write(base + "tree/sub/f", "data");
        workers.emplace_back([&, base] {
            for (int round = 0; round < 25; ++round) {
                const auto copy = dir.urlOf(base + "copy");
                const bool copied = manager->copyItemAtURL(dir.urlOf(base + "tree"), copy);
                failures += copied && manager->removeItemAtURL(copy) ? 0 : 1;
            }
        });
    }
    workers.clear();  // joins them
    done = true;
    changer.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
