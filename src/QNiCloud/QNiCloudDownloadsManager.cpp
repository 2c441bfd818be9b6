// The scheduler's accepting and starting side: requests, their expansion into records, the
// download queue with its order and limit, and the refusals that metadata calls for.

#include "QNiCloud/QNiCloudDownloadsManager.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <utility>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudBackgroundOperation.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Dictionary.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/LocalizedString.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/util/Packages.h"
#include "qn/util/PathNormalization.h"

namespace {

qn::Error downloadError(std::int64_t code, std::string_view text) {
    return qn::Error(QNiCloudErrorDomain, code,
                     {{qn::NSLocalizedDescriptionKey, qn::localizedString(text, "", "")}});
}

}  // namespace

const std::shared_ptr<QNiCloudDownloadsManager>& QNiCloudDownloadsManager::sharedManager() {
    // Never destroyed: queued work and detached workers may use it while the process exits.
    static const auto* manager = [] {
        auto* made = new std::shared_ptr<QNiCloudDownloadsManager>(
            std::make_shared<QNiCloudDownloadsManager>(Private()));
        (*made)->registerForNotifications();
        return made;
    }();
    return *manager;
}

qn::Logger& QNiCloudDownloadsManager::l4Logger() {
    return qn::Logger::named("iCloud");
}

QNiCloudDownloadsManager::QNiCloudDownloadsManager(Private)
    : _downloadOperationQueue(qn::OperationQueue::create("QNiCloudDownloadsManager", 1)),
      _networkReachability(QNReachability::reachabilityForInternetConnection()) {
    qn::MainQueue::async([reachability = _networkReachability] { reachability->startNotifier(); });
}

QNiCloudDownloadsManager::~QNiCloudDownloadsManager() {
    qn::NotificationCenter::defaultCenter().removeObserver(this);
    _downloadOperationQueue->cancelAllOperations();
    std::lock_guard lock(_itemsDownloadsLock);
    _activeFilesDownloads.clear();
    _filesDownloadsQueue.clear();
    _downloadingItemsPaths.clear();
}

void QNiCloudDownloadsManager::registerForNotifications() {
    auto& center = qn::NotificationCenter::defaultCenter();
    const auto observe = [this, &center](
                             const char* name,
                             void (QNiCloudDownloadsManager::*handler)(const qn::Notification&)) {
        center.addObserver(this, name, nullptr,
                           [this, handler](const qn::Notification& n) { (this->*handler)(n); });
    };
    observe(kNetworkReachabilityChangedNotification,
            &QNiCloudDownloadsManager::networkReachabilityChanged);
    observe(QNiCloudCacheInitializedNotification, &QNiCloudDownloadsManager::cacheInitialized);
    observe(QNiCloudFileDidChangeNotification, &QNiCloudDownloadsManager::fileDidChange);
    observe(QNiCloudFileWasRemovedNotification, &QNiCloudDownloadsManager::fileWasRemoved);
    observe(QNiCloudAccountStateDidChangeNotification,
            &QNiCloudDownloadsManager::accountStateDidChange);
}

std::optional<QNiCloudDownloadsManager::ItemState> QNiCloudDownloadsManager::itemStateForPath(
    QNiCloudDocumentsPresenter* presenter, std::string_view path) {
    if (presenter == nullptr) {
        return std::nullopt;
    }
    const auto item = presenter->metadataItemForPath(path);
    if (item == nullptr) {
        return std::nullopt;
    }
    // The cache's own snapshot changes under this lock while the query runs.
    std::lock_guard lock(presenter->_cacheLock);
    return ItemState{item->isDownloaded(), item->hasUnresolvedConflicts(),
                     item->isUploaded(),   item->percentDownloaded(),
                     item->contentSize(),  item};
}

std::string QNiCloudDownloadsManager::describeItem(QNiCloudDocumentsPresenter& presenter,
                                                   const QNiCloudMetadataItem& item) {
    std::lock_guard lock(presenter._cacheLock);
    return item.description();
}

