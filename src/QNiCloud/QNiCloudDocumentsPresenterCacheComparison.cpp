// Bringing the cache in line with the live query's results and with the disk: the incremental
// fill while the first gathering runs, the full comparison that turns every later batch into
// appear, change and remove notifications, and the items found on disk that the query missed.
// All three run on the presenter's queue with the query's results frozen.

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
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
#include "qn/Prefetch.h"
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

// A result's path as the cache spells paths, or "" for a result that is not compared (a plain
// folder, or outside the Documents directory `docs`). `storage` holds the path when it had to be
// made: the reported spelling is kept unless it needs composing.
std::string_view comparedPathOfResult(const qn::MetadataItem& result, std::string_view docs,
                                      std::string& storage) {
    std::string_view path = result.path();
    if (qn::needsComposition(path)) {
        storage = qn::composedNFC(path);
        path = storage;
    }
    if (path.starts_with("/private/")) {
        storage = qn::stringByDeletingPrivate(path);
        path = storage;
    }
    if (QNiCloudExtensions(result).isDirectory() && !QNIsPackageOrFilePath(path)) {
        return {};
    }
    return qn::isBasePathOfPath(docs, path) ? path : std::string_view();
}

}  // namespace

std::uint32_t QNiCloudDocumentsPresenter::nextComparisonRun() {
    std::uint32_t run = ++_comparisonRun;
    while (run == 0) {  // 0 stamps the entries no comparison has seen
        run = ++_comparisonRun;
    }
    return run;
}

