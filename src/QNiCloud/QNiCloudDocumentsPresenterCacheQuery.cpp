// The live metadata query that keeps the presenter's cache in step with the cloud: its set-up on
// the presenter's queue, its start and stop on the main thread, the handlers of its notifications
// (which only queue work), the one-time initialisation after the first gathering, and clearing.

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataQuery.h"
#include "qn/Dictionary.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataPredicate.h"
#include "qn/NotificationCenter.h"
#include "qn/Operation.h"
#include "qn/PathString.h"

namespace {

constexpr const char* kUnexpectedQuery =
    "Did handle notification from unexpected QNiCloudMetadataQuery query.";

}  // namespace

void QNiCloudDocumentsPresenter::enqueueCacheWork(
    std::function<void(QNiCloudDocumentsPresenter&, const qn::OuterOperation&)> work) {
    auto operation = qn::BlockOperation::create(
        [presenter = self(), work = std::move(work)](const qn::OuterOperation& outerOperation) {
            work(*presenter, outerOperation);
        });
    updatePriorityForOperation(*operation);
    _presentedItemOperationQueue->addOperation(std::move(operation));
}

// Start and stop.

void QNiCloudDocumentsPresenter::startCacheQuery() {
    bool queryExists = false;
    bool setupUnderWay = false;
    std::uint64_t setup = 0;
    {
        std::lock_guard lock(_cacheQueryLock);
        queryExists = _cacheQuery != nullptr;
        setupUnderWay = _performingCacheQuerySetup;
        _cacheQueryStartWanted = _cacheQueryStartWanted || (!queryExists && setupUnderWay);
        if (!queryExists && !setupUnderWay) {
            _performingCacheQuerySetup = true;
            setup = ++_cacheQuerySetup;
        }
    }
    if (queryExists) {
        l4Logger().info("Trying to start query while there is active query. Skipping.");
        return;
    }
    if (setupUnderWay) {
        l4Logger().info("Trying to start query while performing setup. Skipping.");
        return;
    }
    // A unit cancelled before it runs is dropped without running; its claim on the set-up must
    // still end, or every later start would be refused.
    struct Claim {
        Claim(std::weak_ptr<QNiCloudDocumentsPresenter> presenter, std::uint64_t setup)
            : presenter(std::move(presenter)), setup(setup) {}
        Claim(const Claim&) = delete;
        Claim& operator=(const Claim&) = delete;
        ~Claim() {
            if (const auto strong = presenter.lock(); strong && strong->endCacheQuerySetup(setup)) {
                strong->startCacheQuery();
            }
        }
        std::weak_ptr<QNiCloudDocumentsPresenter> presenter;
        std::uint64_t setup;
    };
    auto claim = std::make_shared<Claim>(self(), setup);
    enqueueCacheWork([claim = std::move(claim)](QNiCloudDocumentsPresenter& presenter,
                                                const qn::OuterOperation& outerOperation) {
        presenter.setUpCacheQuery(claim->setup, outerOperation);
    });
}

bool QNiCloudDocumentsPresenter::endCacheQuerySetup(std::uint64_t setup) {
    std::lock_guard lock(_cacheQueryLock);
    if (_cacheQuerySetup != setup || !_performingCacheQuerySetup) {
        return false;
    }
    _performingCacheQuerySetup = false;
    return std::exchange(_cacheQueryStartWanted, false) && _cacheQuery == nullptr;
}

void QNiCloudDocumentsPresenter::setUpCacheQuery(std::uint64_t setup,
                                                 const qn::OuterOperation& outerOperation) {
    if (currentAccountState() == QNiCloudAccountStateUnavailable || !_registeredForFileChanges) {
        if (endCacheQuerySetup(setup)) {
            startCacheQuery();  // the start turned away meanwhile may find things changed
        }
        return;
    }
    setupiCloudContainerIfSafeAndNecessary();
    const bool cancelled = outerOperation.isCancelled();
    std::shared_ptr<QNiCloudMetadataQuery> query;
    {
        std::lock_guard lock(_cacheQueryLock);
        endCacheQuerySetup(setup);
        if (cancelled || _cacheQuery != nullptr) {
            return;
        }
        auto userInfo = std::make_shared<qn::Dictionary>();
        userInfo->set(kCacheQueryResumeIndexKey, std::uint64_t{0});
        _cacheQuery = QNiCloudMetadataQuery::queryWithUserInfo(std::move(userInfo));
        _cacheQuery->setSearchScopes({qn::NSMetadataQueryUbiquitousDocumentsScope});
        _cacheQuery->setPredicate(*qn::MetadataPredicate::predicateWithFormat(
            "%K like \"*\"", qn::NSMetadataItemPathKey));
        _cacheQuery->setNotificationBatchingInterval(cacheUpdatesInterval());
        query = _cacheQuery;
    }
    qn::MainQueue::async([presenter = self(), query = std::move(query)] {
        std::lock_guard lock(presenter->_cacheQueryLock);
        // Stopped meanwhile (and perhaps replaced, by a query that starts itself): nothing to do.
        if (presenter->_cacheQuery == query) {
            presenter->registerForNotificationsWithQuery(query);
            query->startQuery();
        }
    });
    l4Logger().debug("Initial iCloud files tree query started.");
}

