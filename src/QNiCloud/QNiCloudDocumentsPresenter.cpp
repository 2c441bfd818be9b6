// The presenter's frame: creation and tear-down, the default presenter, container set-up,
// registration with file coordination, the priority of its work and its properties.

#include "QNiCloud/QNiCloudDocumentsPresenter.h"

#include <fmt/format.h>

#include <chrono>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "QNiCloud/QNiCloudMetadataQuery.h"
#include "qn/DispatchQueue.h"
#include "qn/Error.h"
#include "qn/Exception.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/NotificationCenter.h"
#include "qn/QualityOfService.h"
#include "qn/util/ContainerHelpers.h"
#include "qn/util/PathNormalization.h"

namespace {

// The class-level lock and the default presenter it guards.
std::recursive_mutex& defaultPresenterLock() {
    static std::recursive_mutex lock;
    return lock;
}
std::shared_ptr<QNiCloudDocumentsPresenter>& defaultPresenterStorage() {
    static std::shared_ptr<QNiCloudDocumentsPresenter> presenter;
    return presenter;
}

}  // namespace

qn::Logger& QNiCloudDocumentsPresenter::l4Logger() {
    static qn::Logger& logger = qn::Logger::named("iCloud");
    return logger;
}

// The default presenter.

std::shared_ptr<QNiCloudDocumentsPresenter> QNiCloudDocumentsPresenter::defaultPresenter() {
    std::lock_guard lock(defaultPresenterLock());
    return defaultPresenterStorage();
}

void QNiCloudDocumentsPresenter::setDefaultPresenter(
    std::shared_ptr<QNiCloudDocumentsPresenter> presenter) {
    std::shared_ptr<QNiCloudDocumentsPresenter> replaced;
    {
        std::lock_guard lock(defaultPresenterLock());
        auto& stored = defaultPresenterStorage();
        if (presenter == stored) {
            return;
        }
        if (stored != nullptr) {
            stored->refuseWaitingFromOwnQueue();  // before anything changes
        }
        replaced = std::exchange(stored, std::move(presenter));
    }
    // Unregistered without the lock: the replaced presenter's queued work, which unregistering
    // waits for, may itself ask for the default presenter. `replaced` may also be the last
    // reference, and its tear-down waits for observers that may do the same.
    if (replaced != nullptr) {
        replaced->unregisterFromFileChangesNotifications();
    }
}

bool QNiCloudDocumentsPresenter::hasDefaultPresenter() {
    std::lock_guard lock(defaultPresenterLock());
    return defaultPresenterStorage() != nullptr;
}

qn::URL QNiCloudDocumentsPresenter::documentsDirectoryURLFromContainerIdentifier(
    std::string_view identifier) {
    return QNiCloudContainerURLFromIdentifier(identifier).URLByAppendingPathComponent("Documents");
}

// Creation and tear-down.

std::shared_ptr<QNiCloudDocumentsPresenter> QNiCloudDocumentsPresenter::initWithContainerIdentifier(
    std::optional<std::string_view> containerIdentifier) {
    std::string identifier(containerIdentifier.value_or(std::string_view()));
    if (identifier.empty()) {
        identifier = QNiCloudContainerIdentifier();
    }
    if (identifier.empty()) {
        return nullptr;
    }
    auto presenter = std::make_shared<QNiCloudDocumentsPresenter>(Private(), std::move(identifier));

    // Both need the finished shared_ptr: the observer holds the presenter weakly, the first
    // reading of the account strongly, so that it survives a host that lets go at once.
    std::weak_ptr<QNiCloudDocumentsPresenter> weak = presenter;
    qn::NotificationCenter::defaultCenter().addObserver(
        presenter.get(), qn::NSUbiquityIdentityDidChangeNotification, nullptr,
        [weak](const qn::Notification& notification) {
            if (auto strong = weak.lock()) {
                strong->ubiquityIdentityDidChange(notification);
            }
        });
    qn::DispatchQueue::global(qn::QualityOfService::Default).async([presenter] {
        presenter->setNewUbiquityIdentityToken(
            qn::FileManager::defaultManager()->ubiquityIdentityToken());
    });
    return presenter;
}

