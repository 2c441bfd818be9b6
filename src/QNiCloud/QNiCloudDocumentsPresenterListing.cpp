// Listing and walking the container's directories. Once the cache holds the whole container the
// answers come from it alone, so that items the cloud has but the disk does not yet are listed
// too and the disk is not touched; before that the disk is all there is.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDirectoryEnumerator.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/LocalizedString.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

// A directory the initialised cache does not know. The listing says no more than that.
qn::Error notInCacheError() {
    return qn::Error(QNiCloudErrorDomain, QNiCloudErrorFileExists,
                     {{qn::NSLocalizedDescriptionKey,
                       qn::localizedString("The operation couldn't be completed.", "", "")}});
}

// Passes a failed coordination on when nothing else has reported an error.
void keepCoordinationError(qn::Error* error, const qn::Error& coordinationError) {
    if (error != nullptr && coordinationError && !*error) {
        *error = coordinationError;
    }
}

}  // namespace

std::optional<std::vector<std::string>> QNiCloudDocumentsPresenter::contentsOfDirectoryAtPath(
    std::string_view path, qn::Error* error) {
    return contentsOfDirectoryAtPath(path, true, error);
}

std::optional<std::vector<std::string>> QNiCloudDocumentsPresenter::contentsOfDirectoryAtPath(
    std::string_view path, bool coordinate, qn::Error* error) {
    return contentsOfDirectoryAtURL(qn::URL::fileURLWithPath(path), coordinate, error);
}

std::optional<std::vector<std::string>> QNiCloudDocumentsPresenter::contentsOfDirectoryAtURL(
    const qn::URL& url, bool coordinate, qn::Error* error) {
    if (url.isEmpty()) {
        return std::nullopt;
    }
    setupiCloudContainerIfSafeAndNecessary();
    const auto cache = this->cache();
    {
        std::unique_lock lock(_cacheLock);
        if (cacheInitialized() && cache != nullptr) {
            if (const auto entry = cache->entryForPath(url.path())) {
                std::vector<std::string> names;
                for (auto child = entry->firstChild(); child != nullptr; child = child->next()) {
                    names.emplace_back(child->name());
                }
                return names;
            }
            if (qn::isEqualToPath(url.path(), cache->cachedDirectoryPath())) {
                return std::vector<std::string>();
            }
            qn::setError(error, notInCacheError());
            return std::nullopt;
        }
    }
    const auto fileManager = qn::FileManager::defaultManager();
    if (!coordinate) {
        return fileManager->contentsOfDirectoryAtPath(url.path(), error);
    }
    std::optional<std::vector<std::string>> contents;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateReadingItemAtURL(
        url, qn::NSFileCoordinatorReadingWithoutChanges, &coordinationError,
        [&](const qn::URL& readingURL) {
            contents = fileManager->contentsOfDirectoryAtPath(readingURL.path(), error);
        });
    keepCoordinationError(error, coordinationError);
    return contents;
}

std::optional<std::vector<std::string>> QNiCloudDocumentsPresenter::subpathsOfDirectoryAtURL(
    const qn::URL& url, qn::Error* error) {
    return subpathsOfDirectoryAtPath(url.path(), error);
}

std::optional<std::vector<std::string>> QNiCloudDocumentsPresenter::subpathsOfDirectoryAtPath(
    std::string_view path, qn::Error* error) {
    if (path.empty()) {
        return std::nullopt;
    }
    setupiCloudContainerIfSafeAndNecessary();
    const auto cache = this->cache();
    {
        std::unique_lock lock(_cacheLock);
        if (cacheInitialized() && cache != nullptr) {
            const auto entry = cache->entryForPath(path);
            if (entry == nullptr) {
                qn::setError(error, notInCacheError());
                return std::nullopt;
            }
            std::vector<std::string> subpaths;
            cache->enumerateSubpathsOfEntry(entry, [&](std::optional<std::string_view> subpath) {
                if (subpath) {
                    subpaths.emplace_back(*subpath);
                }
                return true;
            });
            return subpaths;
        }
    }
    std::optional<std::vector<std::string>> subpaths;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateReadingItemAtURL(
        qn::URL::fileURLWithPath(path), qn::NSFileCoordinatorReadingWithoutChanges,
        &coordinationError, [&](const qn::URL& readingURL) {
            subpaths = qn::FileManager::defaultManager()->subpathsOfDirectoryAtPath(
                readingURL.path(), error);
        });
    keepCoordinationError(error, coordinationError);
    return subpaths;
}

