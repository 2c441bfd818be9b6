#include <gtest/gtest.h>

#include "DownloadsFixture.h"
#include "QNiCloud/QNiCloudBackgroundOperation.h"

namespace qn::test {
namespace {

constexpr const char* kStart = "Start downloading file at path ";

class QNiCloudDownloadsManagerTest : public DownloadsFixture {
protected:
    void addTen(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            items.emplace_back(name, SimulatedItemState::notDownloaded("0123456789"));
        }
    }
};

TEST_F(QNiCloudDownloadsManagerTest, OneFileReportsProgressThenCompletesOnce) {
    addTen({"a.txt"});
    start();
    const auto token =
        presenter->downloadItemsAtURLs({documentURL("a.txt")}, nullptr, progress(), completion(),
                                       batchProgress(), batchCompletion(), failure());
    ASSERT_NE(token, nullptr);
    settle();
    EXPECT_TRUE(manager->isDownloadingItemAtPath(documentPath("a.txt")));
    EXPECT_TRUE(log.contains(LogLevel::Debug, kStart + documentPath("a.txt") + "."));
    advance("a.txt", 40);
    advance("a.txt", 100);
    EXPECT_EQ(calls->events, (std::vector<std::string>{"P a.txt 10 4 0 40", "BP 10 4",
                                                       "C a.txt 10 4", "BP 10 10", "BC"}));
    EXPECT_FALSE(manager->isDownloadingItemAtPath(documentPath("a.txt")));

    // Asked again, the local file completes at once with nothing downloaded; the single form
    // takes its size from the disk.
    presenter->downloadItemAtURL(documentURL("a.txt"), false, token, progress(), completion(),
                                 failure());
    settle();
    EXPECT_EQ(calls->events.back(), "C a.txt 10 0");
    EXPECT_EQ(calls->events.size(), 6u);
    EXPECT_EQ(calls->offMainThread, 0);
}

TEST_F(QNiCloudDownloadsManagerTest, QueueOrderFollowsPriorityAndTheLimitHolds) {
    addTen({"a.txt", "b.txt", "c.txt", "d.txt", "f.txt"});
    start(0);  // nothing starts: the queue's order can be read
    manager->downloadItemsAtURLs({documentURL("a.txt"), documentURL("b.txt")}, nullptr, 0, nullptr,
                                 nullptr, nullptr, nullptr, nullptr);
    presenter->downloadItemsAtURLs({documentURL("c.txt"), documentURL("d.txt")}, nullptr, nullptr,
                                   completion(), batchProgress(), batchCompletion(), failure());
    presenter->downloadItemAtPath(documentPath("f.txt"), false, nullptr, nullptr, completion(),
                                  nullptr);
    settle();
    EXPECT_EQ(names(manager->filesDownloadsQueue()),
              (std::vector<std::string>{"f.txt", "d.txt", "c.txt", "a.txt", "b.txt"}));

    manager->setMaxSimultaneousFileDownloadsCount(2);
    manager->startNextFileDownloadIfPossible();
    settle();
    EXPECT_EQ(names(manager->activeFilesDownloads()), (std::vector<std::string>{"f.txt", "d.txt"}));
    for (const char* name : {"f.txt", "d.txt", "c.txt", "a.txt", "b.txt"}) {
        advance(name, 100);
    }
    EXPECT_EQ(calls->events, (std::vector<std::string>{"C f.txt 0 0", "C d.txt 10 0", "BP 20 10",
                                                       "C c.txt 10 0", "BP 20 20", "BC"}));
    EXPECT_TRUE(manager->downloadingItemsPaths().empty());
}

TEST_F(QNiCloudDownloadsManagerTest, MetadataRefusalsFinishWithTheirErrors) {
    addTen({"conflict.txt", "pending.txt", "refused.txt", "late.txt"});
    items[1].second.uploaded = false;
    items[1].second.uploading = true;
    start(0);
    cloud->addConflictVersion(documentURL("conflict.txt"), "other", Date(1));
    deliver();
    const Error platformError(NSCocoaErrorDomain, NSFileReadUnknownError);
    cloud->setDownloadBehavior(documentURL("refused.txt"),
                               SimulatedDownloadBehavior::failing(platformError));
    for (const char* name : {"conflict.txt", "pending.txt", "refused.txt", "late.txt"}) {
        manager->downloadItemAtPath(documentPath(name), false, nullptr, nullptr, completion(),
                                    failure());
    }
    settle();
    // late.txt arrives before it is started: skipped as downloaded, and completed.
    cloud->setItem(documentURL("late.txt"), SimulatedItemState::downloaded("0123456789"));
    deliver();
    manager->setMaxSimultaneousFileDownloadsCount(3);
    manager->startNextFileDownloadIfPossible();
    settle();
    EXPECT_EQ(calls->events, (std::vector<std::string>{
                                 "C late.txt 0 0", "E 256 " + platformError.localizedDescription(),
                                 "E 5 Do not start download, because upload is not finished.",
                                 "E 5 Do not start download, because file has conflicts."}));
    const auto url = [&](const char* name) { return fmt::format("{}", documentURL(name)); };
    EXPECT_TRUE(log.contains(LogLevel::Warn, "Skipping download of file " + url("late.txt") +
                                                 ", because it is already downloaded."));
    EXPECT_TRUE(log.contains(LogLevel::Warn, "Skipping download of file " + url("conflict.txt") +
                                                 ", because it has conflicts."));
    EXPECT_TRUE(log.contains(LogLevel::Warn, fmt::format("Unable to start download of file {}. "
                                                         "Error: {}.",
                                                         url("refused.txt"), platformError)));
    EXPECT_EQ(logCount(LogLevel::Warn, "Skipping download of file " + url("pending.txt") +
                                           ", because upload is not finished. Metadata: "),
              1u);
    EXPECT_TRUE(manager->downloadingItemsPaths().empty());
    EXPECT_EQ(calls->offMainThread, 0);
}

TEST_F(QNiCloudDownloadsManagerTest, NetworkLossRefusesPausesAndTheReturnResumes) {
    addTen({"a.txt", "b.txt"});
    start(0);
    manager->downloadItemsAtURLs({documentURL("a.txt"), documentURL("b.txt")}, nullptr, 0, nullptr,
                                 nullptr, nullptr, nullptr, failure());
    settle();
    cloud->setNetworkReachable(false);
    ASSERT_TRUE(MainQueue::runUntil([&] { return manager->paused(); }, std::chrono::seconds(10)));
    // A request now is refused on the spot: the handler has run before the call returns.
    EXPECT_EQ(manager->downloadItemAtPath(documentPath("a.txt"), false, nullptr, nullptr, nullptr,
                                          failure()),
              nullptr);
    EXPECT_EQ(calls->events,
              (std::vector<std::string>{"E 51 Network is not reachable. (no token)"}));

    // Taken while the network is gone, the first record fails and the rest wait.
    manager->setMaxSimultaneousFileDownloadsCount(3);
    manager->setPaused(false);
    manager->startNextFileDownloadIfPossible();
    settle();
    EXPECT_EQ(calls->events.back(), "E 51 Network is not reachable. (no token)");
    EXPECT_TRUE(manager->paused());
    EXPECT_EQ(names(manager->filesDownloadsQueue()), (std::vector<std::string>{"b.txt"}));

    cloud->setNetworkReachable(true);
    ASSERT_TRUE(MainQueue::runUntil([&] { return !manager->paused(); }, std::chrono::seconds(10)));
    settle();
    EXPECT_EQ(names(manager->activeFilesDownloads()), (std::vector<std::string>{"b.txt"}));
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Network reachability has changed. Reachable = 1"));
}

TEST_F(QNiCloudDownloadsManagerTest, CancelledTokensAndAccountChangesDropWorkSilently) {
    addTen({"a.txt", "b.txt", "c.txt"});
    start(0);
    const auto token = QNiCloudBackgroundOperation::operation();
    manager->downloadItemsAtURLs({documentURL("a.txt"), documentURL("b.txt")}, token, progress(),
                                 completion(), batchProgress(), batchCompletion(), failure());
    manager->downloadItemAtURL(documentURL("c.txt"));
    settle();
    token->cancel();
    manager->setMaxSimultaneousFileDownloadsCount(3);
    manager->startNextFileDownloadIfPossible();
    settle();
    EXPECT_EQ(names(manager->activeFilesDownloads()), (std::vector<std::string>{"c.txt"}));
    EXPECT_TRUE(manager->filesDownloadsQueue().empty());
    EXPECT_TRUE(manager->isDownloadingItemAtPath(documentPath("a.txt")));  // until cancelled all

    // A sign-out ends everything, without a word to anyone.
    cloud->signOut();
    ASSERT_TRUE(waitForLog(LogLevel::Info,
                           "Cancel all downloads, because iCloud account was changed or deleted."));
    EXPECT_TRUE(manager->activeFilesDownloads().empty());
    EXPECT_FALSE(manager->isDownloadingItemAtPath(documentPath("a.txt")));
    settle();
    EXPECT_TRUE(calls->events.empty());
}

TEST_F(QNiCloudDownloadsManagerTest, RemovalAndConflictEndRunningDownloads) {
    addTen({"gone.txt", "torn.txt", "queued.txt"});
    start(2);
    manager->downloadItemsAtURLs(
        {documentURL("gone.txt"), documentURL("torn.txt"), documentURL("queued.txt")}, nullptr, 0,
        progress(), completion(), nullptr, nullptr, failure());
    settle();
    cloud->removeItem(documentURL("gone.txt"));
    cloud->addConflictVersion(documentURL("torn.txt"), "other", Date(1));
    // A change for a file that is only queued finishes nothing.
    presenter->notifyFileDidChangeAtPath(documentPath("queued.txt"), QNiCloudFileChangeDownloaded);
    deliver();
    settle();
    ASSERT_EQ(calls->events.size(), 2u);
    EXPECT_EQ(calls->count("E 2 The operation couldn't be completed. (no token)"), 1u);
    EXPECT_EQ(calls->count("E 5 Did gain conflict for downloading file. (no token)"), 1u);
    EXPECT_TRUE(log.contains(LogLevel::Warn, "Download finished. Conflict was gained for path " +
                                                 documentPath("torn.txt") + "."));
    EXPECT_EQ(names(manager->activeFilesDownloads()), (std::vector<std::string>{"queued.txt"}));
}

TEST_F(QNiCloudDownloadsManagerTest, DirectoryRequestsWaitForTheCacheAndCompleteEmpty) {
    items.emplace_back("Folder/x.txt", SimulatedItemState::notDownloaded("0123456789"));
    installCloud("alice@example.com");
    cloud->setItem(documentURL("Folder/x.txt"), items[0].second);
    startPresenter();
    presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"auto"});
    presenter->downloadItemAtPath(documentPath("Folder"), true, nullptr, progress(), completion(),
                                  failure());
    MainQueue::runFor(std::chrono::milliseconds(100));
    EXPECT_TRUE(calls->events.empty());  // held until the cache exists
    initialize();
    settle();
    // The expansion finds no attributes, so no file is queued: complete with sizes 0.
    EXPECT_EQ(calls->events, (std::vector<std::string>{"C Folder 0 0"}));
    manager->downloadItemsAtURLs({documentURL("Folder")}, nullptr, nullptr, completion(),
                                 batchProgress(), batchCompletion(), nullptr);
    settle();
    EXPECT_EQ(calls->events,
              (std::vector<std::string>{"C Folder 0 0", "C Folder 0 0", "BP 0 0", "BC"}));
    EXPECT_TRUE(manager->filesDownloadsQueue().empty());
}

