// Bringing the cache in line with the live query's results and with the disk: the incremental
// fill while the first gathering runs, the full comparison that turns every later batch into
// appear, change and remove notifications, and the items found on disk that the query missed.
// All three run on the presenter's queue with the query's results frozen.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudExtensions.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "QNiCloud/QNiCloudMetadataQuery.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/PathString.h"
#include "qn/util/Packages.h"
#include "qn/util/PathNormalization.h"

namespace {

// The outer operation, locked once for a whole run: a run that holds it cannot see it expire.
class Cancellation {
public:
    explicit Cancellation(const qn::OuterOperation& outerOperation)
        : operation_(outerOperation.lock()) {}
    bool operator()() const { return operation_ != nullptr && operation_->isCancelled(); }

private:
    std::shared_ptr<qn::Operation> operation_;
};

}  // namespace

std::uint32_t QNiCloudDocumentsPresenter::nextComparisonRun() {
    std::uint32_t run = ++_comparisonRun;
    while (run == 0) {  // 0 stamps the entries no comparison has seen
        run = ++_comparisonRun;
    }
    return run;
}

std::shared_ptr<QNiCloudMetadataQuery> QNiCloudDocumentsPresenter::cacheQuery() {
    std::lock_guard lock(_cacheQueryLock);
    return _cacheQuery;
}

void QNiCloudDocumentsPresenter::fillCacheWithNewCacheQueryResultsOuterOperation(
    const qn::OuterOperation& outerOperation, bool notifyAboutChanges) {
    const Cancellation cancelled(outerOperation);
    if (cancelled()) {
        return;
    }
    std::shared_ptr<QNiCloudMetadataQuery> query;
    std::uint64_t index = 0;
    std::size_t count = 0;
    {
        std::lock_guard lock(_cacheQueryLock);
        query = _cacheQuery;
        if (query == nullptr) {
            return;
        }
        index = query->userInfo()->uint64ForKey(kCacheQueryResumeIndexKey).value_or(0);
        count = query->resultCount();
    }
    const std::string base = presentedItemURL().value_or(qn::URL()).path();
    const auto cache = this->cache();
    if (cache == nullptr) {
        return;  // no Documents directory to cache
    }
    const auto fileManager = qn::FileManager::defaultManager();

    std::unique_lock queryLock(_cacheQueryLock, std::defer_lock);
    while (index < count) {
        const bool stop = cancelled();
        queryLock.lock();
        if (stop) {
            break;  // still holding the lock, to store where the fill stopped
        }
        const auto result = query->resultAtIndex(index);
        queryLock.unlock();

        const QNiCloudExtensions item(*result);
        // A plain folder has nothing to fill; the accessor takes every result for a file.
        if (item.isDirectory() && !QNIsPackageOrFilePath(item.path().value_or(""))) {
            ++index;
            continue;
        }
        const std::string path = item.path().value_or("");
        if (!qn::isBasePathOfPath(base, path)) {
            ++index;
            continue;
        }
        if (item.isDownloaded() && !fileManager->fileExistsAtPath(path)) {
            handleBrokenFileAtPath(path);
            ++index;
            continue;
        }
        auto snapshot = QNiCloudMetadataItem::metadataItemWithMetadataItem(result, true);
        {
            std::lock_guard lock(_cacheLock);
            cache->createEntryAtPath(path, std::move(snapshot));
        }
        ++index;
    }
    if (!queryLock.owns_lock()) {
        queryLock.lock();
    }
    query->userInfo()->set(kCacheQueryResumeIndexKey, index);
    queryLock.unlock();

    const bool wasCancelled = cancelled();
    if (notifyAboutChanges && !wasCancelled) {
        notifyDidUpdateCacheWithFilesCount(index);
    }
    l4Logger().debug("Updated iCloud tree cache. Number of items = {}. Cancelled = {}",
                     static_cast<unsigned long>(index), static_cast<int>(wasCancelled));
}

