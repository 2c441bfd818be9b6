#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "QNiCloud/QNiCloudMetadataItem.h"
#include "SyncFixture.h"
#include "qn/ForwardingFileManager.h"

namespace qn::test {
namespace {

constexpr Date kDay(8e8);
namespace fs = std::filesystem;

class QNiCloudDocumentsPresenterCacheUpkeepTest : public SyncFixture {
protected:
    // An initialised presenter over a downloaded "a.txt", a cloud-only "Folder/b.txt" and an
    // uploaded, not downloaded "c.pdf".
    void SetUp() override {
        SyncFixture::SetUp();
        installCloud("alice@example.com");
        cloud->setItem(documentURL("a.txt"), SimulatedItemState::downloaded("a", kDay));
        cloud->setItem(documentURL("Folder/b.txt"), SimulatedItemState::notDownloaded("b", kDay));
        cloud->setItem(documentURL("c.pdf"), SimulatedItemState::notDownloaded("c", kDay));
        startPresenter();
        initialize();
        outside = home.mkdir("Outside");
        received.clear();
    }

    std::shared_ptr<QNiCloudMetadataItem> item(std::string_view relative) {
        return presenter->metadataItemForPath(documentPath(relative));
    }

    std::string outside;
};

// Moves, copies, creations and writes of files are compared with a model by the randomized
// synchronisation test; here, what it does not do: folders and packages created in place, moves
// with neither side inside, a write to a file that is not there, and several removals at once.
TEST_F(QNiCloudDocumentsPresenterCacheUpkeepTest, LocalChangesUpdateTheCacheSilently) {
    presenter->updateCacheAfterMovingOfItemAtPath(outside + "/p", outside + "/q");
    home.write("Outside/new.txt", "n");
    presenter->updateCacheAfterCopyingOfItemAtPath(documentPath("a.txt"), outside + "/n2.txt");
    presenter->updateCacheAfterCreationOfItemAtPath(outside + "/new.txt");
    // A package gets a snapshot (not in the cloud), a plain folder none.
    fs::create_directories(documentPath("Made.pages"));
    fs::create_directories(documentPath("Made Folder/Inner"));
    presenter->updateCacheAfterCreationOfItemAtPath(documentPath("Made.pages"));
    presenter->updateCacheAfterCreationOfItemAtPath(documentPath("Made Folder/Inner"));
    EXPECT_TRUE(item("Made.pages")->isDownloaded() && !item("Made.pages")->isUploaded());
    EXPECT_EQ(item("Made Folder/Inner"), nullptr);
    EXPECT_EQ(cachedPaths(),
              (std::vector<std::string>{"Folder", "Folder/b.txt", "Made Folder",
                                        "Made Folder/Inner", "Made.pages", "a.txt", "c.pdf"}));

    // A write with no file to read the date from: no longer uploaded, the old date, logged.
    item("Folder/b.txt")->setIsUploaded(true);
    presenter->updateCacheAfterUpdateOfItemAtPath(documentPath("Folder/b.txt"));
    EXPECT_FALSE(item("Folder/b.txt")->isUploaded());
    EXPECT_EQ(item("Folder/b.txt")->fsContentChangeDate(), kDay);
    EXPECT_EQ(logCount(LogLevel::Error, fmt::format("Unable to get file {} modification date "
                                                    "after update. Error: ",
                                                    documentPath("Folder/b.txt"))),
              1u);

    presenter->updateCacheAfterRemovalOfItemsAtPaths(
        {documentPath("Made Folder"), documentPath("a.txt"), documentPath("Made.pages")});
    EXPECT_EQ(cachedPaths(), (std::vector<std::string>{"Folder", "Folder/b.txt", "c.pdf"}));
    settleMainQueue();
    EXPECT_TRUE(received.empty());
}

// A file manager that refuses evictions of one item.
class RefusingFileManager final : public ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;
    bool evictUbiquitousItemAtURL(const URL& url, Error* error) override {
        ++evictions;
        if (url.lastPathComponent() == "refused.txt") {
            setError(error, Error(NSCocoaErrorDomain, NSFileWriteNoPermissionError, {}));
            return false;
        }
        return ForwardingFileManager::evictUbiquitousItemAtURL(url, error);
    }
    int evictions = 0;
};

TEST_F(QNiCloudDocumentsPresenterCacheUpkeepTest, EvictionsStopAtTheFirstFailure) {
    const auto refusing = std::make_shared<RefusingFileManager>(FileManager::defaultManager());
    FileManager::setDefaultManager(refusing);
    EXPECT_TRUE(presenter->evictUbiquitousItemsAtURLs({}));
    Error error;
    EXPECT_FALSE(presenter->evictUbiquitousItemsAtURLs(
        {documentURL("a.txt"), documentURL("refused.txt"), documentURL("c.pdf")}, &error));
    EXPECT_EQ(error.code(), NSFileWriteNoPermissionError);
    EXPECT_EQ(refusing->evictions, 2);
    EXPECT_EQ(cloud->item(documentURL("a.txt"))->downloadingStatus,
              SimulatedDownloadingStatus::NotDownloaded);
    EXPECT_TRUE(item("a.txt")->isDownloaded());  // the cache waits for the query

    presenter->handleBrokenFileAtPath(documentPath("refused.txt"));
    EXPECT_EQ(logCount(LogLevel::Error, fmt::format("Unable to evict broken file at path {}. "
                                                    "Error: ",
                                                    documentPath("refused.txt"))),
              1u);
    FileManager::setDefaultManager(nullptr);
}

TEST_F(QNiCloudDocumentsPresenterCacheUpkeepTest, AnswersMetadataQuestions) {
    // Before initialisation a snapshot is made from the disk and the platform.
    presenter->clearCache();
    ASSERT_FALSE(presenter->cacheInitialized());
    const auto early = item("a.txt");
    ASSERT_NE(early, nullptr);
    EXPECT_TRUE(early->isDownloaded() && early->isUploaded());
    EXPECT_EQ(early->fileName(), "a.txt");
    EXPECT_FALSE(item("c.pdf")->isDownloaded());
    EXPECT_FALSE(presenter->isFileDownloadedAtPath(documentPath("c.pdf")));
    EXPECT_TRUE(presenter->isFileDownloadedAtPath(documentPath("a.txt")));
    EXPECT_TRUE(presenter->isFileDownloadedAtPath(outside + "/anything"));
    EXPECT_FALSE(presenter->isFileDownloadedAtPath(""));
    EXPECT_EQ(presenter->metadataItemForPath(outside + "/x"), nullptr);
    EXPECT_EQ(presenter->metadataItemForPath(""), nullptr);
    presenter->stopCacheQuery();
    presenter->startCacheQuery();
    ASSERT_TRUE(MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                    std::chrono::seconds(10)));
    initialize();
    presenter->ensureCacheInitialized();  // returns at once now

