#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <stdexcept>
#include <thread>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/FileManager.h"
#include "qn/FileVersion.h"
#include "qn/InProcessFileCoordinator.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataItem.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterConflictsTest : public PresenterFixture {
protected:
    void SetUp() override {
        PresenterFixture::SetUp();
        installCloud("user");
        presenter = makePresenter();
        ASSERT_TRUE(setupInBackground(presenter));
        settleMainQueue();
        received.clear();
        log.clear();
    }

    // A downloaded document "text" with conflict versions of the given contents, oldest first.
    URL document(const std::string& name, std::initializer_list<const char*> conflicts) {
        const URL url = presenter->documentsDirectoryURL().URLByAppendingPathComponent(name);
        cloud->setItem(url, SimulatedItemState::downloaded("text", Date(100)));
        double date = 200;
        for (const char* contents : conflicts) {
            cloud->addConflictVersion(url, contents, Date(date++));
        }
        return url;
    }

    static std::size_t conflictCount(const URL& url) {
        return FileVersion::unresolvedConflictVersionsOfItemAtURL(url).size();
    }

    // Runs `work` on another thread while the main thread delivers what it posts.
    template <typename F>
    static void offMainThread(F work) {
        std::atomic<bool> done{false};
        std::thread worker([&] {
            work();
            done = true;
        });
        EXPECT_TRUE(MainQueue::runUntil([&] { return done.load(); }, std::chrono::seconds(10)));
        worker.join();
    }

    std::shared_ptr<QNiCloudDocumentsPresenter> presenter;
};

TEST_F(QNiCloudDocumentsPresenterConflictsTest, InvalidVersionsAreRemovedAndNeverCount) {
    const URL same = document("same.txt", {"text"});
    EXPECT_TRUE(presenter->checkIfItemAtURLHasUnresolvedConflicts(same, false));
    EXPECT_EQ(conflictCount(same), 1u);  // without resolving, nothing is removed
    EXPECT_TRUE(log.contains(LogLevel::Debug, fmt::format("Going to check number of conflicts "
                                                          "versions for url {}.",
                                                          same)));
    EXPECT_FALSE(presenter->checkIfItemAtURLHasUnresolvedConflicts(same, true));
    EXPECT_EQ(conflictCount(same), 0u);
    EXPECT_EQ(log.count(LogLevel::Info,
                        fmt::format("Going to remove invalid conflict version for URL {}.", same)),
              1u);

    // Real versions survive, in their order, around an invalid one.
    const URL mixed = document("mixed.txt", {"theirs", "text", "mine"});
    const auto versions = FileVersion::unresolvedConflictVersionsOfItemAtURL(mixed);
    const auto remaining = presenter->resolveInvalidConflictsForItemAtURL(mixed, versions);
    EXPECT_EQ(remaining, (decltype(remaining){versions[0], versions[2]}));
    EXPECT_EQ(conflictCount(mixed), 2u);

    // A version that cannot be removed is logged and still does not count. Coordinators made
    // for no presenter (the removal's own) refuse; the presenter's comparison still reads.
    FileCoordinator::setFactory([](std::shared_ptr<FilePresenter> filePresenter) {
        auto coordinator = std::make_shared<InProcessFileCoordinator>(filePresenter);
        if (filePresenter == nullptr) {
            coordinator->cancel();
        }
        return coordinator;
    });
    const URL stuck = document("stuck.txt", {"text"});
    const bool stuckHasConflicts = presenter->checkIfItemAtURLHasUnresolvedConflicts(stuck, true);
    FileCoordinator::setFactory(nullptr);
    EXPECT_FALSE(stuckHasConflicts);
    EXPECT_EQ(conflictCount(stuck), 1u);
    const auto lines = log.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const CapturedLogLine& line) {
        return line.level == LogLevel::Error &&
               line.message.starts_with(fmt::format(
                   "Unable to remove invalid conflict version for URL {}. Error: ", stuck));
    }));

    // Without a local file nothing can be a duplicate of it.
    const URL remote = presenter->documentsDirectoryURL().URLByAppendingPathComponent("r.txt");
    cloud->setItem(remote, SimulatedItemState::notDownloaded("text"));
    cloud->addConflictVersion(remote, "text", Date(300));
    EXPECT_TRUE(presenter->checkIfItemAtURLHasUnresolvedConflicts(remote, true));
    EXPECT_EQ(conflictCount(remote), 1u);
}

