#include <fmt/format.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <latch>
#include <mutex>

#include "QNiCloud/QNiCloudMetadataItem.h"
#include "QNiCloud/QNiCloudMetadataQuery.h"
#include "SyncFixture.h"
#include "qn/FileCoordinator.h"
#include "qn/ForwardingFileManager.h"
#include "qn/MetadataAttributes.h"

namespace qn::test {
namespace {

constexpr Date kDay(8e8);

class QNiCloudDocumentsPresenterCacheQueryTest : public SyncFixture {};

TEST_F(QNiCloudDocumentsPresenterCacheQueryTest, GathersInBatchesThenInitialisesOnce) {
    installCloud("alice@example.com");
    cloud->setGatheringBatchSize(70);
    const URL container = QNiCloudContainerURLFromIdentifier(kContainer);
    for (int i = 0; i < 300; ++i) {
        const URL url = container.URLByAppendingPathComponent(
            fmt::format("Documents/Folder {}/Note {}.txt", i % 7, i));
        cloud->setItem(url, i % 3 == 0 ? SimulatedItemState::downloaded("text", kDay)
                                       : SimulatedItemState::notDownloaded("text", kDay));
    }
    // Outside Documents: the query's scope does not hold it.
    cloud->setItem(container.URLByAppendingPathComponent("Data/settings.plist"),
                   SimulatedItemState::downloaded("x", kDay));
    presenter = makePresenter();
    presenter->setCacheUpdatesInterval(0);
    // The queue is busy, so the set-up that registering queues is still waiting.
    std::latch busy(1);
    presenter->presentedItemOperationQueue()->addOperationWithBlock([&] { busy.wait(); });
    presenter->registerForFileChangesNotifications();
    presenter->startCacheQuery();
    busy.count_down();
    ASSERT_TRUE(MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                    std::chrono::seconds(10)));
    presenter->startCacheQuery();
    documents = presenter->documentsDirectoryURL().path();
    EXPECT_TRUE(
        log.contains(LogLevel::Info, "Trying to start query while performing setup. Skipping."));
    EXPECT_TRUE(log.contains(LogLevel::Info,
                             "Trying to start query while there is active query. Skipping."));
    EXPECT_TRUE(waitForLog(LogLevel::Debug, "Initial iCloud files tree query started."));

    // A file the cloud has not reported: found on disk once gathering is over.
    home.write("Mobile Documents/iCloud~com~example~Notes/Documents/Local.txt", "mine");
    home.mkdir("Mobile Documents/iCloud~com~example~Notes/Documents/Album.rtfd");
    home.write("Mobile Documents/iCloud~com~example~Notes/Documents/Album.rtfd/TXT.rtf", "r");