QNiCloudDocumentsPresenter::QNiCloudDocumentsPresenter(Private, std::string containerIdentifier)
    : _presentedItemOperationQueue(qn::OperationQueue::create("QNiCloudDocumentsPresenter", 1)) {
    setCacheUpdatesInterval(1.0);
    _containerLock = std::make_shared<std::recursive_mutex>();
    // The container's location is only a guess until set-up asks the platform; the Documents
    // directory keeps this spelling for good.
    _containerURL = QNiCloudContainerURLFromIdentifier(containerIdentifier);
    _driveDirectoryURL = _containerURL.URLByDeletingLastPathComponent();
    _documentsDirectoryURL =
        _containerURL.URLByAppendingPathComponent("Documents").URLByStandardizingPath();
    _metadataDirectoryURL =
        qn::URL::fileURLWithPath(QNApplicationSupportDirectoryAdd("iCloudMetadata"), true);
    _containerIdentifier = std::move(containerIdentifier);
}

QNiCloudDocumentsPresenter::~QNiCloudDocumentsPresenter() {
    qn::NotificationCenter::defaultCenter().removeObserver(this);
    qn::FileCoordinator::removeFilePresenter(this);
    _presentedItemOperationQueue->cancelAllOperations();
    {
        std::lock_guard lock(_cacheQueryLock);
        if (_cacheQuery != nullptr) {
            _cacheQuery->stopQuery();
        }
        _cacheQuery.reset();
    }
    // A thread still inside the cache must leave before the cache goes.
    { std::lock_guard lock(_cacheLock); }
    {
        std::lock_guard lock(_tagLock);
        _tag.reset();
    }
}

std::shared_ptr<QNiCloudDocumentsPresenter> QNiCloudDocumentsPresenter::self() {
    return std::static_pointer_cast<QNiCloudDocumentsPresenter>(shared_from_this());
}

// File coordination.

void QNiCloudDocumentsPresenter::registerForFileChangesNotifications() {
    if (_registeredForFileChanges.exchange(true)) {
        return;
    }
    qn::FileCoordinator::addFilePresenter(self());
    startCacheQuery();
}

void QNiCloudDocumentsPresenter::refuseWaitingFromOwnQueue() const {
    if (qn::OperationQueue::currentQueue() == _presentedItemOperationQueue) {
        throw qn::InternalInconsistencyException(
            "A presenter cannot leave file coordination from its own operation queue: it would "
            "wait for itself forever.");
    }
}

void QNiCloudDocumentsPresenter::unregisterFromFileChangesNotifications() {
    refuseWaitingFromOwnQueue();
    if (!_registeredForFileChanges.exchange(false)) {
        return;
    }
    qn::FileCoordinator::removeFilePresenter(this);
    _presentedItemOperationQueue->cancelAllOperations();
    if (qn::MainQueue::isMainThread()) {
        // The running operation may be waiting for the main thread (a synchronous notification):
        // keep serving the main queue until it is over.
        qn::MainQueue::runUntil(
            [this] { return _presentedItemOperationQueue->operationCount() == 0; },
            std::chrono::steady_clock::duration::max());
    }
    _presentedItemOperationQueue->waitUntilAllOperationsAreFinished();
    stopCacheQuery();
}

std::shared_ptr<qn::FileCoordinator> QNiCloudDocumentsPresenter::newFileCoordinator() {
    return qn::FileCoordinator::make(self());
}

// Container set-up.

