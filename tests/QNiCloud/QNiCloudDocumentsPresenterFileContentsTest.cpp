#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/FileAttributes.h"
#include "qn/InProcessFileCoordinator.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterFileContentsTest : public PresenterFixture {
protected:
    void SetUp() override {
        PresenterFixture::SetUp();
        installCloud("user");
        presenter = makePresenter();
        ASSERT_TRUE(setupInBackground(presenter));
        documents = presenter->documentsDirectoryURL();
        log.clear();
    }
    void TearDown() override {
        FileCoordinator::setFactory(nullptr);
        presenter.reset();
        PresenterFixture::TearDown();
    }
    // Every coordinator made from now on is cancelled before use.
    static void refuseCoordination() {
        FileCoordinator::setFactory([](std::shared_ptr<FilePresenter> filePresenter) {
            auto coordinator = std::make_shared<InProcessFileCoordinator>(filePresenter);
            coordinator->cancel();
            return coordinator;
        });
    }
    // Not cached (nullopt), a cached folder (null) or a cached file's snapshot.
    std::optional<std::shared_ptr<QNiCloudMetadataItem>> cached(const URL& url) {
        const auto entry = presenter->cache()->entryForPath(url.path());
        return entry ? std::optional(entry->metadataItem()) : std::nullopt;
    }

    std::shared_ptr<QNiCloudDocumentsPresenter> presenter;
    URL documents;
};

TEST_F(QNiCloudDocumentsPresenterFileContentsTest, CreationsBuildTheirFoldersAndAreCached) {
    // Documents is taken as present, without looking.
    std::filesystem::remove(documents.path());
    EXPECT_TRUE(presenter->createDirectoryAtPath(documents.path() + "/x/..", false));
    EXPECT_FALSE(std::filesystem::exists(documents.path()));

    const URL file = documents.URLByAppendingPathComponent("a/b/new.txt");
    Dictionary attributes{{NSFilePosixPermissions, std::uint64_t{0600}}};
    ASSERT_TRUE(presenter->createFileAtURL(file, "hello", &attributes));
    EXPECT_EQ(attributes.uint64ForKey(NSFileSize), 5u);  // read back from the new file
    EXPECT_EQ(attributes.uint64ForKey(NSFilePosixPermissions), 0600u);
    EXPECT_EQ(cached(documents.URLByAppendingPathComponent("a/b")), nullptr);
    const auto item = cached(file).value_or(nullptr);
    EXPECT_TRUE(item && item->isDownloaded() && !item->isUploaded());

    // Only what a creation block says it made is cached.
    const URL made = documents.URLByAppendingPathComponent("made.txt");
    presenter->createFileAtURL(made, [](const URL& url) {
        return static_cast<bool>(std::ofstream(url.path()) << "made");
    });
    presenter->createFileAtPath(documents.path() + "/no.txt", [](const URL&) { return false; });
    EXPECT_NE(cached(made).value_or(nullptr), nullptr);
    EXPECT_FALSE(cached(documents.URLByAppendingPathComponent("no.txt")).has_value());
}

TEST_F(QNiCloudDocumentsPresenterFileContentsTest, HandlersAnswerAndFailuresReachTheErrorOut) {
    Error error(NSCocoaErrorDomain, 1);
    EXPECT_FALSE(presenter->createDirectoryAtURL(URL(), true, nullptr, &error));
    EXPECT_TRUE(log.contains(LogLevel::Error, "Failed to create directory: URL is nil."));
    EXPECT_EQ(error, Error(NSCocoaErrorDomain, 1));
    EXPECT_FALSE(presenter->createDirectoryAtURL(documents.URLByAppendingPathComponent("m/d"),
                                                 false, nullptr, &error));
    EXPECT_EQ(error.code(), NSFileNoSuchFileError);
    EXPECT_TRUE(
        log.contains(LogLevel::Error, fmt::format("Failed to create directory. Error: {}", error)));

    // Writes and reads answer what their handlers answer.
    const URL file = documents.URLByAppendingPathComponent("w.txt");
    std::string text;
    EXPECT_TRUE(presenter->writeToFileAtURL(
        file, [](const URL& url, Error*) { return !!(std::ofstream(url.path()) << "w"); }));
    EXPECT_TRUE(presenter->readFromFileAtURL(
        file, [&](const URL& url, Error*) { return !!(std::ifstream(url.path()) >> text); }));
    EXPECT_EQ(text, "w");

    refuseCoordination();
    const URL refused = documents.URLByAppendingPathComponent("r/./");
    EXPECT_FALSE(presenter->createDirectoryAtURL(refused, true, nullptr, &error));
    EXPECT_EQ(error.code(), NSUserCancelledError);
    EXPECT_TRUE(log.contains(LogLevel::Error,
                             fmt::format("Failed to coordicate directory creation at URL {}. "
                                         "Error: {}",
                                         refused.URLByStandardizingPath(), error)));

    // A handler that never ran leaves an error already stored alone.
    bool ran = false;
    const auto handler = [&](const URL&, Error*) { return ran = true; };
    error = Error(NSCocoaErrorDomain, NSFileReadCorruptFileError);
    EXPECT_FALSE(presenter->writeToFileAtURL(documents, handler, &error));
    EXPECT_EQ(error.code(), NSFileReadCorruptFileError);
    error = Error();
    EXPECT_FALSE(presenter->readFromFileAtURL(documents, handler, &error));
    EXPECT_EQ(error.code(), NSUserCancelledError);
    EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace qn::test