    // Afterwards the cache's own snapshot answers.
    EXPECT_EQ(item("missing.txt"), nullptr);
    EXPECT_FALSE(presenter->isFileDownloadedAtURL(documentURL("Folder/b.txt")));
    EXPECT_FALSE(presenter->isDirectoryDownloadedAtPath(documentPath("Folder")));
    EXPECT_FALSE(presenter->isDirectoryDownloadedAtPath(documentPath("a.txt")));  // no files
    presenter->updateMetadataItemForPath(documentPath("Folder/b.txt"), true,
                                         QNiCloudFileChangeDownloaded, true);
    EXPECT_TRUE(presenter->isDirectoryDownloadedAtURL(documentURL("Folder")));
    EXPECT_FALSE(presenter->isDirectoryDownloadedAtPath(documents));  // c.pdf

    // Each type's update is compared with a model by the randomized synchronisation test; here,
    // what it never sends: no type, an unknown one, a value of the wrong kind, an unknown path,
    // and a URL spelled with a doubled separator.
    received.clear();
    const std::string c = documentPath("c.pdf");
    presenter->updateMetadataItemForPath(c, true, QNiCloudFileChangeNone, true);
    presenter->updateMetadataItemForPath(c, true, static_cast<QNiCloudFileChangeType>(10), true);
    presenter->updateMetadataItemForPath(c, "yes", QNiCloudFileChangeDownloaded, true);
    presenter->updateMetadataItemForPath(documentPath("nothing.txt"), true,
                                         QNiCloudFileChangeDownloaded, true);
    presenter->updateMetadataItemForURL(URL::fileURLWithPath(documentPath("Folder") + "//b.txt"),
                                        50.0, QNiCloudFileChangeUploadProgress, true);
    EXPECT_EQ(fileEvents(), (std::vector<std::string>{"Folder/b.txt:6"}));
    EXPECT_FALSE(item("c.pdf")->isDownloaded());
    EXPECT_EQ(item("Folder/b.txt")->percentUploaded(), 50.0);
}

TEST_F(QNiCloudDocumentsPresenterCacheUpkeepTest, DecidesAboutAutomaticDownloads) {
    fs::create_directories(documentPath("Plain"));
    fs::create_directories(documentPath("Book.pages"));
    const auto should = [&](std::string_view relative) {
        return presenter->shouldStartDownloadForItemAtURL(documentURL(relative));
    };
    // Every file and package, no plain folder, by default.
    EXPECT_TRUE(should("x.txt") && should("Book.pages") && should("noextension"));
    EXPECT_FALSE(should("Plain"));
    presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"pdf"});
    EXPECT_TRUE(should("Report.PDF"));
    EXPECT_TRUE(should("noextension"));
    EXPECT_FALSE(should("x.txt") || should("Plain") || should("Book.pages"));

    // Only an uploaded item that is neither here nor on its way is worth fetching.
    QNiCloudMetadataItem state;
    state.setIsUploaded(true);
    EXPECT_TRUE(presenter->shouldStartDownloadForItemAtURL(documentURL("r.pdf"), &state));
    state.setIsDownloading(true);
    EXPECT_FALSE(presenter->shouldStartDownloadForItemAtURL(documentURL("r.pdf"), &state));
    state.setIsDownloading(false);
    state.setIsDownloaded(true);
    EXPECT_FALSE(presenter->shouldStartDownloadForItemAtURL(documentURL("r.pdf"), &state));
    state.setIsDownloaded(false);
    state.setIsUploaded(false);
    EXPECT_FALSE(presenter->shouldStartDownloadForItemAtURL(documentURL("r.pdf"), &state));

    // An upload that completes for a cloud-only item asks for it.
    log.clear();
    ASSERT_TRUE(cloud->updateItem(documentURL("Folder/b.txt"),
                                  [](SimulatedItemState& s) { s.contentChangeDate = Date(9e8); }));
    presenter->updateMetadataItemForPath(documentPath("c.pdf"), false, QNiCloudFileChangeUploaded,
                                         false);
    ASSERT_TRUE(
        cloud->updateItem(documentURL("c.pdf"), [](SimulatedItemState& s) { s.uploaded = true; }));
    deliver();
    EXPECT_EQ(logCount(LogLevel::Debug, "Download of item at URL"), 1u);
    EXPECT_TRUE(log.contains(LogLevel::Debug, fmt::format("Download of item at URL {} requested.",
                                                          documentURL("c.pdf"))));
}

}  // namespace
}  // namespace qn::test