void QNiCloudDownloadsManager::cancelAllDownloads() {
    // Under the lock: a request being expanded sees the cancellation before it queues its next
    // record, and a start under way sees the new generation before it counts its record active.
    std::lock_guard lock(_itemsDownloadsLock);
    ++_cancellationGeneration;
    _downloadOperationQueue->cancelAllOperations();
    _activeFilesDownloads.clear();
    _filesDownloadsQueue.clear();
    _downloadingItemsPaths.clear();
}

bool QNiCloudDownloadsManager::isDownloadingItemAtURL(const qn::URL& url) {
    return isDownloadingItemAtPath(url.path());
}

bool QNiCloudDownloadsManager::isDownloadingItemAtPath(std::string_view path) {
    const std::string normalized = qn::stringByNormalizingPath(path);
    std::lock_guard lock(_itemsDownloadsLock);
    return !activeDownloadsForNormalizedPath(normalized).empty() ||
           _downloadingItemsPaths.contains(normalized);
}

void QNiCloudDownloadsManager::downloadItemAtURL(const qn::URL& url) {
    downloadItemsAtURLs(std::vector<qn::URL>{url});
}

void QNiCloudDownloadsManager::downloadItemsAtURLs(const std::vector<qn::URL>& urls) {
    downloadItemsAtURLs(urls, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
}

QNBackgroundOperationPointer QNiCloudDownloadsManager::downloadItemsAtURLs(
    const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
    QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
    QNiCloudDownloadsProgressHandler progressHandler,
    QNiCloudDownloadsCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    if (operation == nullptr) {
        operation = QNiCloudBackgroundOperation::operation();
    }
    return downloadItemsAtURLs(urls, std::move(operation), 1,
                               std::move(fileDownloadProgressHandler),
                               std::move(fileDownloadCompletionHandler), std::move(progressHandler),
                               std::move(completionHandler), std::move(errorHandler));
}

QNBackgroundOperationPointer QNiCloudDownloadsManager::downloadItemsAtURLs(
    const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation, std::int32_t priority,
    QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
    QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
    QNiCloudDownloadsProgressHandler progressHandler,
    QNiCloudDownloadsCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    if (!checkReachabilityAndCallErrorHandlerIfNecessary(errorHandler)) {
        return nullptr;
    }
    _downloadOperationQueue->addOperation(qn::BlockOperation::create(
        [this, urls, operation, priority, fileProgress = std::move(fileDownloadProgressHandler),
         fileCompletion = std::move(fileDownloadCompletionHandler),
         progress = std::move(progressHandler), completion = std::move(completionHandler),
         error = std::move(errorHandler)](const qn::OuterOperation& outerOperation) {
            runBatchRequest(urls, operation, priority, fileProgress, fileCompletion, progress,
                            completion, error, outerOperation);
        }));
    return operation;
}

void QNiCloudDownloadsManager::runBatchRequest(
    const std::vector<qn::URL>& urls, const QNBackgroundOperationPointer& operation,
    std::int32_t priority, QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
    QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
    QNiCloudDownloadsProgressHandler progressHandler,
    QNiCloudDownloadsCompletionHandler completionHandler, QNiCloudDownloadErrorHandler errorHandler,
    const qn::OuterOperation& outerOperation) {
    // Counters shared by every handler of the batch. They change on the main thread only,
    // except the total, which grows here while early records may already report.
    struct Batch {
        std::atomic<std::uint64_t> totalSize{0};
        std::atomic<std::uint64_t> downloadedSize{0};
        std::atomic<std::uint64_t> remaining{0};
    };
    const auto batch = std::make_shared<Batch>();
    batch->remaining = urls.size();
    const auto reportBatchProgress = [batch,
                                      progressHandler](const QNBackgroundOperationPointer& token) {
        if (progressHandler) {
            const std::uint64_t total = batch->totalSize;
            const std::uint64_t downloaded = batch->downloadedSize;
            // Deliberately unguarded: a total of 0 reports what the division gives.
            progressHandler(token, total, downloaded,
                            static_cast<double>(downloaded) / static_cast<double>(total) * 100.0);
        }
    };
    const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
    std::vector<FileDownloadPointer> alreadyLocal;
    for (const auto& url : urls) {
        if (outerOperation.isCancelled()) {
            return;  // everything was cancelled (an account change): nothing more is wanted
        }
        const auto state = itemStateForPath(presenter.get(), url.path());
        const std::string path = qn::stringByNormalizingPath(url.path());
        FileDownloadPointer record;
        if (state || QNIsPackageFileURL(url)) {
            record = QNiCloudFileDownload::fileDownloadWithPath(path);
            record->setSizeToDownload(state ? state->contentSize : 0);
        } else {
            record = QNiCloudDirectoryDownload::directoryDownloadWithPath(path);
        }
        record->setBackgroundOperation(operation);
        record->setPriority(priority);
        record->setProgressHandler([batch, fileDownloadProgressHandler, reportBatchProgress](
                                       const QNBackgroundOperationPointer& token,
                                       const qn::URL& fileURL, std::uint64_t size,
                                       std::uint64_t downloaded, std::uint64_t previous,
                                       double percent) {
            batch->downloadedSize = batch->downloadedSize - previous + downloaded;
            if (fileDownloadProgressHandler) {
                fileDownloadProgressHandler(token, fileURL, size, downloaded, previous, percent);
            }
            reportBatchProgress(token);
        });
        record->setCompletionHandler([batch, fileDownloadCompletionHandler, reportBatchProgress,
                                      completionHandler](const QNBackgroundOperationPointer& token,
                                                         const qn::URL& fileURL, std::uint64_t size,
                                                         std::uint64_t downloaded) {
            batch->downloadedSize = batch->downloadedSize - downloaded + size;
            const std::uint64_t remaining = --batch->remaining;
            if (fileDownloadCompletionHandler) {
                fileDownloadCompletionHandler(token, fileURL, size, downloaded);
            }
            reportBatchProgress(token);
            if (remaining == 0 && completionHandler) {
                completionHandler(token);
            }
        });
        record->setErrorHandler(
            [errorHandler](const QNBackgroundOperationPointer& token, const qn::Error& error) {
                if (token != nullptr) {
                    token->cancel();
                }
                if (errorHandler) {
                    errorHandler(token, error);
                }
            });
        if (addDownload(record, false, outerOperation)) {
            batch->totalSize += record->sizeToDownload();
        } else if (!outerOperation.isCancelled()) {
            alreadyLocal.push_back(record);
        }
    }
    for (const auto& record : alreadyLocal) {
        if (const auto& handler = record->completionHandler()) {
            qn::MainQueue::async(
                [handler, operation, url = qn::URL::fileURLWithPath(record->path()),
                 size = record->sizeToDownload()] { handler(operation, url, size, 0); });
        }
    }
    startNextFileDownloadIfPossible();
}

QNBackgroundOperationPointer QNiCloudDownloadsManager::downloadItemAtURL(
    const qn::URL& url, bool isDirectory, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler progressHandler,
    QNiCloudFileDownloadCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    return downloadItemAtPath(url.path(), isDirectory, std::move(operation),
                              std::move(progressHandler), std::move(completionHandler),
                              std::move(errorHandler));
}

QNBackgroundOperationPointer QNiCloudDownloadsManager::downloadItemAtPath(
    std::string_view path, bool isDirectory, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler progressHandler,
    QNiCloudFileDownloadCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    if (!checkReachabilityAndCallErrorHandlerIfNecessary(errorHandler)) {
        return nullptr;
    }
    if (operation == nullptr) {
        operation = QNiCloudBackgroundOperation::operation();
    }
    _downloadOperationQueue->addOperation(qn::BlockOperation::create(
        [this, path = std::string(path), isDirectory, operation,
         progress = std::move(progressHandler), completion = std::move(completionHandler),
         error = std::move(errorHandler)](const qn::OuterOperation& outerOperation) {
            const std::string normalized = qn::stringByNormalizingPath(path);
            FileDownloadPointer record;
            if (isDirectory) {
                record = QNiCloudDirectoryDownload::directoryDownloadWithPath(normalized);
            } else {
                record = QNiCloudFileDownload::fileDownloadWithPath(normalized);
                const auto attributes =
                    qn::FileManager::defaultManager()->attributesOfItemAtPath(normalized);
                record->setSizeToDownload(
                    attributes ? attributes->uint64ForKey(qn::NSFileSize).value_or(0) : 0);
            }
            record->setBackgroundOperation(operation);
            record->setProgressHandler(progress);
            record->setCompletionHandler(completion);
            record->setErrorHandler(error);
            record->setPriority(1);
            if (outerOperation.isCancelled()) {
                return;  // everything was cancelled (an account change) before it began
            }
            addDownload(record, true, outerOperation);
            if (!outerOperation.isCancelled()) {
                startNextFileDownloadIfPossible();
            }
        }));
    return operation;
}

bool QNiCloudDownloadsManager::addDownload(const FileDownloadPointer& download) {
    return addDownload(download, true);
}

bool QNiCloudDownloadsManager::addDownload(const FileDownloadPointer& download,
                                           bool callCompletionHandlerIfDownloaded) {
    return addDownload(download, callCompletionHandlerIfDownloaded, qn::OuterOperation());
}

bool QNiCloudDownloadsManager::waitUntilCacheInitialized(const qn::OuterOperation& outerOperation) {
    std::unique_lock lock(_cacheInitializedCondition);
    for (;;) {
        const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
        if (presenter != nullptr && presenter->cacheInitialized()) {
            return true;
        }
        if (outerOperation.isCancelled()) {
            return false;
        }
        // The signal is sent without the condition's lock, so it can fall between the test and
        // the wait: look again now and then rather than sleep through it.
        _cacheInitializedCondition.waitUntil(std::chrono::steady_clock::now() +
                                             std::chrono::milliseconds(250));
    }
}

bool QNiCloudDownloadsManager::addDownload(const FileDownloadPointer& download,
                                           bool callCompletionHandlerIfDownloaded,
                                           const qn::OuterOperation& outerOperation) {
    if (!waitUntilCacheInitialized(outerOperation)) {
        return false;
    }
    if (const auto directory = std::dynamic_pointer_cast<QNiCloudDirectoryDownload>(download)) {
        return addDirectoryDownload(directory, callCompletionHandlerIfDownloaded, outerOperation);
    }
    if (download != nullptr) {
        return addFileDownload(download, callCompletionHandlerIfDownloaded, outerOperation);
    }
    return false;
}

bool QNiCloudDownloadsManager::addDirectoryDownload(
    const std::shared_ptr<QNiCloudDirectoryDownload>& download,
    bool callCompletionHandlerIfDownloaded) {
    return addDirectoryDownload(download, callCompletionHandlerIfDownloaded, qn::OuterOperation());
}

bool QNiCloudDownloadsManager::addDirectoryDownload(
    const std::shared_ptr<QNiCloudDirectoryDownload>& download,
    bool callCompletionHandlerIfDownloaded, const qn::OuterOperation& outerOperation) {
    const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
    {
        std::lock_guard lock(_itemsDownloadsLock);
        if (outerOperation.isCancelled()) {
            return false;
        }
        if (presenter != nullptr) {
            const std::string& directoryPath = download->path();
            presenter->enumerateDirectoryAtPath(
                directoryPath, [&](const std::string& relativePath,
                                   const std::optional<qn::Dictionary>& attributes) {
                    const std::string path = directoryPath + "/" + relativePath;
                    const auto state = itemStateForPath(presenter.get(), path);
                    if (state && state->isDownloaded) {
                        return true;
                    }
                    // This enumeration hands over no attributes, so no entry passes here and a
                    // directory request queues nothing: the behaviour hosts know, kept on purpose.
                    const std::string* type =
                        attributes ? attributes->stringForKey(qn::NSFileType) : nullptr;
                    if (type == nullptr || *type != qn::NSFileTypeRegular) {
                        return true;
                    }
                    const std::uint64_t size = attributes->uint64ForKey(qn::NSFileSize).value_or(0);
                    download->setSizeToDownload(download->sizeToDownload() + size);
                    download->setNumberOfFilesToDownload(download->numberOfFilesToDownload() + 1);
                    auto file = QNiCloudFileDownload::fileDownloadWithPath(path);
                    file->setSizeToDownload(size);
                    file->setDirectoryDownload(download);
                    if (download->priority() == 1) {
                        _filesDownloadsQueue.push_front(file);
                    } else {
                        _filesDownloadsQueue.push_back(file);
                    }
                    _downloadingItemsPaths.insert(path);
                    return true;
                });
        }
    }
    if (download->numberOfFilesToDownload() != 0) {
        std::lock_guard lock(_itemsDownloadsLock);
        _downloadingItemsPaths.insert(download->path());
        return true;
    }
    if (callCompletionHandlerIfDownloaded) {
        if (const auto& handler = download->completionHandler()) {
            qn::MainQueue::async([handler, operation = download->backgroundOperation(),
                                  url = qn::URL::fileURLWithPath(download->path())] {
                handler(operation, url, 0, 0);
            });
        }
    }
    return false;
}

bool QNiCloudDownloadsManager::addFileDownload(const FileDownloadPointer& download,
                                               bool callCompletionHandlerIfDownloaded) {
    return addFileDownload(download, callCompletionHandlerIfDownloaded, qn::OuterOperation());
}

bool QNiCloudDownloadsManager::addFileDownload(const FileDownloadPointer& download,
                                               bool callCompletionHandlerIfDownloaded,
                                               const qn::OuterOperation& outerOperation) {
    const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
    const auto state = itemStateForPath(presenter.get(), download->path());
    if (state && state->isDownloaded) {
        if (callCompletionHandlerIfDownloaded) {
            if (const auto& handler = download->completionHandler()) {
                qn::MainQueue::async(
                    [handler, operation = download->backgroundOperation(),
                     url = qn::URL::fileURLWithPath(download->path()),
                     size = download->sizeToDownload()] { handler(operation, url, size, 0); });
            }
        }
        return false;
    }
    std::lock_guard lock(_itemsDownloadsLock);
    if (outerOperation.isCancelled()) {
        return false;
    }
    enqueueLocked(download);
    return true;
}

void QNiCloudDownloadsManager::enqueueLocked(const FileDownloadPointer& download) {
    if (download->priority() == 1) {
        _filesDownloadsQueue.push_front(download);
    } else {
        _filesDownloadsQueue.push_back(download);
    }
    _downloadingItemsPaths.insert(download->path());
}

void QNiCloudDownloadsManager::addActiveLocked(const FileDownloadPointer& download) {
    // A set: a record equal to a member is not added again.
    const bool present = std::any_of(
        _activeFilesDownloads.begin(), _activeFilesDownloads.end(),
        [&](const FileDownloadPointer& member) { return member->isEqual(download.get()); });
    if (!present) {
        _activeFilesDownloads.push_back(download);
    }
}

void QNiCloudDownloadsManager::removeActiveLocked(const FileDownloadPointer& download) {
    const auto member =
        std::find_if(_activeFilesDownloads.begin(), _activeFilesDownloads.end(),
                     [&](const FileDownloadPointer& m) { return m->isEqual(download.get()); });
    if (member != _activeFilesDownloads.end()) {
        _activeFilesDownloads.erase(member);
    }
}

void QNiCloudDownloadsManager::startNextFileDownloadIfPossible() {
    if (paused()) {
        if (_networkReachability->currentReachabilityStatus() == NotReachable) {
            return;
        }
        setPaused(false);
    }
    FileDownloadPointer record;
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(_itemsDownloadsLock);
        // Records being started on other threads count against the limit too, so that two
        // threads starting at once never exceed it together.
        if (_activeFilesDownloads.size() + _startingCount >= maxSimultaneousFileDownloadsCount() ||
            _filesDownloadsQueue.empty()) {
            return;
        }
        record = _filesDownloadsQueue.front();
        _filesDownloadsQueue.pop_front();
        // A cancelled record is dropped without a word; its path stays accepted.
        while (record->isCancelled() && !_filesDownloadsQueue.empty()) {
            record = _filesDownloadsQueue.front();
            _filesDownloadsQueue.pop_front();
        }
        if (record->isCancelled()) {
            return;
        }
        ++_startingCount;
        generation = _cancellationGeneration;
    }
    const StartOutcome outcome = startFileDownload(record);
    bool active = false;
    {
        std::lock_guard lock(_itemsDownloadsLock);
        --_startingCount;
        // After an account change a started record belongs to nobody: it goes on unseen.
        active = outcome == StartOutcome::Started && generation == _cancellationGeneration;
        if (active) {
            addActiveLocked(record);
        }
    }
    // A refused record's successor is started from the manager's queue, once this start has
    // given its place back.
    if (outcome == StartOutcome::RefusedStartNext) {
        scheduleStartOfNextDownload();
    }
    if (!active) {
        return;
    }
    if (const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter()) {
        presenter->updateMetadataItemForPath(record->path(), qn::Value(true),
                                             QNiCloudFileChangeDownloadingStarted, true);
    }
    l4Logger().debug("Start downloading file at path {}.", record->path());
    startNextFileDownloadIfPossible();
}

