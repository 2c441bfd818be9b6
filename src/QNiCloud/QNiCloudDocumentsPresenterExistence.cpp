// Whether an item exists, and its attributes. An item in the cloud may exist without a local copy,
// so the cache is asked before the disk, and a cloud-only item's attributes are made up from its
// cached metadata.

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/util/Packages.h"
#include "qn/util/PathNormalization.h"

bool QNiCloudDocumentsPresenter::itemExistsAtPath(std::string_view path, bool* isDirectory) {
    return itemExistsAtURL(qn::URL::fileURLWithPath(path), isDirectory);
}

bool QNiCloudDocumentsPresenter::itemExistsAtURL(const qn::URL& url, bool* isDirectory) {
    return itemExistsAtURL(url, isDirectory, nullptr);
}

bool QNiCloudDocumentsPresenter::fileExistsAtURL(const qn::URL& url, bool* isDirectory) {
    return itemExistsAtURL(url, isDirectory);
}

bool QNiCloudDocumentsPresenter::fileExistsAtPath(std::string_view path, bool* isDirectory) {
    return itemExistsAtPath(path, isDirectory);
}

bool QNiCloudDocumentsPresenter::itemExistsAtURL(const qn::URL& url, bool* isDirectory,
                                                 qn::URL* existingURL) {
    if (url.isEmpty()) {
        return false;
    }
    setupiCloudContainerIfSafeAndNecessary();
    const auto fileManager = qn::FileManager::defaultManager();
    std::optional<qn::URL> found;
    std::optional<std::string> cachedPath;
    if (const auto cache = this->cache()) {
        std::lock_guard lock(_cacheLock);
        if (const auto entry = cache->entryForPath(url.path())) {
            // The cache's spelling of the name, which may differ from the caller's.
            cachedPath = cache->absolutePathForEntry(entry);
        }
    }
    bool exists = cachedPath.has_value();
    if (exists) {
        found = qn::URL::fileURLWithPath(*cachedPath);
    }
    if (!exists && fileManager->fileExistsAtPath(url.path(), isDirectory)) {
        exists = true;
    }
    if (!exists) {
        if (cacheInitialized()) {
            if (existingURL != nullptr) {
                *existingURL = qn::URL();
            }
            return false;
        }
        // Before the cache knows every item, a name may be on disk in another letter case.
        const qn::URL parent = url.URLByDeletingLastPathComponent();
        const std::string wanted = qn::lowercaseNFC(url.lastPathComponent());
        for (const auto& name :
             contentsOfDirectoryAtURL(parent, true).value_or(std::vector<std::string>())) {
            if (qn::lowercaseNFC(name) == wanted) {
                found = parent.URLByAppendingPathComponent(name);
                exists = true;
                break;
            }
        }
        if (!exists) {
            if (existingURL != nullptr) {
                *existingURL = qn::URL();
            }
            return false;
        }
    }
    if (isDirectory != nullptr) {
        // Kept on purpose: an item found on disk under the caller's own spelling has no found
        // URL, and so is reported as no directory, whatever the file manager said.
        const auto value =
            found ? fileManager->resourceValue(*found, qn::NSURLIsDirectoryKey) : std::nullopt;
        *isDirectory = value && value->boolValue().value_or(false);
    }
    if (existingURL != nullptr) {
        *existingURL = found.value_or(qn::URL());
    }
    return true;
}

std::optional<qn::Date> QNiCloudDocumentsPresenter::modificationDateForItemAtURL(const qn::URL& url,
                                                                                 qn::Error* error) {
    if (url.isEmpty()) {
        return std::nullopt;
    }
    setupiCloudContainerIfSafeAndNecessary();
    if (cacheInitialized()) {
        const auto item = metadataItemForURL(url);
        if (item == nullptr) {
            return std::nullopt;
        }
        // The cache's own snapshot, which the presenter's queue updates under this lock.
        std::lock_guard lock(_cacheLock);
        return item->fsContentChangeDate();
    }
    const auto attributes =
        qn::FileManager::defaultManager()->attributesOfItemAtPath(url.path(), error);
    if (!attributes) {
        return std::nullopt;
    }
    const qn::Date* date = attributes->dateForKey(qn::NSFileModificationDate);
    return date != nullptr ? std::optional<qn::Date>(*date) : std::nullopt;
}

bool QNiCloudDocumentsPresenter::loadAttributesOfItemAtPath(
    std::string_view path, qn::Dictionary* attributes, qn::Dictionary* linkDestinationAttributes,
    qn::Error* error) {
    setupiCloudContainerIfSafeAndNecessary();
    bool loaded = false;
    qn::Error readError;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateReadingItemAtURL(
        qn::URL::fileURLWithPath(path),
        qn::NSFileCoordinatorReadingResolvesSymbolicLink |
            qn::NSFileCoordinatorReadingImmediatelyAvailableMetadataOnly,
        &coordinationError, [&](const qn::URL& readingURL) {
            loaded = qn::FileManager::defaultManager()->loadAttributesOfItemAtPath(
                readingURL.path(), attributes, linkDestinationAttributes, &readError);
        });
    if (!readError && coordinationError) {
        readError = coordinationError;
    }
    if (!loaded) {
        const bool cocoa = readError.domain() == qn::NSCocoaErrorDomain;
        if (cocoa && readError.code() == qn::NSFileReadNoPermissionError &&
            qn::isEqualToPath(path, documentsDirectoryURL().path())) {
            // Sandboxed hosts may not read the Documents directory itself; it is a directory
            // all the same.
            if (attributes != nullptr) {
                *attributes = qn::Dictionary{{qn::NSFileType, qn::NSFileTypeDirectory}};
            }
            loaded = true;
            readError = qn::Error();
        } else if (cocoa && readError.code() == qn::NSFileReadNoSuchFileError) {
            // In the cloud but not downloaded: answer from what the cloud told us.
            if (const auto item = metadataItemForPath(path)) {
                std::lock_guard lock(_cacheLock);
                if (attributes != nullptr) {
                    qn::Dictionary made{
                        {qn::NSFileType, QNIsPackageFilePath(path) ? qn::NSFileTypeDirectory
                                                                   : qn::NSFileTypeRegular},
                        {qn::NSFileSize, item->contentSize()}};
                    if (const auto& date = item->fsContentChangeDate()) {
                        made.set(qn::NSFileModificationDate, *date);
                    }
                    *attributes = std::move(made);
                }
                loaded = true;
                readError = qn::Error();
            }
        }
    }
    if (error != nullptr && readError) {
        *error = readError;
    }
    return loaded;
}

bool QNiCloudDocumentsPresenter::setAttributes(const qn::Dictionary& attributes,
                                               std::string_view ofItemAtPath, qn::Error* error) {
    bool applied = false;
    qn::Error writeError;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateWritingItemAtURL(
        qn::URL::fileURLWithPath(ofItemAtPath),
        qn::NSFileCoordinatorWritingContentIndependentMetadataOnly, &coordinationError,
        [&](const qn::URL& writingURL) {
            applied = qn::FileManager::defaultManager()->setAttributes(
                attributes, writingURL.path(), &writeError);
        });
    if (writeError && error != nullptr) {
        *error = coordinationError ? coordinationError : writeError;
    }
    return applied;
}