void QNiCloudDocumentsPresenter::updateCacheWithCacheQueryResultsOuterOperation(
    const qn::OuterOperation& outerOperation, bool notifyAboutChanges) {
    const Cancellation cancelled(outerOperation);
    if (cancelled()) {
        return;
    }
    auto& logger = l4Logger();
    logger.debug("Start comparison.");
    const auto query = cacheQuery();
    const auto cache = this->cache();
    if (query == nullptr || cache == nullptr) {
        return;
    }
    const auto fileManager = qn::FileManager::defaultManager();
    const std::string docs = presentedItemURL().value_or(qn::URL()).path();
    // Instead of a set of the paths seen, every entry a result accounts for (and its directory)
    // is stamped with this run's number; the entries left unstamped are the missing ones.
    const std::uint32_t run = nextComparisonRun();
    const auto markSeen = [run](const QNiCloudCache::EntryPointer& entry) {
        if (entry != nullptr) {
            entry->setComparisonRun(run);
            if (const auto parent = entry->parent()) {
                parent->setComparisonRun(run);
            }
        }
    };
    std::uint64_t changedFiles = 0;

    query->enumerateResultsUsingBlock([&](const std::shared_ptr<const qn::MetadataItem>& result,
                                          std::size_t, bool& stop) {
        if (cancelled()) {
            stop = true;
            return;
        }
        const QNiCloudExtensions item(*result);
        if (item.isDirectory() && !QNIsPackageOrFilePath(item.path().value_or(""))) {
            return;
        }
        std::string path = item.path().value_or("");
        if (path.starts_with("/private/")) {
            path = qn::stringByDeletingPrivate(path);
        }
        if (!qn::isBasePathOfPath(docs, path)) {
            return;
        }
        // What the query reports, before any conflict check. Most results are the very records
        // their entries were last found equal to, and need not be read again.
        std::optional<QNiCloudMetadataItem> reported;
        auto type = QNiCloudFileChangeNone;
        bool cached = false;
        {
            std::lock_guard lock(_cacheLock);
            const auto entry = cache->entryForNormalizedPath(path);
            if (const auto& old = entry != nullptr ? entry->metadataItem() : nullptr) {
                cached = true;
                if (!old->isUnchangedSince(result)) {
                    reported.emplace(*result);
                    type = old->compareWithMetadataItem(*reported);
                    if (type == QNiCloudFileChangeNone && old->fsContentChangeDate() &&
                        old->fsContentChangeDate() == reported->fsContentChangeDate()) {
                        old->markUnchangedSince(result);  // a date warning is never skipped
                    }
                }
                markSeen(entry);
            }
        }
        if (cached && type == QNiCloudFileChangeNone) {
            return;
        }
        if (!reported) {
            reported.emplace(*result);
        }
        const qn::URL url = qn::URL::fileURLWithPath(path);
        if (cached) {
            const auto fresh =
                reported->hasUnresolvedConflicts()
                    ? QNiCloudMetadataItem::metadataItemWithMetadataItem(result, true)
                    : reported->copy();
            auto extraType = QNiCloudFileChangeNone;
            {
                std::lock_guard lock(_cacheLock);
                const auto entry = cache->entryForNormalizedPath(path);
                if (const auto& item = entry != nullptr ? entry->metadataItem() : nullptr) {
                    if (item->hasUnresolvedConflicts() != fresh->hasUnresolvedConflicts()) {
                        const auto conflictType = fresh->hasUnresolvedConflicts()
                                                      ? QNiCloudFileChangeConflictAppeared
                                                      : QNiCloudFileChangeConflictResolved;
                        extraType = type == conflictType ? QNiCloudFileChangeNone : conflictType;
                    }
                    item->updateStateUsingMetadataItem(*fresh);
                }
            }
            if (type == QNiCloudFileChangeUploaded && extraType == QNiCloudFileChangeNone &&
                shouldStartDownloadForItemAtURL(url, fresh.get())) {
                downloadItemAtURL(url);
            }
            if (type != QNiCloudFileChangeDownloadProgress &&
                type != QNiCloudFileChangeUploadProgress) {
                logger.info(
                    "Presented subitem did change at path {} with change type {}. Metadata item {}",
                    path, static_cast<int>(type), fresh->description());
            }
            if (notifyAboutChanges && !cancelled()) {
                notifyFileDidChangeAtNormalizedPath(path, type);
                if (extraType != QNiCloudFileChangeNone) {
                    notifyFileDidChangeAtNormalizedPath(path, extraType);
                }
            }
            ++changedFiles;
            return;
        }

        const auto fresh = reported->copy();
        if (fresh->isDownloaded() && !fileManager->fileExistsAtPath(path)) {
            handleBrokenFileAtPath(path);
            return;
        }
        if (!fresh->isDownloaded() && !fresh->isDownloading() && !fresh->isUploaded() &&
            !fresh->isUploading() && !fresh->hasUnresolvedConflicts()) {
            logger.warn("Strange file detected at path {}. Skipping. Metadata item = {}.", path,
                        fresh->description());
            return;
        }
        updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(*fresh, url);
        {
            std::lock_guard lock(_cacheLock);
            cache->createEntryAtPath(path, fresh);
            markSeen(cache->entryForNormalizedPath(path));
        }
        if (shouldStartDownloadForItemAtURL(url, fresh.get())) {
            downloadItemAtURL(url);
        }
        logger.debug("Presented subitem did appear at path {}. Metadata item = {}.", path,
                     fresh->description());
        if (notifyAboutChanges && !cancelled()) {
            // Packages are files here, so the directory flag is always false.
            notifyFileDidAppearAtPath(path, false);
        }
        ++changedFiles;
    });

    std::vector<std::string> missing;
    {
        std::lock_guard lock(_cacheLock);
        cache->enumerateSubentriesOfEntry(
            cache->entryForRelativePath("/"), [&](const QNiCloudCache::EntryPointer& entry) {
                if (entry->comparisonRun() != run) {
                    missing.push_back(*cache->absolutePathForEntry(entry));
                }
                return !cancelled();
            });
    }
    for (const std::string& path : missing) {
        if (cancelled()) {
            break;
        }
        if (!checkIfFileReallyDoesNotExistIniCloudAtPath(path)) {
            continue;  // still on disk: the query may report it again
        }
        logger.debug("Presented subitem was removed at path {}", path);
        bool isDirectory = false;
        {
            std::lock_guard lock(_cacheLock);
            const auto entry = cache->entryForPath(path);
            isDirectory = entry != nullptr && entry->isDirectory();
            cache->removeEntryAtPath(path);
        }
        if (notifyAboutChanges && !cancelled()) {
            notifyFileWasRemovedAtPath(path, isDirectory);
        }
        ++changedFiles;
    }
    logger.debug("Complete comparison. Number of changed files = {}. Cancelled = {}.",
                 static_cast<unsigned long>(changedFiles), static_cast<int>(cancelled()));
}