QNiCloudDownloadsManager::StartOutcome QNiCloudDownloadsManager::startFileDownload(
    const FileDownloadPointer& record) {
    const auto url = qn::URL::fileURLWithPath(record->path());
    const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
    const auto state = itemStateForPath(presenter.get(), url.path());
    auto& logger = l4Logger();
    const auto refuse = [&](std::optional<qn::Error> error) {
        didFinishFileDownload(record, error);
        return StartOutcome::RefusedStartNext;
    };
    if (state && state->isDownloaded) {
        logger.warn("Skipping download of file {}, because it is already downloaded.", url);
        return refuse(std::nullopt);
    }
    if (state && state->hasUnresolvedConflicts) {
        logger.warn("Skipping download of file {}, because it has conflicts.", url);
        return refuse(downloadError(QNiCloudErrorInputOutput,
                                    "Do not start download, because file has conflicts."));
    }
    if (state && state->isUploaded) {
        if (_networkReachability->currentReachabilityStatus() == NotReachable) {
            logger.warn("Skipping download of file {}, because network is not reachable.", url);
            refuse(downloadError(QNiCloudErrorNetworkUnreachable, "Network is not reachable."));
            setPaused(true);
            return StartOutcome::RefusedStop;
        }
    } else {
        logger.warn("Skipping download of file {}, because upload is not finished. Metadata: {}.",
                    url, state ? describeItem(*presenter, *state->item) : std::string("(null)"));
        return refuse(downloadError(QNiCloudErrorInputOutput,
                                    "Do not start download, because upload is not finished."));
    }
    qn::Error error;
    if (!qn::FileManager::defaultManager()->startDownloadingUbiquitousItemAtURL(url, &error)) {
        logger.warn("Unable to start download of file {}. Error: {}.", url, error);
        return refuse(error);
    }
    return StartOutcome::Started;
}

