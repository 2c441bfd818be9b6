// Keeping the conflict flags of the cached items honest. The ubiquity service flags an item as
// conflicting as soon as it stores a conflict version, even one whose contents are the same as
// the item's own file (two computers saving the same edit). Such a version is not worth the
// user's attention, so the presenter removes it quietly and only real conflicts count. When the
// host resolves a real conflict, the cache and the host hear of the outcome at once.

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/DispatchQueue.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/FileVersionConflicts.h"
#include "qn/MainQueue.h"
#include "qn/util/PathNormalization.h"

bool QNiCloudDocumentsPresenter::checkIfItemAtURLHasUnresolvedConflicts(
    const qn::URL& url, bool andResolveInvalidConflicts) {
    l4Logger().debug("Going to check number of conflicts versions for url {}.", url);
    auto versions = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(url);
    if (andResolveInvalidConflicts && !versions.empty()) {
        versions = resolveInvalidConflictsForItemAtURL(url, versions);
    }
    return !versions.empty();
}

std::vector<std::shared_ptr<qn::FileVersion>>
QNiCloudDocumentsPresenter::resolveInvalidConflictsForItemAtURL(
    const qn::URL& url,
    const std::vector<std::shared_ptr<qn::FileVersion>>& usingUresolvedConflictVersions) {
    const auto current = qn::FileVersion::currentVersionOfItemAtURL(url);
    std::vector<std::shared_ptr<qn::FileVersion>> remaining;
    remaining.reserve(usingUresolvedConflictVersions.size());
    const auto coordinator = newFileCoordinator();
    for (const auto& version : usingUresolvedConflictVersions) {
        if (version == nullptr) {
            continue;
        }
        bool identical = false;
        // Without a file there is nothing a version could duplicate: every version is real.
        if (current != nullptr) {
            coordinator->coordinateReadingItemAtURL(
                current->URL(), qn::NSFileCoordinatorReadingWithoutChanges, nullptr,
                [&](const qn::URL& readingURL) {
                    identical = qn::FileManager::defaultManager()->contentsEqualAtPath(
                        readingURL.path(), version->URL().path());
                });
        }
        if (!identical) {
            remaining.push_back(version);
            continue;
        }
        l4Logger().info("Going to remove invalid conflict version for URL {}.", url);
        qn::Error error;
        if (!qn::removeConflictFileVersion(version, nullptr, &error)) {
            // The version still does not count: its contents are the file's own.
            l4Logger().error("Unable to remove invalid conflict version for URL {}. Error: {}.",
                             url, error);
        }
    }
    return remaining;
}

bool QNiCloudDocumentsPresenter::checkIfItemAtURLHasUnresolvedConflicts(
    const qn::URL& url, QNiCloudMetadataItem& metadataItem) {
    const bool hasConflicts = checkIfItemAtURLHasUnresolvedConflicts(url, true);
    if (metadataItem.hasUnresolvedConflicts() != hasConflicts) {
        metadataItem.setHasUnresolvedConflicts(hasConflicts);
        notifyFileDidChangeAtPath(url.path(), hasConflicts ? QNiCloudFileChangeConflictAppeared
                                                           : QNiCloudFileChangeConflictResolved);
    }
    return hasConflicts;
}

void QNiCloudDocumentsPresenter::checkIfItemAtURLHasUnresolvedConflicts(
    const qn::URL& url, std::shared_ptr<QNiCloudMetadataItem> metadataItem,
    std::function<void(bool)> completionHandler) {
    if (metadataItem == nullptr) {
        throw std::invalid_argument("A conflict check needs the metadata item to update.");
    }
    qn::DispatchQueue::global(qn::QualityOfService::Default)
        .async([presenter = self(), url, metadataItem = std::move(metadataItem),
                completionHandler = std::move(completionHandler)]() mutable {
            const bool hasConflicts =
                presenter->checkIfItemAtURLHasUnresolvedConflicts(url, *metadataItem);
            if (completionHandler) {
                qn::MainQueue::async([completionHandler = std::move(completionHandler),
                                      hasConflicts] { completionHandler(hasConflicts); });
            }
        });
}

bool QNiCloudDocumentsPresenter::updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(
    QNiCloudMetadataItem& metadataItem, const qn::URL& url) {
    // Only a reported conflict can be a false one; absent conflicts are never looked for.
    if (!metadataItem.hasUnresolvedConflicts()) {
        return false;
    }
    const bool hasConflicts = checkIfItemAtURLHasUnresolvedConflicts(url, true);
    metadataItem.setHasUnresolvedConflicts(hasConflicts);
    return !hasConflicts;
}