    // Each gathered batch is filled as it arrives and reported with the running count.
    for (std::size_t expected : {70u, 140u, 210u, 280u, 300u}) {
        received.clear();
        cloud->deliverNextQueryBatch();
        ASSERT_TRUE(waitForLog(LogLevel::Debug,
                               fmt::format("Updated iCloud tree cache. Number of items = {}. "
                                           "Cancelled = 0",
                                           expected)));
        settleMainQueue();
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0].notification.name, QNiCloudDidUpdateCacheNotification);
        EXPECT_EQ(received[0].notification.userInfo.uint64ForKey(QNiCloudNumberOfFilesInCacheKey),
                  expected);
        EXPECT_FALSE(presenter->cacheInitialized());
    }
    // Notifications of another query are refused; a question about a whole directory waits for
    // the initialisation.
    const auto stranger = QNiCloudMetadataQuery::query();
    presenter->metadataQueryDidUpdate({NSMetadataQueryDidUpdateNotification, stranger, {}});
    presenter->metadataQueryDidFinishGathering(
        {NSMetadataQueryDidFinishGatheringNotification, stranger, {}});
    EXPECT_EQ(log.count(LogLevel::Error,
                        "Did handle notification from unexpected QNiCloudMetadataQuery query."),
              2u);
    auto folderDownloaded = std::async(std::launch::async, [&] {
        return presenter->isDirectoryDownloadedAtPath(documentPath("Folder 0"));
    });
    received.clear();
    cloud->deliverNextQueryBatch();  // the end of gathering
    ASSERT_TRUE(waitForLogPrefix(LogLevel::Info, kCacheReady, 1));
    settleMainQueue();
    EXPECT_TRUE(presenter->cacheInitialized());
    EXPECT_FALSE(folderDownloaded.get());  // two thirds are in the cloud only
    // 300 files, 7 folders, the local file, the package and its content, the root.
    const std::uint64_t total = 300 + 7 + 3 + 1;
    EXPECT_TRUE(log.contains(
        LogLevel::Info,
        fmt::format("Files tree is cached. Number of items = {}. Cancelled = 0.", total)));
    for (const char* line :
         {"Initial iCloud tree query complete.", "Going to perform initial comparison.",
          "Initial comparison completed.",
          "Looking for files which are not present in NSMetadataQuery results.",
          "Performing initial download."}) {
        EXPECT_TRUE(log.contains(LogLevel::Debug, line)) << line;
    }
    // No per-file notification, exactly one initialised notification with both counts.
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].notification.name, QNiCloudCacheInitializedNotification);
    EXPECT_EQ(received[0].notification.userInfo.uint64ForKey(QNiCloudNumberOfFilesInCacheKey),
              total);
    EXPECT_EQ(received[0].notification.userInfo.uint64ForKey(
                  QNiCloudNumberOfFilesInDocumentsDirectoryKey),
              total - 1);
    const auto local = presenter->metadataItemForPath(documentPath("Local.txt"));
    ASSERT_NE(local, nullptr);
    EXPECT_TRUE(local->isDownloaded() && local->isUploaded());
    EXPECT_NE(presenter->metadataItemForPath(documentPath("Album.rtfd/TXT.rtf")), nullptr);
    EXPECT_NE(presenter->metadataItemForPath(documentPath("Folder 3/Note 10.txt")), nullptr);
    // Every reported file is offered to the downloads manager once (the disk's come later).
    EXPECT_EQ(logCount(LogLevel::Debug, "Download of item at URL"), 300u);

    // Clearing forgets everything; a restarted query fills again instead of comparing.
    presenter->stopCacheQuery();
    presenter->clearCache();
    settleMainQueue();
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Going to clear iCloud cache."));
    EXPECT_FALSE(presenter->cacheInitialized());
    EXPECT_EQ(presenter->cache()->count(), 0u);
    EXPECT_EQ(named(QNiCloudDidClearCacheNotification).size(), 1u);
    presenter->startCacheQuery();
    ASSERT_TRUE(MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                    std::chrono::seconds(10)));
    cloud->deliverNextQueryBatch();
    EXPECT_TRUE(waitForLog(LogLevel::Debug,
                           "Updated iCloud tree cache. Number of items = 70. Cancelled = 0", 2));
}