bool QNiCloudDocumentsPresenter::setupiCloudContainerIfSafeAndNecessary() {
    if (currentAccountState() == QNiCloudAccountStateUnavailable) {
        return false;
    }
    if (isContainerInitialized()) {
        return true;
    }
    auto& logger = l4Logger();
    if (qn::MainQueue::isMainThread()) {
        logger.warn("Trying to setup iCloud container on main thread. Skipping.");
        return false;
    }
    const auto lockHolder = containerLock();
    std::unique_lock lock(*lockHolder);
    if (isContainerInitialized()) {
        return true;
    }
    logger.debug("Setting up iCloud container.");
    const auto platformURL =
        qn::FileManager::defaultManager()->URLForUbiquityContainerIdentifier(containerIdentifier());
    if (!platformURL) {
        lock.unlock();
        logger.warn("Unable to setup container, because iCloud became unavailable.");
        return false;
    }
    const std::string platformPath = qn::stringByNormalizingPath(platformURL->path());
    const qn::URL generatedURL = containerURL();
    if (!qn::isEqualToPath(generatedURL.path(), platformPath)) {
        logger.warn(
            "Manually generated container URL '{}' differs from container URL '{}' returned from "
            "URLForUbiquityContainerIdentifier:. Reparing...",
            generatedURL, *platformURL);
        setContainerURL(qn::URL::fileURLWithPath(platformPath, true));
        if (_registeredForFileChanges.load()) {
            // Leave and join again, as after any change of the container's location: the
            // in-process coordinator reads the presented URL on every claim, but a coordinator
            // that records it when a presenter joins needs this.
            qn::FileCoordinator::removeFilePresenter(this);
            qn::FileCoordinator::addFilePresenter(self());
            stopCacheQuery();
            _presentedItemOperationQueue->cancelAllOperations();
            clearCache();
            restartCacheQueryWhenIdle();
        }
    }
    createDefaultDirectories();
    setContainerInitialized(true);
    notifyDidInitializeContainerWithURL(containerURL());
    return true;
}

void QNiCloudDocumentsPresenter::restartCacheQueryWhenIdle() {
    // Started at once, the query would be refused while this set-up runs inside the query's own
    // set-up unit, which the cancellation above then ends without a query.
    qn::DispatchQueue::global(qn::QualityOfService::UserInitiated).async([presenter = self()] {
        presenter->_presentedItemOperationQueue->waitUntilAllOperationsAreFinished();
        presenter->startCacheQuery();
    });
}

void QNiCloudDocumentsPresenter::createDefaultDirectories() {
    const auto fileManager = qn::FileManager::defaultManager();
    fileManager->createDirectoryAtURL(documentsDirectoryURL(), true);
    fileManager->createDirectoryAtURL(metadataDirectoryURL(), true);
}

bool QNiCloudDocumentsPresenter::canAccessDocumentsDirectory() {
    qn::Error error;
    const auto attributes = qn::FileManager::defaultManager()->attributesOfItemAtPath(
        documentsDirectoryURL().path(), &error);
    if (!attributes) {
        l4Logger().error("Failed to get Documents directory attributes. Error: {}.", error);
        return false;
    }
    const auto permissions = attributes->uint64ForKey(qn::NSFilePosixPermissions).value_or(0);
    return (permissions & 0600) == 0600;
}

void QNiCloudDocumentsPresenter::updatePriorityForOperation(qn::Operation& operation) const {
    static constexpr qn::QualityOfService kClasses[] = {
        qn::QualityOfService::UserInteractive, qn::QualityOfService::UserInitiated,
        qn::QualityOfService::Utility, qn::QualityOfService::Background};
    constexpr double n = std::size(kClasses);
    const double priority = threadPriority();
    const double raw = n * (1.0 - priority);
    // Written so that a priority that is not a number lands on the last class.
    const double index = raw < n - 1 ? raw : n - 1;
    // Truncation toward zero: only an index of -1 or below is out of range.
    if (index <= -1.0) {
        throw std::out_of_range(
            fmt::format("Thread priority {} maps to no quality of service.", priority));
    }
    operation.setQualityOfService(kClasses[static_cast<std::size_t>(index)]);
}

// Properties.

std::string QNiCloudDocumentsPresenter::containerIdentifier() const {
    std::lock_guard lock(_propertyLock);
    return _containerIdentifier;
}

void QNiCloudDocumentsPresenter::setContainerIdentifier(std::string containerIdentifier) {
    std::lock_guard lock(_propertyLock);
    _containerIdentifier = std::move(containerIdentifier);
}

qn::URL QNiCloudDocumentsPresenter::containerURL() const {
    std::lock_guard lock(_propertyLock);
    return _containerURL;
}

void QNiCloudDocumentsPresenter::setContainerURL(qn::URL containerURL) {
    std::lock_guard lock(_propertyLock);
    _containerURL = std::move(containerURL);
}