void QNiCloudDocumentsPresenter::stopCacheQuery() {
    std::shared_ptr<QNiCloudMetadataQuery> query;
    {
        std::lock_guard lock(_cacheQueryLock);
        query = _cacheQuery;
    }
    if (query == nullptr) {
        return;
    }
    const auto stop = [this, &query] {
        std::lock_guard lock(_cacheQueryLock);
        unregisterFromNotificationsWithQuery(query);
        query->disableUpdates();
        query->stopQuery();
        // A start that raced ahead may already have put a new query in place: leave that one.
        if (_cacheQuery == query) {
            _cacheQuery.reset();
        }
    };
    if (qn::MainQueue::isMainThread()) {
        stop();
    } else {
        qn::MainQueue::sync(stop);
    }
}

void QNiCloudDocumentsPresenter::registerForNotificationsWithQuery(
    const std::shared_ptr<QNiCloudMetadataQuery>& query) {
    if (query == nullptr) {
        return;
    }
    auto& center = qn::NotificationCenter::defaultCenter();
    std::weak_ptr<QNiCloudDocumentsPresenter> weak = self();
    const auto didUpdate = [weak](const qn::Notification& notification) {
        if (const auto presenter = weak.lock()) {
            presenter->metadataQueryDidUpdate(notification);
        }
    };
    center.addObserver(this, qn::NSMetadataQueryGatheringProgressNotification, query.get(),
                       didUpdate);
    center.addObserver(this, qn::NSMetadataQueryDidUpdateNotification, query.get(), didUpdate);
    center.addObserver(this, qn::NSMetadataQueryDidFinishGatheringNotification, query.get(),
                       [weak](const qn::Notification& notification) {
                           if (const auto presenter = weak.lock()) {
                               presenter->metadataQueryDidFinishGathering(notification);
                           }
                       });
}

void QNiCloudDocumentsPresenter::unregisterFromNotificationsWithQuery(
    const std::shared_ptr<QNiCloudMetadataQuery>& query) {
    if (query == nullptr) {
        return;
    }
    auto& center = qn::NotificationCenter::defaultCenter();
    center.removeObserver(this, qn::NSMetadataQueryGatheringProgressNotification, query.get());
    center.removeObserver(this, qn::NSMetadataQueryDidUpdateNotification, query.get());
    center.removeObserver(this, qn::NSMetadataQueryDidFinishGatheringNotification, query.get());
}

void QNiCloudDocumentsPresenter::disableCacheQueryUpdates() {
    std::lock_guard lock(_cacheQueryLock);
    if (_cacheQuery != nullptr) {
        _cacheQuery->disableUpdates();
    }
}

void QNiCloudDocumentsPresenter::enableCacheQueryUpdates() {
    std::lock_guard lock(_cacheQueryLock);
    if (_cacheQuery != nullptr) {
        _cacheQuery->enableUpdates();
    }
}

// The query's notifications, on the main thread.

void QNiCloudDocumentsPresenter::metadataQueryDidUpdate(const qn::Notification& notification) {
    {
        std::lock_guard lock(_cacheQueryLock);
        if (_cacheQuery == nullptr || notification.object.get() != _cacheQuery.get()) {
            l4Logger().error(kUnexpectedQuery);
            return;
        }
        if (_cacheQuery->isStopped()) {
            return;
        }
    }
    if (!_registeredForFileChanges) {
        return;
    }
    // Chosen now: a fill queued before initialisation stays a fill even if it runs after it.
    if (cacheInitialized()) {
        enqueueCacheWork(
            [](QNiCloudDocumentsPresenter& presenter, const qn::OuterOperation& outerOperation) {
                presenter.disableCacheQueryUpdates();
                presenter.updateCacheWithCacheQueryResultsOuterOperation(outerOperation, true);
                presenter.enableCacheQueryUpdates();
            });
    } else {
        enqueueCacheWork(
            [](QNiCloudDocumentsPresenter& presenter, const qn::OuterOperation& outerOperation) {
                presenter.disableCacheQueryUpdates();
                presenter.fillCacheWithNewCacheQueryResultsOuterOperation(outerOperation, true);
                presenter.enableCacheQueryUpdates();
            });
    }
}