void QNiCloudDocumentsPresenter::enumerateDirectoryAtURL(
    const qn::URL& url, const DirectoryEnumerationBlock& withEnumerator) {
    enumerateDirectoryAtPath(url.path(), false, withEnumerator);
}

void QNiCloudDocumentsPresenter::enumerateDirectoryAtURL(
    const qn::URL& url, bool extractFileAttributes, const DirectoryEnumerationBlock& enumerator) {
    enumerateDirectoryAtPath(url.path(), extractFileAttributes, enumerator);
}

void QNiCloudDocumentsPresenter::enumerateDirectoryAtPath(
    std::string_view path, const DirectoryEnumerationBlock& withEnumerator) {
    enumerateDirectoryAtPath(path, false, withEnumerator);
}

void QNiCloudDocumentsPresenter::enumerateDirectoryAtPath(
    std::string_view path, bool extractFileAttributes,
    const DirectoryEnumerationBlock& enumerator) {
    if (path.empty()) {
        return;
    }
    auto& logger = l4Logger();
    setupiCloudContainerIfSafeAndNecessary();
    const auto fileManager = qn::FileManager::defaultManager();
    const auto cache = this->cache();
    {
        std::unique_lock lock(_cacheLock);
        if (cacheInitialized() && cache != nullptr) {
            // The lock stays held across the callbacks, so the walk sees one consistent tree.
            cache->enumerateSubpathsOfEntryAtPath(path, [&](std::optional<std::string_view> sub) {
                if (!sub) {
                    return true;
                }
                const std::string subpath(*sub);
                std::optional<qn::Dictionary> attributes;
                if (extractFileAttributes) {
                    const std::string fullPath = qn::stringByAppendingPathComponent(path, subpath);
                    qn::Error error;
                    attributes = fileManager->attributesOfItemAtPath(fullPath, &error);
                    if (!attributes && error) {
                        logger.error("Unable to get attribtues of file {}. Error: {}", fullPath,
                                     error);
                    }
                }
                return enumerator(subpath, attributes);
            });
            return;
        }
    }
    newFileCoordinator()->coordinateReadingItemAtURL(
        qn::URL::fileURLWithPath(path), qn::NSFileCoordinatorReadingWithoutChanges, nullptr,
        [&](const qn::URL& readingURL) {
            const auto walk = fileManager->enumeratorAtPath(readingURL.path());
            if (walk == nullptr) {
                return;
            }
            for (qn::Value object = walk->nextObject(); !object.isNull();
                 object = walk->nextObject()) {
                const std::string* subpath = object.stringValue();
                if (subpath == nullptr) {
                    continue;
                }
                const auto attributes =
                    extractFileAttributes ? walk->fileAttributes() : std::nullopt;
                if (!enumerator(*subpath, attributes)) {
                    return;
                }
            }
        });
}

std::unique_ptr<qn::DirectoryEnumerator> QNiCloudDocumentsPresenter::enumeratorAtPath(
    std::string_view path, qn::DirectoryEnumerationOptions options) {
    setupiCloudContainerIfSafeAndNecessary();
    if (cacheInitialized()) {
        const auto cache = this->cache();
        QNiCloudCache::EntryPointer root;
        {
            // Only the lookup is guarded; the enumerator walks the tree on the caller's terms.
            std::lock_guard lock(_cacheLock);
            root = cache != nullptr ? cache->entryForPath(path) : nullptr;
        }
        return std::make_unique<QNiCloudDirectoryEnumerator>(std::move(root), options);
    }
    return qn::FileManager::defaultManager()->enumeratorAtURL(qn::URL::fileURLWithPath(path), {},
                                                              options, nullptr);
}
