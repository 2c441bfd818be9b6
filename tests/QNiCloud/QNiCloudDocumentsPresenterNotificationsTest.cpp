#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterNotificationsTest : public PresenterFixture {};

TEST_F(QNiCloudDocumentsPresenterNotificationsTest, QueuedAndSynchronousDelivery) {
    installCloud(std::nullopt);
    const auto presenter = makePresenter();
    std::thread([&] {
        presenter->notifyiCloudAccountStateDidChange(QNiCloudAccountStateChanged, std::nullopt);
        presenter->notifyDidInitializeContainerWithURL(std::nullopt);
        presenter->notifyCacheInitializedWithFilesCount(7, 4);
        presenter->notifyDidClearCache();
    }).join();                         // queued: returns without the main thread's help
    presenter->notifyDidClearCache();  // queued even on the main thread: a later turn
    EXPECT_TRUE(received.empty());
    settleMainQueue();
    ASSERT_EQ(received.size(), 5u);
    EXPECT_EQ(received[0].notification.userInfo,
              (Dictionary{{QNiCloudAccountStateKey, std::int64_t{2}}}));
    EXPECT_EQ(received[0].notification.object, presenter);
    EXPECT_EQ(received[1].notification.name, QNiCloudDidInitializeContainerNotification);
    EXPECT_TRUE(received[1].notification.userInfo.empty());
    EXPECT_EQ(received[2].notification.userInfo,
              (Dictionary{{QNiCloudNumberOfFilesInCacheKey, std::uint64_t{7}},
                          {QNiCloudNumberOfFilesInDocumentsDirectoryKey, std::uint64_t{4}}}));
    EXPECT_EQ(received[2].notification.object, nullptr);
    EXPECT_EQ(received[3].notification.name, QNiCloudDidClearCacheNotification);
    EXPECT_EQ(received[4].notification.name, QNiCloudDidClearCacheNotification);

    // Synchronous: a worker goes on only after the main thread's observers ran.
    received.clear();
    std::atomic<bool> workerDone{false};
    std::size_t seenByWorker = 0;
    std::thread worker([&] {
        presenter->notifyFileDidChangeAtPath("/c/Documents/./A\u0301.txt",
                                             QNiCloudFileChangeDownloaded);
        presenter->notifyFileDidAppearAtPath("/c/Documents/./b/", true);
        seenByWorker = received.size();
        workerDone = true;
    });
    ASSERT_TRUE(MainQueue::runUntil([&] { return workerDone.load(); }, std::chrono::seconds(10)));
    worker.join();
    EXPECT_EQ(seenByWorker, 2u);
    EXPECT_EQ(received[0].notification.userInfo,
              (Dictionary{{QNiCloudSourcePathKey, "/c/Documents/\u00c1.txt"},
                          {QNiCloudFileChangeTypeKey, std::int64_t{1}}}));
    EXPECT_EQ(
        received[1].notification.userInfo,  // the path as given
        (Dictionary{{QNiCloudSourcePathKey, "/c/Documents/./b/"}, {QNiCloudIsDirectoryKey, true}}));
    EXPECT_TRUE(received[0].onMainThread && received[1].onMainThread);
    presenter->notifyFileWasRemovedAtPath("/c/Documents/b", false);  // on the main thread
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[2].notification.name, QNiCloudFileWasRemovedNotification);
}

}  // namespace
}  // namespace qn::test