void QNiCloudDownloadsManager::scheduleStartOfNextDownload() {
    _downloadOperationQueue->addOperationWithBlock([this] { startNextFileDownloadIfPossible(); });
}

std::vector<QNiCloudDownloadsManager::FileDownloadPointer>
QNiCloudDownloadsManager::activeDownloadsForNormalizedPath(std::string_view path) {
    std::lock_guard lock(_itemsDownloadsLock);
    std::vector<FileDownloadPointer> found;
    for (const auto& download : _activeFilesDownloads) {
        if (qn::isEqualToPath(download->path(), path)) {
            found.push_back(download);
        }
    }
    return found;
}

std::vector<QNiCloudDownloadsManager::FileDownloadPointer>
QNiCloudDownloadsManager::activeFilesDownloads() {
    std::lock_guard lock(_itemsDownloadsLock);
    return _activeFilesDownloads;
}

std::vector<QNiCloudDownloadsManager::FileDownloadPointer>
QNiCloudDownloadsManager::filesDownloadsQueue() {
    std::lock_guard lock(_itemsDownloadsLock);
    return {_filesDownloadsQueue.begin(), _filesDownloadsQueue.end()};
}

std::vector<std::string> QNiCloudDownloadsManager::downloadingItemsPaths() {
    std::lock_guard lock(_itemsDownloadsLock);
    return {_downloadingItemsPaths.begin(), _downloadingItemsPaths.end()};
}