TEST_F(QNiCloudDocumentsPresenterConflictsTest, FlagsFollowTheCheckAndChangesAreAnnounced) {
    const URL url = document("a.txt", {"theirs"});
    QNiCloudMetadataItem item;
    offMainThread([&] {
        EXPECT_TRUE(presenter->checkIfItemAtURLHasUnresolvedConflicts(url, item));
        EXPECT_TRUE(presenter->checkIfItemAtURLHasUnresolvedConflicts(url, item));  // no change
    });
    EXPECT_TRUE(item.hasUnresolvedConflicts());
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].notification.name, QNiCloudFileDidChangeNotification);
    EXPECT_EQ(received[0].notification.userInfo,
              (Dictionary{{QNiCloudSourcePathKey, url.path()},
                          {QNiCloudFileChangeTypeKey, std::int64_t{7}}}));

    // The asynchronous form answers on the main thread once the conflict is gone.
    ASSERT_TRUE(
        FileVersion::unresolvedConflictVersionsOfItemAtURL(url)[0]->removeAndReturnError(nullptr));
    std::optional<bool> answer;
    bool answeredOnMain = false;
    presenter->checkIfItemAtURLHasUnresolvedConflicts(
        url, std::shared_ptr<QNiCloudMetadataItem>(&item, [](auto*) {}), [&](bool value) {
            answer = value;
            answeredOnMain = MainQueue::isMainThread();
        });
    // The check runs elsewhere: its synchronous notification waits for this (main) thread.
    EXPECT_FALSE(answer.has_value());
    EXPECT_EQ(received.size(), 1u);
    ASSERT_TRUE(MainQueue::runUntil([&] { return answer.has_value(); }, std::chrono::seconds(10)));
    EXPECT_FALSE(*answer);
    EXPECT_TRUE(answeredOnMain);
    EXPECT_FALSE(item.hasUnresolvedConflicts());
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].notification.userInfo.int64ForKey(QNiCloudFileChangeTypeKey), 8);
    EXPECT_THROW(presenter->checkIfItemAtURLHasUnresolvedConflicts(url, nullptr, {}),
                 std::invalid_argument);

    // Only a true flag is double-checked, and the update never posts.
    const URL real = document("real.txt", {"theirs"});
    QNiCloudMetadataItem unflagged;
    log.clear();
    EXPECT_FALSE(
        presenter->updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(unflagged, real));
    EXPECT_FALSE(unflagged.hasUnresolvedConflicts());
    EXPECT_TRUE(log.lines().empty());
    const URL invalid = document("invalid.txt", {"text"});
    QNiCloudMetadataItem flagged;
    flagged.setHasUnresolvedConflicts(true);
    EXPECT_TRUE(
        presenter->updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(flagged, invalid));
    EXPECT_FALSE(flagged.hasUnresolvedConflicts());
    settleMainQueue();
    EXPECT_EQ(received.size(), 2u);
}

TEST_F(QNiCloudDocumentsPresenterConflictsTest, QueryResultSnapshotsAskTheDefaultPresenter) {
    const URL invalid = document("invalid.txt", {"text"});
    const auto result = [](const Dictionary& location) {
        Dictionary attributes = location;
        attributes.set(NSMetadataUbiquitousItemHasUnresolvedConflictsKey, true);
        return std::make_shared<MetadataItem>(std::move(attributes));
    };
    const auto byURL = result({{NSMetadataItemURLKey, invalid}});
    const URL other = document("other.txt", {"text"});
    const auto byPath = result({{NSMetadataItemPathKey, other.path()}});

    // No default presenter: the query's word stands.
    EXPECT_TRUE(
        QNiCloudMetadataItem::metadataItemWithMetadataItem(byURL, true)->hasUnresolvedConflicts());
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter);
    EXPECT_TRUE(
        QNiCloudMetadataItem::metadataItemWithMetadataItem(byURL, false)->hasUnresolvedConflicts());
    EXPECT_EQ(conflictCount(invalid), 1u);
    EXPECT_FALSE(
        QNiCloudMetadataItem::metadataItemWithMetadataItem(byURL, true)->hasUnresolvedConflicts());
    EXPECT_EQ(conflictCount(invalid), 0u);
    EXPECT_FALSE(
        QNiCloudMetadataItem::metadataItemWithMetadataItem(byPath, true)->hasUnresolvedConflicts());
    EXPECT_EQ(conflictCount(other), 0u);

    const URL real = document("real.txt", {"theirs"});
    EXPECT_TRUE(QNiCloudMetadataItem::metadataItemWithMetadataItem(
                    result({{NSMetadataItemURLKey, real}}), true)
                    ->hasUnresolvedConflicts());
}