void QNiCloudDocumentsPresenter::metadataQueryDidFinishGathering(
    const qn::Notification& notification) {
    bool expected = false;
    {
        std::lock_guard lock(_cacheQueryLock);
        expected = _cacheQuery != nullptr && notification.object.get() == _cacheQuery.get();
    }
    if (!expected) {
        l4Logger().error(kUnexpectedQuery);
        return;
    }
    // Unlike updates, the end of gathering is acted on even from a stopped query or while not
    // registered: the queue's cancellation is what stops stale work.
    enqueueCacheWork(
        [](QNiCloudDocumentsPresenter& presenter, const qn::OuterOperation& outerOperation) {
            presenter.initializeCache(outerOperation);
        });
}

void QNiCloudDocumentsPresenter::initializeCache(const qn::OuterOperation& outerOperation) {
    auto& logger = l4Logger();
    logger.debug("Initial iCloud tree query complete.");
    disableCacheQueryUpdates();
    fillCacheWithNewCacheQueryResultsOuterOperation(outerOperation, false);
    logger.debug("Going to perform initial comparison.");
    updateCacheWithCacheQueryResultsOuterOperation(outerOperation, false);
    logger.debug("Initial comparison completed.");
    enableCacheQueryUpdates();
    {
        // Set even when cancelled: whoever waits for initialisation must not wait forever.
        std::lock_guard lock(_cacheLock);
        _cacheInitialized = true;
    }
    startInitialDownloadWithOuterOperation(outerOperation);
    fillCacheWithExistingItemsWhichAreNotPresentInCacheQueryResultsOuterOperation(outerOperation);
    std::uint64_t filesCount = 0;
    std::uint64_t filesInDocumentsCount = 0;
    if (const auto cache = this->cache()) {
        std::lock_guard lock(_cacheLock);
        filesCount = cache->count();
        filesInDocumentsCount =
            cache->numberOfSubentriesForEntryAtPath(documentsDirectoryURL().path());
    }
    const bool cancelled = outerOperation.isCancelled();
    if (!cancelled) {
        notifyCacheInitializedWithFilesCount(filesCount, filesInDocumentsCount);
    }
    logger.info("Files tree is cached. Number of items = {}. Cancelled = {}.",
                static_cast<unsigned long>(filesCount), static_cast<int>(cancelled));
}

void QNiCloudDocumentsPresenter::startInitialDownloadWithOuterOperation(
    const qn::OuterOperation& outerOperation) {
    const auto operation = outerOperation.lock();
    const auto cancelled = [&operation] { return operation && operation->isCancelled(); };
    if (cancelled()) {
        return;
    }
    l4Logger().debug("Performing initial download.");
    const auto cache = this->cache();
    if (cache == nullptr) {
        return;
    }
    std::lock_guard lock(_cacheLock);
    // Every item below the cached directory, in the order of its sub-paths. The cache knows which
    // entries are plain folders, so the URLs are made without asking the disk again.
    cache->enumerateSubentriesOfEntry(
        cache->entryForRelativePath("/"), [&](const QNiCloudCache::EntryPointer& entry) {
            const auto url =
                qn::URL::fileURLWithPath(*cache->absolutePathForEntry(entry), entry->isDirectory());
            if (shouldStartDownloadForItemAtURL(url)) {
                downloadItemAtURL(url);
            }
            return !cancelled();
        });
}

void QNiCloudDocumentsPresenter::ensureCacheInitialized() {
    while (!cacheInitialized()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

void QNiCloudDocumentsPresenter::clearCache() {
    l4Logger().debug("Going to clear iCloud cache.");
    {
        const auto cache = this->cache();
        std::lock_guard lock(_cacheLock);
        _cacheInitialized = false;
        if (cache != nullptr) {
            cache->removeAll();
        }
    }
    notifyDidClearCache();
}