bool QNiCloudDocumentsPresenter::takeComparisonHintsLocked(
    const std::shared_ptr<QNiCloudMetadataQuery>& query, bool isCurrentQuery) {
    if (_comparisonHintsQuery.lock() == query) {
        return true;
    }
    if (!isCurrentQuery) {
        return false;
    }
    _comparisonHints.clear();
    _comparisonHintsCache.reset();
    _comparisonHintsQuery = query;
    return true;
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
        // Made from the report, the snapshot usually equals it: noting so (and where the entry
        // is) spares the comparison that ends the initialisation from reading every report again.
        const QNiCloudMetadataItem reported(*result);
        const bool equal = snapshot->compareWithMetadataItem(reported) == QNiCloudFileChangeNone &&
                           snapshot->fsContentChangeDate() &&
                           snapshot->fsContentChangeDate() == reported.fsContentChangeDate();
        if (equal) {
            snapshot->markUnchangedSince(result);
        }
        {
            std::lock_guard lock(_cacheLock);
            cache->createEntryAtPath(path, std::move(snapshot));
            if (!takeComparisonHintsLocked(query, true)) {
                ++index;
                continue;  // another query has the hints now
            }
            if (_comparisonHintsCache.lock() != cache ||
                _comparisonHintsIndexRemovals != cache->indexRemovalCount()) {
                _comparisonHints.clear();  // hints of another cache, or entries since removed
                _comparisonHintsCache = cache;
                _comparisonHintsIndexRemovals = cache->indexRemovalCount();
            }
            if (_comparisonHints.size() <= index) {
                _comparisonHints.resize(std::max<std::size_t>(count, index + 1));
            }
            // Only where the comparison will look the result up at the same path.
            std::string storage;
            _comparisonHints[index] = comparedPathOfResult(*result, base, storage) == path
                                          ? cache->findEntryForNormalizedPath(path)
                                          : nullptr;
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
    // Stamps are counted, so that when every entry of the index got one and nobody else changed
    // the index meanwhile, the walk for missing entries can be left out.
    std::uint64_t stamped = 0;
    std::uint64_t ownIndexChanges = 0;
    std::uint64_t indexChangesAtStart = 0;
    std::uint64_t indexRemovalsAtStart = 0;
    {
        std::lock_guard lock(_cacheLock);
        indexChangesAtStart = cache->indexChangeCount();
        indexRemovalsAtStart = cache->indexRemovalCount();
        takeComparisonHintsLocked(query, true);
    }
    const auto stamp = [run, &stamped](QNiCloudCacheEntry& entry) {
        if (entry.comparisonRun() != run) {
            entry.setComparisonRun(run);
            ++stamped;
        }
    };
    // Results come grouped by folder, so the last parent stamped is usually the next one too.
    std::weak_ptr<QNiCloudCacheEntry> lastParent;
    const auto markSeen = [&](QNiCloudCacheEntry* entry) {
        if (entry == nullptr) {
            return;
        }
        stamp(*entry);
        const auto& link = entry->parentLink();
        if (!link.owner_before(lastParent) && !lastParent.owner_before(link) &&
            !lastParent.expired()) {
            return;
        }
        if (const auto parent = link.lock()) {
            stamp(*parent);
        }
        lastParent = link;
    };
    std::uint64_t changedFiles = 0;

    const auto comparedPath = [&docs](const qn::MetadataItem& result, std::string& storage) {
        return comparedPathOfResult(result, docs, storage);
    };
    // One result against the cache; answers whether it changed the cache or told the host.
    const auto compareResult = [&](const std::shared_ptr<const qn::MetadataItem>& result,
                                   std::string_view path) -> bool {
        // What the query reports, before any conflict check. Most results are the very records
        // their entries were last found equal to, and need not be read again.
        std::optional<QNiCloudMetadataItem> reported;
        auto type = QNiCloudFileChangeNone;
        bool cached = false;
        {
            std::lock_guard lock(_cacheLock);
            QNiCloudCacheEntry* entry = cache->findEntryForNormalizedPath(path);
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
            return false;
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
            return true;
        }

        const auto fresh = reported->copy();
        if (fresh->isDownloaded() && !fileManager->fileExistsAtPath(path)) {
            handleBrokenFileAtPath(path);
            return true;
        }
        if (!fresh->isDownloaded() && !fresh->isDownloading() && !fresh->isUploaded() &&
            !fresh->isUploading() && !fresh->hasUnresolvedConflicts()) {
            logger.warn("Strange file detected at path {}. Skipping. Metadata item = {}.", path,
                        fresh->description());
            return false;
        }
        updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(*fresh, url);
        {
            std::lock_guard lock(_cacheLock);
            const std::uint64_t before = cache->indexChangeCount();
            cache->createEntryAtPath(path, fresh);
            ownIndexChanges += cache->indexChangeCount() - before;
            markSeen(cache->findEntryForNormalizedPath(path));
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
        return true;
    };

    // A result at the same position as in the last comparison that is still the very record
    // its entry was then found equal to is settled without reading it or looking its path up,
    // as long as no entry has left the index since (nor moved, which takes it out and back).
    const auto hintsUsable = [&] {
        return takeComparisonHintsLocked(query, false) && _comparisonHintsCache.lock() == cache &&
               _comparisonHintsIndexRemovals == cache->indexRemovalCount();
    };
    // Entries a result changed during this run: a later result settled by its hint that names
    // one of them is compared after all, as it would have been in order.
    std::unordered_set<const QNiCloudCacheEntry*> touched;
    const auto compareAndNote = [&](const std::shared_ptr<const qn::MetadataItem>& result,
                                    std::string_view path) {
        if (!compareResult(result, path)) {
            return false;
        }
        std::lock_guard lock(_cacheLock);
        touched.insert(cache->findEntryForNormalizedPath(path));
        return true;
    };

    // The results the hints did not settle, in order. Each needs its record, its path value,
    // the path's text, an index slot, its cache entry and the entry's snapshot, each found
    // through the one before; waiting for each in turn is where a comparison's time went. So
    // they are taken in chunks, and the memory is asked for each kind a few chunks ahead of the
    // chunk being compared. The verdicts taken for a chunk only stand until one of its results
    // changes something.
    const auto comparePending =
        [&](std::span<const std::shared_ptr<const qn::MetadataItem>> results,
            const std::vector<std::size_t>& pending,
            const std::vector<const QNiCloudCacheEntry*>& settled, bool& stop) {
            constexpr std::size_t kChunk = 32;
            constexpr std::size_t kAhead =
                6;  // chunks between asking for a record and comparing it
            struct Prepared {
                std::string storage;
                std::string_view path;  // "" for a result that is not compared
                QNiCloudCache::Key key;
            };
            std::array<std::array<Prepared, kChunk>, 4> prepared;  // chunks c to c + 3
            std::array<bool, kChunk> unchanged{};
            const std::size_t chunks = (pending.size() + kChunk - 1) / kChunk;
            const auto chunk = [&](std::size_t c) {
                const std::size_t first = std::min(c * kChunk, pending.size());
                return std::span<const std::size_t>(pending).subspan(
                    first, std::min(kChunk, pending.size() - first));
            };
            const auto prepare = [&](std::size_t c) {
                auto& slots = prepared[c % prepared.size()];
                const auto indices = chunk(c);
                for (std::size_t i = 0; i < indices.size(); ++i) {
                    slots[i].path = comparedPath(*results[indices[i]], slots[i].storage);
                    slots[i].key = slots[i].path.empty()
                                       ? QNiCloudCache::Key()
                                       : cache->keyForNormalizedPath(slots[i].path);
                }
            };
            // Settled results between the pending ones are looked at again only when a result
            // before them changed their entry.
            std::size_t nextSettled = 0;
            const auto recheckSettledBefore = [&](std::size_t end) {
                for (; !touched.empty() && nextSettled < end; ++nextSettled) {
                    if (settled[nextSettled] != nullptr && touched.contains(settled[nextSettled])) {
                        std::string storage;
                        const std::string_view path = comparedPath(*results[nextSettled], storage);
                        compareAndNote(results[nextSettled], path);
                    }
                }
                nextSettled = std::max(nextSettled, end);
            };

            for (std::size_t c = 0; c < std::min(chunks, kAhead); ++c) {
                for (const std::size_t index : chunk(c)) {
                    __builtin_prefetch(results[index].get());
                }
            }
            for (std::size_t c = 0; c < chunks; ++c) {
                for (const std::size_t index : chunk(c + kAhead)) {
                    __builtin_prefetch(results[index].get());
                }
                for (const std::size_t index : chunk(c + kAhead - 1)) {
                    results[index]->prefetchPathRecord();
                }
                for (const std::size_t index : chunk(c + kAhead - 2)) {
                    results[index]->prefetchPathText();
                }
                for (std::size_t next = c == 0 ? 0 : c + 3; next <= c + 3 && next < chunks;
                     ++next) {
                    prepare(next);
                }
                const auto indices = chunk(c);
                const auto& current = prepared[c % prepared.size()];
                {
                    std::lock_guard lock(_cacheLock);
                    if (c + 3 < chunks) {
                        for (const auto& slot : prepared[(c + 3) % prepared.size()]) {
                            cache->prefetchKey(slot.key);
                        }
                    }
                    if (c + 2 < chunks) {
                        for (const auto& slot : prepared[(c + 2) % prepared.size()]) {
                            qn::prefetchRange(cache->findEntryForKey(slot.key),
                                              sizeof(QNiCloudCacheEntry));
                        }
                    }
                    if (c + 1 < chunks) {
                        for (const auto& slot : prepared[(c + 1) % prepared.size()]) {
                            if (const auto* entry = cache->findEntryForKey(slot.key)) {
                                qn::prefetchRange(entry->metadataItem().get(),
                                                  sizeof(QNiCloudMetadataItem));
                            }
                        }
                    }
                    const bool ownsHints = takeComparisonHintsLocked(query, false);
                    for (std::size_t i = 0; i < indices.size(); ++i) {
                        auto* entry = cache->findEntryForKey(current[i].key);
                        if (ownsHints && indices[i] < _comparisonHints.size()) {
                            _comparisonHints[indices[i]] = entry;
                        }
                        const auto* old = entry != nullptr ? entry->metadataItem().get() : nullptr;
                        unchanged[i] = old != nullptr && old->isUnchangedSince(results[indices[i]]);
                        if (unchanged[i]) {
                            markSeen(entry);
                        }
                    }
                }
                bool changedSomething = false;
                for (std::size_t i = 0; i < indices.size(); ++i) {
                    if (cancelled()) {
                        stop = true;
                        return;
                    }
                    recheckSettledBefore(indices[i]);
                    if (current[i].path.empty() || (unchanged[i] && !changedSomething)) {
                        continue;
                    }
                    changedSomething =
                        compareAndNote(results[indices[i]], current[i].path) || changedSomething;
                }
            }
            if (!cancelled()) {
                recheckSettledBefore(results.size());
            }
        };

    query->enumerateResultSpansUsingBlock(
        std::numeric_limits<std::size_t>::max(),
        [&](std::span<const std::shared_ptr<const qn::MetadataItem>> results, std::size_t,
            bool& stop) {
            const std::size_t count = results.size();
            std::vector<const QNiCloudCacheEntry*> settled(count, nullptr);
            std::vector<std::size_t> pending;
            {
                std::unique_lock lock(_cacheLock);
                bool usable = hintsUsable();
                for (std::size_t i = 0; i < count; ++i) {
                    if (i % 4096 == 4095) {  // let the host's file operations in now and then
                        lock.unlock();
                        lock.lock();
                        usable = hintsUsable();
                    }
                    auto* entry =
                        usable && i < _comparisonHints.size() ? _comparisonHints[i] : nullptr;
                    const auto* old = entry != nullptr ? entry->metadataItem().get() : nullptr;
                    if (old != nullptr && old->isUnchangedSince(results[i])) {
                        settled[i] = entry;
                        markSeen(entry);
                    } else {
                        pending.push_back(i);
                    }
                }
                if (takeComparisonHintsLocked(query, false)) {
                    _comparisonHints.resize(count);
                }
            }
            comparePending(results, pending, settled, stop);
        });

    std::vector<std::string> missing;
    {
        std::lock_guard lock(_cacheLock);
        const auto root = cache->entryForRelativePath("/");
        const std::uint64_t rootStamped = root != nullptr && root->comparisonRun() == run ? 1 : 0;
        const bool everyEntryStamped =
            root != nullptr && stamped - rootStamped + 1 == cache->count() &&
            cache->indexChangeCount() == indexChangesAtStart + ownIndexChanges;
        if (!everyEntryStamped) {
            cache->enumerateSubentriesOfEntry(root, [&](const QNiCloudCache::EntryPointer& entry) {
                if (entry->comparisonRun() != run) {
                    missing.push_back(*cache->absolutePathForEntry(entry));
                }
                return !cancelled();
            });
        }
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
    {
        // The hints stand only if every entry they name is still where it was found: no entry
        // left the index during the run.
        std::lock_guard lock(_cacheLock);
        if (!takeComparisonHintsLocked(query, false)) {
            // Another query has the hints; they are its runs' to vouch for.
        } else if (cache->indexRemovalCount() == indexRemovalsAtStart) {
            _comparisonHintsCache = cache;
            _comparisonHintsIndexRemovals = indexRemovalsAtStart;
        } else {
            _comparisonHintsCache.reset();
        }
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