void QNiCloudDocumentsPresenter::
    fillCacheWithExistingItemsWhichAreNotPresentInCacheQueryResultsOuterOperation(
        const qn::OuterOperation& outerOperation) {
    const Cancellation cancelled(outerOperation);
    if (cancelled()) {
        return;
    }
    l4Logger().debug("Looking for files which are not present in NSMetadataQuery results.");
    const std::string root = presentedItemURL().value_or(qn::URL()).path();
    const auto enumerator = qn::FileManager::defaultManager()->enumeratorAtPath(root);
    const auto cache = this->cache();
    if (enumerator == nullptr || cache == nullptr) {
        return;
    }
    for (qn::Value next = enumerator->nextObject(); !next.isNull() && !cancelled();
         next = enumerator->nextObject()) {
        const std::string* relative = next.stringValue();
        if (relative == nullptr) {
            continue;
        }
        const std::string path = qn::stringByAppendingPathComponent(root, *relative);
        if (checkIfFileReallyDoesNotExistIniCloudAtPath(path)) {
            continue;
        }
        std::lock_guard lock(_cacheLock);
        if (cache->entryForPath(path) != nullptr) {
            continue;
        }
        const auto attributes = enumerator->fileAttributes();
        const std::string* type = attributes ? attributes->stringForKey(qn::NSFileType) : nullptr;
        const bool isFile =
            (type != nullptr && *type == qn::NSFileTypeRegular) || QNIsPackageFilePath(path);
        // Found on disk without a report: as far as anyone knows it is local and in the cloud.
        cache->createEntryAtPath(
            path, isFile ? QNiCloudMetadataItem::metadataItemWithPath(path, true, true) : nullptr);
    }
}