TEST_F(QNiCloudDocumentsPresenterConflictsTest, ResolvingKeepsTheCacheAndTheHostInStep) {
    const URL url = document("a.txt", {});
    cloud->addConflictVersion(url, "theirs", Date(200), "Mac");
    presenter->updateCacheAfterCreationOfItemAtPath(url.path(), true);
    const auto item = presenter->cache()->entryForPath(url.path())->metadataItem();
    item->setHasUnresolvedConflicts(true);
    const URL folder = presenter->documentsDirectoryURL();
    const URL copy = folder.URLByAppendingPathComponent("a (conflict from Mac).txt");

    // The host and the cache hear of each step before the caller's handlers do.
    std::vector<std::string> steps;
    const auto versions = FileVersion::unresolvedConflictVersionsOfItemAtURL(url);
    presenter->resolveConflictsForItemAtURL(
        url, versions, versions, folder, presenter->newFileCoordinator(), {},
        [&](const auto&, std::size_t handled, const std::optional<URL>& saved, std::size_t) {
            steps.push_back(fmt::format("{} {} {} {}", handled, saved.has_value(),
                                        presenter->containsCacheEntryForItemAtPath(copy.path()),
                                        received.size()));
        },
        [&](const URL&, const std::vector<URL>&) {
            steps.push_back(
                fmt::format("done {} {}", received.size(), item->hasUnresolvedConflicts()));
        },
        [](const Error& error) { ADD_FAILURE() << error.description(); });
    EXPECT_EQ(steps, (std::vector<std::string>{"1 true true 1", "2 false true 1", "done 2 false"}));
    EXPECT_FALSE(presenter->cache()->entryForPath(copy.path())->metadataItem()->isUploaded());
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].notification.userInfo,
              (Dictionary{{QNiCloudSourcePathKey, copy.path()}, {QNiCloudIsDirectoryKey, false}}));
    EXPECT_EQ(received[1].notification.userInfo,
              (Dictionary{{QNiCloudSourcePathKey, url.path()},
                          {QNiCloudFileChangeTypeKey, std::int64_t{8}}}));

    // Announced even when nothing was flagged.
    presenter->resolveConflictsForItemAtURL(url, {}, {}, folder, nullptr, {}, {}, {}, {});
    EXPECT_EQ(received.size(), 3u);
}

TEST_F(QNiCloudDocumentsPresenterConflictsTest,
       SavingTheLatestVersionDeletesTheOthersInBackground) {
    const URL url = document("b.txt", {"older"});
    cloud->addConflictVersion(url, "newest", Date(300), "Mac");
    cloud->addOlderVersion(url, "ancient", Date(50));
    std::atomic<int> onMain{0};
    std::atomic<std::size_t> total{0};
    std::atomic<bool> done{false};
    presenter->resolveConflictsBySavingLatestVersionForItemAtURL(
        url, presenter->documentsDirectoryURL(),
        [&](const auto&) {
            onMain += MainQueue::isMainThread();
            return false;  // keep the document
        },
        [&](const auto&, std::size_t, const auto&, std::size_t count) { total = count; },
        [&](const URL&, const std::vector<URL>& saved) {
            onMain += MainQueue::isMainThread();
            done = saved.size() == 1;
        },
        [](const Error& error) { ADD_FAILURE() << error.description(); });
    ASSERT_TRUE(MainQueue::runUntil([&] { return done.load(); }, std::chrono::seconds(10)));
    EXPECT_EQ(onMain, 0);
    EXPECT_EQ(total, 4u);  // the latest saved; the current, older and ancient ones deleted
    EXPECT_TRUE(FileManager::defaultManager()->fileExistsAtPath(url.path()));
    EXPECT_EQ(conflictCount(url), 0u);
}

}  // namespace
}  // namespace qn::test