qn::URL QNiCloudDocumentsPresenter::documentsDirectoryURL() const {
    std::lock_guard lock(_propertyLock);
    return _documentsDirectoryURL;
}

void QNiCloudDocumentsPresenter::setDocumentsDirectoryURL(qn::URL documentsDirectoryURL) {
    std::lock_guard lock(_propertyLock);
    _documentsDirectoryURL = std::move(documentsDirectoryURL);
}

qn::URL QNiCloudDocumentsPresenter::metadataDirectoryURL() const {
    std::lock_guard lock(_propertyLock);
    return _metadataDirectoryURL;
}

void QNiCloudDocumentsPresenter::setMetadataDirectoryURL(qn::URL metadataDirectoryURL) {
    std::lock_guard lock(_propertyLock);
    _metadataDirectoryURL = std::move(metadataDirectoryURL);
}

qn::URL QNiCloudDocumentsPresenter::driveDirectoryURL() const {
    std::lock_guard lock(_propertyLock);
    return _driveDirectoryURL;
}

std::shared_ptr<std::recursive_mutex> QNiCloudDocumentsPresenter::containerLock() const {
    std::lock_guard lock(_propertyLock);
    return _containerLock;
}

void QNiCloudDocumentsPresenter::setContainerLock(
    std::shared_ptr<std::recursive_mutex> containerLock) {
    std::lock_guard lock(_propertyLock);
    _containerLock = std::move(containerLock);
}

std::shared_ptr<QNiCloudCache> QNiCloudDocumentsPresenter::cache() {
    {
        std::lock_guard lock(_propertyLock);
        if (_cache != nullptr) {
            return _cache;
        }
    }
    // Read before taking the property lock again: the presented URL is guarded by it too.
    const std::string path =
        qn::stringByNormalizingPath(presentedItemURL().value_or(qn::URL()).path());
    std::lock_guard lock(_propertyLock);
    if (_cache == nullptr) {
        _cache = QNiCloudCache::cacheWithCachedDirectoryPath(path);
    }
    return _cache;
}

void QNiCloudDocumentsPresenter::setCache(std::shared_ptr<QNiCloudCache> cache) {
    std::lock_guard lock(_propertyLock);
    _cache = std::move(cache);
}

void QNiCloudDocumentsPresenter::setCacheUpdatesInterval(double cacheUpdatesInterval) {
    std::lock_guard lock(_cacheQueryLock);
    _cacheUpdatesInterval.store(cacheUpdatesInterval);
    if (_cacheQuery != nullptr) {
        _cacheQuery->setNotificationBatchingInterval(cacheUpdatesInterval);
    }
}

std::optional<std::set<std::string>>
QNiCloudDocumentsPresenter::extensionsAllowedForAutomaticDownload() const {
    std::lock_guard lock(_propertyLock);
    return _extensionsAllowedForAutomaticDownload;
}

void QNiCloudDocumentsPresenter::setExtensionsAllowedForAutomaticDownload(
    std::optional<std::set<std::string>> extensionsAllowedForAutomaticDownload) {
    std::lock_guard lock(_propertyLock);
    _extensionsAllowedForAutomaticDownload = std::move(extensionsAllowedForAutomaticDownload);
}

// The limit belongs to the process-wide scheduler; the presenter keeps no copy.
std::uint64_t QNiCloudDocumentsPresenter::maxSimultaneousFileDownloadsCount() const {
    return QNiCloudDownloadsManager::sharedManager()->maxSimultaneousFileDownloadsCount();
}

void QNiCloudDocumentsPresenter::setMaxSimultaneousFileDownloadsCount(
    std::uint64_t maxSimultaneousFileDownloadsCount) {
    QNiCloudDownloadsManager::sharedManager()->setMaxSimultaneousFileDownloadsCount(
        maxSimultaneousFileDownloadsCount);
}

std::optional<qn::URL> QNiCloudDocumentsPresenter::presentedItemURL() const {
    return documentsDirectoryURL();
}

std::shared_ptr<qn::OperationQueue> QNiCloudDocumentsPresenter::presentedItemOperationQueue()
    const {
    return _presentedItemOperationQueue;
}