// Each kind of change is compared with a model, per file, by the randomized synchronisation
// test; here, what is logged of them, appearances of packages, broken and strange items, and a
// local move the cloud has not caught up with.
TEST_F(QNiCloudDocumentsPresenterCacheQueryTest, UpdatesReportEveryKindOfChange) {
    installCloud("alice@example.com");
    const auto set = [&](const char* name, SimulatedItemState state,
                         SimulatedLocalCopy copy = SimulatedLocalCopy::FollowStatus) {
        cloud->setItem(documentURL(name), std::move(state), copy);
    };
    const auto update = [&](const char* name, auto change) {
        ASSERT_TRUE(cloud->updateItem(documentURL(name), change));
    };
    set("fetch.txt", SimulatedItemState::notDownloaded("f", kDay));
    set("edit.txt", SimulatedItemState::downloaded("e", kDay));
    set("gone.txt", SimulatedItemState::downloaded("g", kDay));
    set("stays.txt", SimulatedItemState::downloaded("s", kDay));
    set("Sub/deep.txt", SimulatedItemState::notDownloaded("d", kDay));
    startPresenter();
    initialize();

    // A download: started, progress (not logged at info), done; then new content.
    cloud->setDefaultDownloadBehavior(SimulatedDownloadBehavior::progressive());
    ASSERT_TRUE(cloud->startDownloading(documentURL("fetch.txt"), nullptr));
    deliver();
    cloud->advanceDownload(documentURL("fetch.txt"), 40);
    deliver();
    cloud->advanceDownload(documentURL("fetch.txt"), 100);
    deliver();
    update("edit.txt", [](SimulatedItemState& s) { s.contentChangeDate = Date(9e8); });
    deliver();
    EXPECT_EQ(fileEvents(), (std::vector<std::string>{"fetch.txt:2", "fetch.txt:3", "fetch.txt:1",
                                                      "edit.txt:9"}));
    EXPECT_EQ(logCount(LogLevel::Info, "Presented subitem did change at path"), 3u);

    // Appearances (a package is a file), broken and strange items, and removals.
    received.clear();
    set("New.pages", SimulatedItemState::directory(kDay));
    set("broken.txt", SimulatedItemState::downloaded("b", kDay), SimulatedLocalCopy::Keep);
    SimulatedItemState strange = SimulatedItemState::notDownloaded("s", kDay);
    strange.uploaded = false;
    set("strange.txt", strange);
    ASSERT_TRUE(cloud->removeItem(documentURL("gone.txt")));
    ASSERT_TRUE(cloud->removeItem(documentURL("stays.txt"), SimulatedLocalCopy::Keep));
    deliver();
    EXPECT_EQ(fileEvents(), (std::vector<std::string>{"+New.pages", "-gone.txt"}));
    EXPECT_EQ(
        named(QNiCloudFileDidAppearNotification)[0].userInfo.boolForKey(QNiCloudIsDirectoryKey),
        false);
    EXPECT_TRUE(
        log.contains(LogLevel::Warn,
                     fmt::format("Broken file detected at path {}. Let's try to evict this file.",
                                 documentPath("broken.txt"))));
    EXPECT_EQ(logCount(LogLevel::Warn, fmt::format("Strange file detected at path {}. Skipping.",
                                                   documentPath("strange.txt"))),
              1u);
    EXPECT_TRUE(log.contains(LogLevel::Debug,
                             "Presented subitem was removed at path " + documentPath("gone.txt")));
    EXPECT_EQ(logCount(LogLevel::Debug, "Presented subitem did appear at path " +
                                            documentPath("New.pages") + ". Metadata item = <"),
              1u);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Start comparison."));
    EXPECT_EQ(cachedPaths(), (std::vector<std::string>{"New.pages", "Sub", "Sub/deep.txt",
                                                       "edit.txt", "fetch.txt", "stays.txt"}));
    // The evicted broken item comes back as a cloud-only file; the unreported item goes once its
    // file is gone from disk too.
    received.clear();
    std::filesystem::remove(documentPath("stays.txt"));
    update("edit.txt", [](SimulatedItemState& s) { s.contentChangeDate = Date(9.5e8); });
    deliver();
    EXPECT_EQ(fileEvents(), (std::vector<std::string>{"edit.txt:9", "+broken.txt", "-stays.txt"}));

    // A local move the cloud has not caught up with: its unchanged report names the old path
    // again, whatever the last comparison found at its position.
    update("edit.txt", [](SimulatedItemState& s) { s.contentChangeDate = Date(9.55e8); });
    deliver();
    received.clear();
    presenter->updateCacheAfterMovingOfItemAtPath(documentPath("Sub/deep.txt"),
                                                  documentPath("Sub/moved.txt"));
    update("edit.txt", [](SimulatedItemState& s) { s.contentChangeDate = Date(9.6e8); });
    deliver();
    EXPECT_EQ(fileEvents(),
              (std::vector<std::string>{"+Sub/deep.txt", "edit.txt:9", "-Sub/moved.txt"}));
}

// A file manager whose existence test for one file can be held, to stop the presenter's work in
// the middle of a walk.
class HoldingFileManager final : public ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;

    void hold(std::string name) {
        std::lock_guard lock(mutex_);
        name_ = std::move(name);
        held_ = released_ = false;
    }
    bool isHolding() {
        std::lock_guard lock(mutex_);
        return held_;
    }
    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        name_.clear();
        changed_.notify_all();
    }
    bool fileExistsAtPath(std::string_view path, bool* isDirectory) override {
        std::unique_lock lock(mutex_);
        if (!name_.empty() && path.ends_with("/" + name_)) {
            held_ = true;
            changed_.wait(lock, [&] { return released_; });
        }
        lock.unlock();
        return ForwardingFileManager::fileExistsAtPath(path, isDirectory);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string name_;
    bool held_ = false, released_ = false;
};

