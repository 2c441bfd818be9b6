// The presenter's answers about one item's cloud state: its metadata, whether it (or everything
// below a directory) is downloaded, whether the library should download it on its own, and the
// one way to change a cached item's state ahead of the query; and the download requests, which
// the downloads manager serves.

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Error.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/util/Packages.h"
#include "qn/util/PathNormalization.h"

namespace {

// The field a change type selects set to `value`; false when it already held it, or when the
// type selects nothing or the value is of another kind.
bool setField(QNiCloudMetadataItem& item, QNiCloudFileChangeType type, const qn::Value& value) {
    // Exact equality: any difference is news (and a not-a-number percentage always is).
    const auto set = [&item]<class T>(T current, std::optional<T> wanted,
                                      void (QNiCloudMetadataItem::*setter)(T)) {
        if (!wanted || *wanted == current) {
            return false;
        }
        (item.*setter)(*wanted);
        return true;
    };
    const auto flag = value.boolValue();
    const auto percent = value.doubleValue();
    switch (type) {
        case QNiCloudFileChangeDownloaded:
            return set(item.isDownloaded(), flag, &QNiCloudMetadataItem::setIsDownloaded);
        case QNiCloudFileChangeDownloadingStarted:
            return set(item.isDownloading(), flag, &QNiCloudMetadataItem::setIsDownloading);
        case QNiCloudFileChangeDownloadProgress:
            return set(item.percentDownloaded(), percent,
                       &QNiCloudMetadataItem::setPercentDownloaded);
        case QNiCloudFileChangeUploaded:
            return set(item.isUploaded(), flag, &QNiCloudMetadataItem::setIsUploaded);
        case QNiCloudFileChangeUploadingStarted:
            return set(item.isUploading(), flag, &QNiCloudMetadataItem::setIsUploading);
        case QNiCloudFileChangeUploadProgress:
            return set(item.percentUploaded(), percent, &QNiCloudMetadataItem::setPercentUploaded);
        // Both conflict types write the value as given: 7 with false clears the flag.
        case QNiCloudFileChangeConflictAppeared:
        case QNiCloudFileChangeConflictResolved:
            return set(item.hasUnresolvedConflicts(), flag,
                       &QNiCloudMetadataItem::setHasUnresolvedConflicts);
        case QNiCloudFileChangeContentChanged: {
            const qn::Date* date = value.dateValue();
            if (date == nullptr || item.fsContentChangeDate() == *date) {
                return false;
            }
            item.setFsContentChangeDate(*date);
            return true;
        }
        default:
            return false;
    }
}

}  // namespace

std::shared_ptr<QNiCloudMetadataItem> QNiCloudDocumentsPresenter::metadataItemForURL(
    const qn::URL& url) {
    return metadataItemForPath(url.path());
}

std::shared_ptr<QNiCloudMetadataItem> QNiCloudDocumentsPresenter::metadataItemForPath(
    std::string_view path) {
    if (path.empty() || !isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(path)) {
        return nullptr;
    }
    if (cacheInitialized()) {
        const auto cache = this->cache();
        std::lock_guard lock(_cacheLock);
        const auto entry = cache != nullptr ? cache->entryForPath(path) : nullptr;
        return entry != nullptr ? entry->metadataItem() : nullptr;
    }
    const auto uploaded = qn::FileManager::defaultManager()->resourceValue(
        qn::URL::fileURLWithPath(path), qn::NSURLUbiquitousItemIsUploadedKey);
    return QNiCloudMetadataItem::metadataItemWithPath(
        path, isFileDownloadedAtPath(path), uploaded && uploaded->boolValue().value_or(false));
}

void QNiCloudDocumentsPresenter::updateMetadataItemForURL(const qn::URL& url,
                                                          const qn::Value& value,
                                                          QNiCloudFileChangeType type,
                                                          bool notify) {
    updateMetadataItemForPath(url.path(), value, type, notify);
}

void QNiCloudDocumentsPresenter::updateMetadataItemForPath(std::string_view path,
                                                           const qn::Value& value,
                                                           QNiCloudFileChangeType type,
                                                           bool notify) {
    if (path.empty()) {
        return;
    }
    const std::string normalized = qn::stringByNormalizingPath(path);
    bool changed = false;
    if (const auto cache = this->cache()) {
        std::lock_guard lock(_cacheLock);
        const auto entry = cache->entryForPath(normalized);
        if (const auto& item = entry != nullptr ? entry->metadataItem() : nullptr) {
            changed = setField(*item, type, value);
        }
    }
    if (changed && notify) {
        notifyFileDidChangeAtNormalizedPath(normalized, type);
    }
}

bool QNiCloudDocumentsPresenter::isFileDownloadedAtPath(std::string_view path) {
    return !path.empty() && isFileDownloadedAtURL(qn::URL::fileURLWithPath(path));
}

