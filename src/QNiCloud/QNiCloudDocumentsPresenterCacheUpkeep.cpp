// Keeping the cache right after the library's own file operations, without waiting for the query
// to report them, and after changes that other coordinators report to the presenter; evicting
// items whose metadata and disk disagree.

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Error.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/util/Packages.h"

template <class Change>
void QNiCloudDocumentsPresenter::changeCache(std::string_view path, Change&& change) {
    const auto cache = this->cache();
    if (cache == nullptr) {
        return;
    }
    std::lock_guard lock(_cacheLock);
    try {
        change(*cache);
    } catch (const std::out_of_range& error) {
        // Paths that collide in the cache's hash can make its index refuse a removal; the
        // query's next comparison sets the entries right.
        l4Logger().error("Unable to update iCloud cache at path {}. Error: {}.", path,
                         error.what());
    }
}

bool QNiCloudDocumentsPresenter::containsCacheEntryForItemAtPath(std::string_view path) {
    const auto cache = this->cache();
    std::lock_guard lock(_cacheLock);
    return cache != nullptr && cache->entryForPath(path) != nullptr;
}

void QNiCloudDocumentsPresenter::updateCacheAfterMovingOfItemAtPath(std::string_view path,
                                                                    std::string_view toPath) {
    const bool sourceIn = isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(path);
    const bool destinationIn = isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(toPath);
    if (!sourceIn && !destinationIn) {
        return;
    }
    changeCache(path, [&](QNiCloudCache& cache) {
        if (sourceIn && !destinationIn) {
            cache.removeEntryAtPath(path);
        } else if (sourceIn) {
            cache.moveEntryAtPath(path, toPath);
        } else {
            // Already at its destination on disk: read from there.
            cache.createEntryRecursivelyAtPath(toPath, toPath);
        }
    });
}

void QNiCloudDocumentsPresenter::updateCacheAfterCopyingOfItemAtPath(std::string_view path,
                                                                     std::string_view toPath) {
    if (!isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(toPath)) {
        return;
    }
    const bool sourceIn = isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(path);
    changeCache(path, [&](QNiCloudCache& cache) {
        if (sourceIn) {
            cache.copyEntryAtPath(path, toPath);
        } else {
            cache.createEntryRecursivelyAtPath(toPath, path);
        }
    });
}

void QNiCloudDocumentsPresenter::updateCacheAfterCreationOfItemAtPath(std::string_view path) {
    updateCacheAfterCreationOfItemAtPath(path, QNIsPackageOrFilePath(path));
}

void QNiCloudDocumentsPresenter::updateCacheAfterCreationOfItemAtPath(std::string_view path,
                                                                      bool isFileOrPackage) {
    if (!isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(path)) {
        return;
    }
    // A new local file is on disk and not yet in the cloud.
    auto item =
        isFileOrPackage ? QNiCloudMetadataItem::metadataItemWithPath(path, true, false) : nullptr;
    changeCache(path,
                [&](QNiCloudCache& cache) { cache.createEntryAtPath(path, std::move(item)); });
}

void QNiCloudDocumentsPresenter::updateCacheAfterUpdateOfItemAtPath(std::string_view path) {
    if (path.empty()) {
        return;
    }
    qn::Error error;
    const auto date = qn::FileManager::defaultManager()->resourceValue(
        qn::URL::fileURLWithPath(path), qn::NSURLContentModificationDateKey, &error);
    if (!date && error) {
        l4Logger().error("Unable to get file {} modification date after update. Error: {}.", path,
                         error);
    }
    const auto cache = this->cache();
    if (cache == nullptr) {
        return;
    }
    std::lock_guard lock(_cacheLock);
    const auto entry = cache->entryForPath(path);
    if (const auto& item = entry != nullptr ? entry->metadataItem() : nullptr) {
        item->setIsUploaded(false);
        if (date && date->dateValue() != nullptr) {
            item->setFsContentChangeDate(*date->dateValue());
        }
    }
}

void QNiCloudDocumentsPresenter::updateCacheAfterRemovalOfItemAtPath(std::string_view path) {
    updateCacheAfterRemovalOfItemsAtPaths({std::string(path)});
}

void QNiCloudDocumentsPresenter::updateCacheAfterRemovalOfItemsAtPaths(
    const std::vector<std::string>& paths) {
    for (const auto& path : paths) {
        changeCache(path, [&](QNiCloudCache& cache) { cache.removeEntryAtPath(path); });
    }
}

void QNiCloudDocumentsPresenter::presentedSubitemDidChangeAtURL(const qn::URL& url) {
    const std::string& path = url.path();
    bool cached = false;
    bool isDirectory = false;
    if (const auto cache = this->cache()) {
        std::lock_guard lock(_cacheLock);
        if (const auto entry = cache->entryForPath(path)) {
            cached = true;
            isDirectory = entry->isDirectory();
        }
    }
    if (!cached || !checkIfFileReallyDoesNotExistIniCloudAtPath(path)) {
        return;  // changes to items that still exist are the query's to report
    }
    l4Logger().debug("NSFilePresenter. Presented subitem was removed at path {}", path);
    updateCacheAfterRemovalOfItemAtPath(path);
    notifyFileWasRemovedAtPath(path, isDirectory);
}

void QNiCloudDocumentsPresenter::handleBrokenFileAtPath(std::string_view path) {
    l4Logger().warn("Broken file detected at path {}. Let's try to evict this file.", path);
    qn::Error error;
    if (!qn::FileManager::defaultManager()->evictUbiquitousItemAtURL(qn::URL::fileURLWithPath(path),
                                                                     &error)) {
        l4Logger().error("Unable to evict broken file at path {}. Error: {}.", path, error);
    }
}

bool QNiCloudDocumentsPresenter::checkIfFileReallyDoesNotExistIniCloudAtPath(
    std::string_view path) {
    return !qn::FileManager::defaultManager()->fileExistsAtPath(path);
}

bool QNiCloudDocumentsPresenter::evictUbiquitousItemsAtURLs(const std::vector<qn::URL>& urls,
                                                            qn::Error* error) {
    const auto fileManager = qn::FileManager::defaultManager();
    for (const auto& url : urls) {
        if (!fileManager->evictUbiquitousItemAtURL(url, error)) {
            return false;
        }
    }
    return true;
}
