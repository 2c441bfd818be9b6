// Keeping the conflict flags of the cached items honest. The ubiquity service flags an item as
// conflicting as soon as it stores a conflict version, even one whose contents are the same as
// the item's own file (two computers saving the same edit). Such a version is not worth the
// user's attention, so the presenter removes it quietly and only real conflicts count.

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/DispatchQueue.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/FileVersionConflicts.h"
#include "qn/MainQueue.h"

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