bool QNiCloudDocumentsPresenter::isFileDownloadedAtURL(const qn::URL& url) {
    if (!isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryURL(url)) {
        return true;  // only the cloud's items can be missing
    }
    if (cacheInitialized()) {
        // The cached item itself, read under the lock that guards its updates.
        const auto cache = this->cache();
        std::lock_guard lock(_cacheLock);
        const auto entry = cache != nullptr ? cache->entryForPath(url.path()) : nullptr;
        const auto& item = entry != nullptr ? entry->metadataItem() : nullptr;
        return item != nullptr && item->isDownloaded();
    }
    setupiCloudContainerIfSafeAndNecessary();
    const auto fileManager = qn::FileManager::defaultManager();
    qn::Error error;
    const auto status =
        fileManager->resourceValue(url, qn::NSURLUbiquitousItemDownloadingStatusKey, &error);
    if (status && !error) {
        const std::string* text = status->stringValue();
        return text != nullptr && *text == qn::NSURLUbiquitousItemDownloadingStatusCurrent;
    }
    qn::Error olderError;
    const auto downloaded =
        fileManager->resourceValue(url, "NSURLUbiquitousItemIsDownloadedKey", &olderError);
    return downloaded && !olderError && downloaded->boolValue().value_or(false);
}

bool QNiCloudDocumentsPresenter::isDirectoryDownloadedAtPath(std::string_view path) {
    ensureCacheInitialized();
    bool downloaded = false;
    const auto cache = this->cache();
    if (cache == nullptr) {
        return false;
    }
    std::lock_guard lock(_cacheLock);
    cache->enumerateSubentriesOfEntryAtPath(path, [&](const QNiCloudCache::EntryPointer& entry) {
        if (const auto& item = entry->metadataItem()) {
            downloaded = item->isDownloaded();
            return downloaded;
        }
        return true;  // a plain folder says nothing either way
    });
    return downloaded;
}

bool QNiCloudDocumentsPresenter::isDirectoryDownloadedAtURL(const qn::URL& url) {
    return isDirectoryDownloadedAtPath(url.path());
}

bool QNiCloudDocumentsPresenter::shouldStartDownloadForItemAtURL(const qn::URL& url) {
    return shouldStartDownloadForItemAtURL(url, nullptr);
}

bool QNiCloudDocumentsPresenter::shouldStartDownloadForItemAtURL(
    const qn::URL& url, const QNiCloudMetadataItem* withMetadataItem) {
    if (withMetadataItem != nullptr &&
        (withMetadataItem->isDownloaded() || withMetadataItem->isDownloading() ||
         !withMetadataItem->isUploaded())) {
        return false;  // here already, on its way, or nothing in the cloud to fetch yet
    }
    const std::string extension = qn::lowercasePath(url.pathExtension());
    const bool package = QNIsPackageFileURL(url);
    const auto directoryValue =
        qn::FileManager::defaultManager()->resourceValue(url, qn::NSURLIsDirectoryKey);
    const bool plainFolder =
        directoryValue && directoryValue->boolValue().value_or(false) && !package;
    const auto allowed = extensionsAllowedForAutomaticDownload();
    if (!allowed || allowed->empty()) {
        return !plainFolder;
    }
    if (plainFolder) {
        return false;
    }
    return extension.empty() || allowed->contains(extension);
}

void QNiCloudDocumentsPresenter::downloadItemAtURL(const qn::URL& url) {
    l4Logger().debug("Download of item at URL {} requested.", url);
    QNiCloudDownloadsManager::sharedManager()->downloadItemAtURL(url);
}

QNBackgroundOperationPointer QNiCloudDocumentsPresenter::downloadItemsAtURLs(
    const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
    QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
    QNiCloudDownloadsProgressHandler progressHandler,
    QNiCloudDownloadsCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    setupiCloudContainerIfSafeAndNecessary();  // declined on the main thread: go on without
    return QNiCloudDownloadsManager::sharedManager()->downloadItemsAtURLs(
        urls, std::move(operation), std::move(fileDownloadProgressHandler),
        std::move(fileDownloadCompletionHandler), std::move(progressHandler),
        std::move(completionHandler), std::move(errorHandler));
}

QNBackgroundOperationPointer QNiCloudDocumentsPresenter::downloadItemAtURL(
    const qn::URL& url, bool isDirectory, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler progressHandler,
    QNiCloudFileDownloadCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    setupiCloudContainerIfSafeAndNecessary();  // declined on the main thread: go on without
    return QNiCloudDownloadsManager::sharedManager()->downloadItemAtURL(
        url, isDirectory, std::move(operation), std::move(progressHandler),
        std::move(completionHandler), std::move(errorHandler));
}

QNBackgroundOperationPointer QNiCloudDocumentsPresenter::downloadItemAtPath(
    std::string_view path, bool isDirectory, QNBackgroundOperationPointer operation,
    QNiCloudFileDownloadProgressHandler progressHandler,
    QNiCloudFileDownloadCompletionHandler completionHandler,
    QNiCloudDownloadErrorHandler errorHandler) {
    setupiCloudContainerIfSafeAndNecessary();  // declined on the main thread: go on without
    return QNiCloudDownloadsManager::sharedManager()->downloadItemAtPath(
        path, isDirectory, std::move(operation), std::move(progressHandler),
        std::move(completionHandler), std::move(errorHandler));
}