// Resolving a conflict. The file work is the platform's; the presenter only keeps its cache and
// the host in step: each saved copy is a new local document, and once the conflict is over the
// item's flag is cleared at once instead of waiting for the query to report it.

void QNiCloudDocumentsPresenter::resolveConflictsForItemAtURL(
    const qn::URL& url, std::vector<std::shared_ptr<qn::FileVersion>> bySavingVersions,
    std::vector<std::shared_ptr<qn::FileVersion>> andDeletingVersions,
    const qn::URL& parentURLToSaveTo, std::shared_ptr<qn::FileCoordinator> fileCoordinator,
    qn::ConflictRemoveCurrentVersionHandler removeCurrentVersionHandler,
    qn::ConflictProgressHandler progressHandler, qn::ConflictCompletionHandler completionHandler,
    qn::ConflictErrorHandler errorHandler) {
    const auto progress = [this, &progressHandler](const std::shared_ptr<qn::FileVersion>& version,
                                                   std::size_t handledCount,
                                                   const std::optional<qn::URL>& savedURL,
                                                   std::size_t totalCount) {
        if (savedURL) {
            updateCacheAfterCreationOfItemAtPath(savedURL->path(), true);
            notifyFileDidAppearAtPath(savedURL->path(), false);
        }
        if (progressHandler) {
            progressHandler(version, handledCount, savedURL, totalCount);
        }
    };
    const auto completion = [this, &url, &completionHandler](
                                const qn::URL& itemURL, const std::vector<qn::URL>& savedURLs) {
        const std::string path =
            qn::stringByNormalizingPath(url.path(), qn::QNPathNormalizationStandard);
        std::shared_ptr<QNiCloudMetadataItem> item;
        if (const auto cache = this->cache()) {
            // Only the lookup needs the lock: the flag is atomic, and the notification must be
            // posted without the lock.
            std::lock_guard lock(_cacheLock);
            if (const auto entry = cache->entryForNormalizedPath(path)) {
                item = entry->metadataItem();
            }
        }
        if (item != nullptr) {
            item->setHasUnresolvedConflicts(false);
        }
        notifyFileDidChangeAtNormalizedPath(path, QNiCloudFileChangeConflictResolved);
        if (completionHandler) {
            completionHandler(itemURL, savedURLs);
        }
    };
    qn::resolveConflictsForItemAtURL(url, std::move(bySavingVersions),
                                     std::move(andDeletingVersions), parentURLToSaveTo,
                                     std::move(fileCoordinator), removeCurrentVersionHandler,
                                     progress, completion, errorHandler);
}

void QNiCloudDocumentsPresenter::resolveConflictsBySavingLatestVersionForItemAtURL(
    const qn::URL& url, const qn::URL& parentURLToSaveTo,
    qn::ConflictRemoveCurrentVersionHandler removeCurrentVersionHandler,
    qn::ConflictProgressHandler progressHandler, qn::ConflictCompletionHandler completionHandler,
    qn::ConflictErrorHandler errorHandler) {
    auto coordinator = newFileCoordinator();
    qn::DispatchQueue::global(qn::QualityOfService::Default)
        .async([presenter = self(), url, parentURLToSaveTo, coordinator = std::move(coordinator),
                removeCurrentVersionHandler = std::move(removeCurrentVersionHandler),
                progressHandler = std::move(progressHandler),
                completionHandler = std::move(completionHandler),
                errorHandler = std::move(errorHandler)]() mutable {
            const auto latest = qn::FileVersion::latestVersionOfItemAtURL(url);
            if (latest == nullptr) {
                return;
            }
            // Every other version goes, each once however often it is listed.
            std::vector<std::shared_ptr<qn::FileVersion>> toDelete;
            for (auto& version : qn::FileVersion::allVersionsOfItemAtURL(url)) {
                const auto same = [&](const std::shared_ptr<qn::FileVersion>& other) {
                    return other->isEqual(*version);
                };
                if (!version->isEqual(*latest) &&
                    std::none_of(toDelete.begin(), toDelete.end(), same)) {
                    toDelete.push_back(std::move(version));
                }
            }
            presenter->resolveConflictsForItemAtURL(
                url, {latest}, std::move(toDelete), parentURLToSaveTo, std::move(coordinator),
                std::move(removeCurrentVersionHandler), std::move(progressHandler),
                std::move(completionHandler), std::move(errorHandler));
        });
}