TEST_F(QNiCloudDownloadsManagerTest, DirectoryBookkeepingReportsAndEndsAtTheFirstError) {
    addTen({"D/f1.txt", "D/f2.txt", "D/f3.txt"});
    start(1);
    const auto token = QNiCloudBackgroundOperation::operation();
    const auto directory = QNiCloudDirectoryDownload::directoryDownloadWithPath(documentPath("D"));
    directory->setBackgroundOperation(token);
    directory->setProgressHandler(progress());
    directory->setCompletionHandler(completion());
    directory->setErrorHandler(failure());
    directory->setSizeToDownload(30);
    directory->setNumberOfFilesToDownload(3);
    for (const char* name : {"D/f1.txt", "D/f2.txt", "D/f3.txt"}) {
        auto file = QNiCloudFileDownload::fileDownloadWithPath(documentPath(name));
        file->setSizeToDownload(10);
        file->setDirectoryDownload(directory);
        ASSERT_TRUE(manager->addFileDownload(file, true));
    }
    manager->startNextFileDownloadIfPossible();
    settle();
    advance("D/f1.txt", 50);
    advance("D/f1.txt", 100);  // f2 starts
    cloud->addConflictVersion(documentURL("D/f2.txt"), "other", Date(1));
    deliver();
    settle();
    EXPECT_EQ(calls->events,
              (std::vector<std::string>{"P D 30 5 0 17", "P D 30 10 5 33",
                                        "E 5 Did gain conflict for downloading file."}));
    EXPECT_TRUE(token->isCancelled());
    EXPECT_TRUE(manager->filesDownloadsQueue().empty());  // f3 went with the error
    EXPECT_EQ(directory->numberOfFilesToDownload(), 0u);
    // The dropped file's path stays accepted until everything is cancelled.
    EXPECT_EQ(manager->downloadingItemsPaths(), std::vector<std::string>{documentPath("D/f3.txt")});
}

}  // namespace
}  // namespace qn::test
