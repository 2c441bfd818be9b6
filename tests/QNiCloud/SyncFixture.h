#pragma once

// A registered presenter whose live query runs on the simulated cloud: helpers to deliver the
// cloud's batches and wait until the presenter's queue has acted on them, and to read what the
// host was told. The query reports changes without delay (batching interval 0).

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "qn/Logger.h"

namespace qn::test {

inline constexpr const char* kComparisonDone = "Complete comparison.";
inline constexpr const char* kCacheReady = "Files tree is cached.";

class SyncFixture : public PresenterFixture {
protected:
    // Registered, with the query's feed running and nothing delivered yet; signed in to a cloud
    // of its own unless the test installed one (with items to gather) before.
    void startPresenter() {
        if (cloud == nullptr) {
            installCloud("alice@example.com");
        }
        // The cache's automatic downloads would fetch the cloud-only items the tests set up:
        // with a limit of 0 the downloads manager accepts requests and starts none. Download
        // tests raise it.
        QNiCloudDownloadsManager::sharedManager()->setMaxSimultaneousFileDownloadsCount(0);
        presenter = makePresenter();
        // As a host does: conflict checks of query results go through the default presenter.
        QNiCloudDocumentsPresenter::setDefaultPresenter(presenter);
        presenter->setCacheUpdatesInterval(0);
        presenter->registerForFileChangesNotifications();
        ASSERT_TRUE(MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                        std::chrono::seconds(10)));
        documents = presenter->documentsDirectoryURL().path();
    }

    void TearDown() override {
        // The manager outlives the test: drop what it holds and let its queue run dry.
        const auto& manager = QNiCloudDownloadsManager::sharedManager();
        manager->cancelAllDownloads();
        MainQueue::runUntil(
            [&] { return manager->downloadOperationQueue()->operationCount() == 0; },
            std::chrono::seconds(10));
        manager->cancelAllDownloads();
        manager->setMaxSimultaneousFileDownloadsCount(3);
        manager->setPaused(false);
        PresenterFixture::TearDown();
    }

    // Delivers the first gathering and waits for the initialised cache.
    void initialize() {
        const std::size_t before = logCount(LogLevel::Info, kCacheReady);
        cloud->deliverQueryBatches();
        ASSERT_TRUE(waitForLogPrefix(LogLevel::Info, kCacheReady, before + 1));
        settleMainQueue();
    }

    // Delivers the changes so far and waits until the presenter has compared them.
    void deliver() {
        const std::size_t before = logCount(LogLevel::Debug, kComparisonDone);
        cloud->deliverQueryBatches();
        ASSERT_TRUE(waitForLogPrefix(LogLevel::Debug, kComparisonDone, before + 1));
        settleMainQueue();
    }

    std::size_t logCount(LogLevel level, std::string_view prefix) const {
        const auto lines = log.lines();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](auto& l) {
            return l.level == level && l.message.starts_with(prefix);
        }));
    }

    bool waitForLogPrefix(LogLevel level, std::string_view prefix, std::size_t count) {
        return MainQueue::runUntil([&] { return logCount(level, prefix) >= count; },
                                   std::chrono::seconds(10));
    }

    // Before `startPresenter`, the location the presenter will have.
    URL documentURL(std::string_view relative) const {
        return documents.empty() ? QNiCloudContainerURLFromIdentifier(kContainer)
                                       .URLByAppendingPathComponent("Documents")
                                       .URLByAppendingPathComponent(relative)
                                 : URL::fileURLWithPath(documents + "/" + std::string(relative));
    }
    std::string documentPath(std::string_view relative) const {
        return documentURL(relative).path();
    }

    // The notifications of one name received so far.
    std::vector<Notification> named(std::string_view name) const {
        std::vector<Notification> found;
        for (const auto& r : received) {
            if (r.notification.name == name) {
                found.push_back(r.notification);
            }
        }
        return found;
    }

    // "path:type" for each file-change notification, "+path" for appearances, "-path" for
    // removals, in the order received; paths relative to Documents.
    std::vector<std::string> fileEvents() const {
        std::vector<std::string> events;
        for (const auto& r : received) {
            const auto& n = r.notification;
            const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
            if (path == nullptr) {
                continue;
            }
            const std::string relative = path->substr(std::min(path->size(), documents.size() + 1));
            if (n.name == QNiCloudFileDidChangeNotification) {
                events.push_back(
                    relative + ":" +
                    std::to_string(*n.userInfo.int64ForKey(QNiCloudFileChangeTypeKey)));
            } else if (n.name == QNiCloudFileDidAppearNotification) {
                events.push_back("+" + relative);
            } else if (n.name == QNiCloudFileWasRemovedNotification) {
                events.push_back("-" + relative);
            }
        }
        return events;
    }

    // Sub-paths of the cached Documents tree, sorted.
    std::vector<std::string> cachedPaths() {
        auto paths = presenter->cache()->allSubpathsOfEntryAtPath(documents);
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    std::shared_ptr<QNiCloudDocumentsPresenter> presenter;
    std::string documents;
};

}  // namespace qn::test