TEST_F(QNiCloudDocumentsPresenterCacheQueryTest, AccountChangesCancelFillsAndComparisons) {
    installCloud("alice@example.com");
    for (int i = 0; i < 40; ++i) {
        cloud->setItem(documentURL(fmt::format("f{:02}.txt", i)),
                       SimulatedItemState::downloaded("x", kDay));
    }
    const auto holding = std::make_shared<HoldingFileManager>(FileManager::defaultManager());
    FileManager::setDefaultManager(holding);
    const auto waitHeld = [&] {
        return MainQueue::runUntil([&] { return holding->isHolding(); }, std::chrono::seconds(10));
    };
    const auto waitForQuery = [&] {
        return MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                   std::chrono::seconds(10));
    };

    // Signed out in the middle of the first fill: nothing of the old account stays, and the
    // initialisation queued behind the fill never runs.
    holding->hold("f10.txt");
    startPresenter();
    cloud->deliverQueryBatches();
    ASSERT_TRUE(waitHeld());
    received.clear();
    cloud->signOut();
    ASSERT_TRUE(waitForLog(LogLevel::Info, "iCloud current state is 0."));
    holding->release();
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained, 2));
    settleMainQueue();
    EXPECT_TRUE(log.contains(LogLevel::Debug,
                             "Updated iCloud tree cache. Number of items = 11. Cancelled = 1"));
    EXPECT_EQ(presenter->cache()->count(), 0u);
    EXPECT_FALSE(presenter->cacheInitialized());
    EXPECT_TRUE(named(QNiCloudCacheInitializedNotification).empty());
    EXPECT_TRUE(named(QNiCloudDidUpdateCacheNotification).empty());

    // Another account, then a switch in the middle of a comparison: the cancelled comparison
    // tells nothing more, and the cache ends rebuilt for the new account.
    cloud->signIn("bob@example.com");
    ASSERT_TRUE(waitForQuery());
    initialize();
    EXPECT_EQ(cachedPaths().size(), 40u);
    for (int i = 0; i < 10; ++i) {
        cloud->setItem(documentURL(fmt::format("n{:02}.txt", i)),
                       SimulatedItemState::downloaded("y", kDay));
    }
    received.clear();
    holding->hold("n05.txt");
    cloud->deliverQueryBatches();
    ASSERT_TRUE(waitHeld());
    cloud->switchAccount("carol@example.com");
    ASSERT_TRUE(waitForLog(LogLevel::Info, "iCloud current state is 2."));
    holding->release();
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained, 4));
    EXPECT_TRUE(log.contains(LogLevel::Debug,
                             "Complete comparison. Number of changed files = 6. Cancelled = 1."));
    EXPECT_EQ(fileEvents(), (std::vector<std::string>{"+n00.txt", "+n01.txt", "+n02.txt",
                                                      "+n03.txt", "+n04.txt"}));
    ASSERT_TRUE(waitForQuery());
    initialize();
    EXPECT_EQ(fileEvents().size(), 5u);
    EXPECT_EQ(cachedPaths().size(), 50u);
    FileManager::setDefaultManager(nullptr);
}

TEST_F(QNiCloudDocumentsPresenterCacheQueryTest, AnotherCoordinatorsRemovalReachesTheCache) {
    installCloud("alice@example.com");
    cloud->setItem(documentURL("a.txt"), SimulatedItemState::downloaded("a", kDay));
    cloud->setItem(documentURL("b.txt"), SimulatedItemState::downloaded("b", kDay));
    startPresenter();
    initialize();
    received.clear();
    const auto other = FileCoordinator::make(nullptr);
    const auto write = [&](const char* name, bool remove) {
        Error error;
        other->coordinateWritingItemAtURL(documentURL(name), NSFileCoordinatorWritingForDeleting,
                                          &error, [&](const URL& url) {
                                              if (remove) {
                                                  std::filesystem::remove(url.path());
                                              }
                                          });
    };
    write("b.txt", false);  // still there: left to the query
    write("a.txt", true);
    ASSERT_TRUE(waitForLog(LogLevel::Debug,
                           "NSFilePresenter. Presented subitem was removed at "
                           "path " +
                               documentPath("a.txt")));
    // The notification is handed to the main thread after the line is logged.
    ASSERT_TRUE(
        MainQueue::runUntil([&] { return !fileEvents().empty(); }, std::chrono::seconds(10)));
    settleMainQueue();
    EXPECT_EQ(fileEvents(), std::vector<std::string>{"-a.txt"});
    EXPECT_EQ(cachedPaths(), std::vector<std::string>{"b.txt"});
}

}  // namespace
}  // namespace qn::test
