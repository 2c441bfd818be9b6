// Moves, copies, removals and replacements of the container's items. Each is made under the
// presenter's own coordination and followed at once by the cache change it implies, so that the
// host sees the result before the metadata query reports it.

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/LocalizedString.h"
#include "qn/util/QNFileManagerDelegate.h"

namespace {

// The library's own refusal to overwrite: the platform would refuse too, but only for a local
// item, while the destination may exist in the cloud alone.
qn::Error destinationExistsError(const qn::URL& url, const qn::URL& toURL) {
    return qn::Error(QNiCloudErrorDomain, QNiCloudErrorFileExists,
                     {{QNiCloudSourcePathKey, url.path()},
                      {QNiCloudDestionationPathKey, toURL.path()},
                      {qn::NSLocalizedDescriptionKey,
                       qn::localizedString("The operation couldn't be completed.", "", "")}});
}

// A failed coordination is reported only when nothing else reported an error.
void keepCoordinationError(qn::Error* error, const qn::Error& coordinationError) {
    if (error != nullptr && coordinationError && !*error) {
        *error = coordinationError;
    }
}

}  // namespace

// Moving.

bool QNiCloudDocumentsPresenter::moveItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               qn::Error* error) {
    return moveItemAtURL(url, toURL, nullptr, error);
}

bool QNiCloudDocumentsPresenter::moveItemAtPath(std::string_view path, std::string_view toPath,
                                                qn::Dictionary* destinationFileAttributes,
                                                qn::Error* error) {
    return moveItemAtURL(qn::URL::fileURLWithPath(path), qn::URL::fileURLWithPath(toPath),
                         destinationFileAttributes, error);
}

bool QNiCloudDocumentsPresenter::moveItemAtPath(std::string_view path, std::string_view toPath,
                                                qn::Error* error) {
    return moveItemAtPath(path, toPath, nullptr, error);
}

bool QNiCloudDocumentsPresenter::moveItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               qn::Dictionary* destinationFileAttributes,
                                               qn::Error* error) {
    setupiCloudContainerIfSafeAndNecessary();
    const auto coordinator = newFileCoordinator();
    bool moved = false;
    qn::Error coordinationError;
    coordinator->coordinateWritingItemAtURL(
        url, qn::NSFileCoordinatorWritingForMoving, toURL, qn::NSFileCoordinatorWritingForReplacing,
        &coordinationError, [&](const qn::URL& source, const qn::URL& destination) {
            if (itemExistsAtURL(destination, nullptr)) {
                qn::setError(error, destinationExistsError(source, destination));
                return;
            }
            const auto fileManager = qn::FileManager::defaultManager();
            moved = fileManager->moveItemAtURL(source, destination, error);
            if (!moved) {
                return;
            }
            if (destinationFileAttributes != nullptr) {
                moved = fileManager->loadAttributesOfItemAtPath(
                    destination.path(), destinationFileAttributes, nullptr, error);
            }
            updateCacheAfterMovingOfItemAtPath(source.path(), destination.path());
            coordinator->itemAtURL(source, destination);
        });
    keepCoordinationError(error, coordinationError);
    return moved;
}

// Copying.

bool QNiCloudDocumentsPresenter::copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               const FileOperationProgressHandler& progressHandler,
                                               qn::Error* error) {
    return copyItemAtURL(url, toURL, progressHandler, nullptr, error);
}

bool QNiCloudDocumentsPresenter::copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               qn::Dictionary* destinationFileAttributes,
                                               qn::Error* error) {
    return copyItemAtURL(url, toURL, nullptr, destinationFileAttributes, error);
}

bool QNiCloudDocumentsPresenter::copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               qn::Error* error) {
    return copyItemAtURL(url, toURL, nullptr, nullptr, error);
}

bool QNiCloudDocumentsPresenter::copyItemAtPath(std::string_view path, std::string_view toPath,
                                                qn::Dictionary* destinationFileAttributes,
                                                qn::Error* error) {
    return copyItemAtURL(qn::URL::fileURLWithPath(path), qn::URL::fileURLWithPath(toPath), nullptr,
                         destinationFileAttributes, error);
}

bool QNiCloudDocumentsPresenter::copyItemAtPath(std::string_view path, std::string_view toPath,
                                                qn::Error* error) {
    return copyItemAtPath(path, toPath, nullptr, error);
}

bool QNiCloudDocumentsPresenter::copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                                               const FileOperationProgressHandler& progressHandler,
                                               qn::Dictionary* destinationFileAttributes,
                                               qn::Error* error) {
    setupiCloudContainerIfSafeAndNecessary();
    // The destinations of declined items: the cache copies the whole source entry, so they are
    // taken out of the copy afterwards.
    std::vector<std::string> declined;
    const auto fileManager = qn::FileManager::defaultManager()->makePrivateManager();
    fileManager->setDelegate(std::make_shared<QNFileManagerDelegate>(
        [&](const qn::URL& itemURL, const qn::URL& secondURL, bool& proceed) {
            if (progressHandler) {
                progressHandler(itemURL, secondURL, proceed);
            }
            if (!proceed) {
                declined.push_back(secondURL.path());
            }
        }));
    bool copied = false;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateReadingItemAtURL(
        url, qn::NSFileCoordinatorReadingWithoutChanges, toURL,
        qn::NSFileCoordinatorWritingForReplacing, &coordinationError,
        [&](const qn::URL& source, const qn::URL& destination) {
            if (itemExistsAtURL(destination, nullptr)) {
                qn::setError(error, destinationExistsError(source, destination));
                return;
            }
            copied = fileManager->copyItemAtURL(source, destination, error);
            if (!copied) {
                return;
            }
            if (destinationFileAttributes != nullptr) {
                copied = fileManager->loadAttributesOfItemAtPath(
                    destination.path(), destinationFileAttributes, nullptr, error);
            }
            // One change to anyone reading the cache: the copy without its declined items.
            std::lock_guard lock(_cacheLock);
            updateCacheAfterCopyingOfItemAtPath(source.path(), destination.path());
            if (!declined.empty()) {
                updateCacheAfterRemovalOfItemsAtPaths(declined);
            }
        });
    keepCoordinationError(error, coordinationError);
    return copied;
}

// Removing.

bool QNiCloudDocumentsPresenter::removeItemAtURL(const qn::URL& url, qn::Error* error) {
    return removeItemAtURL(url, nullptr, error);
}

bool QNiCloudDocumentsPresenter::removeItemAtPath(std::string_view path, qn::Error* error) {
    return removeItemAtURL(qn::URL::fileURLWithPath(path), nullptr, error);
}

bool QNiCloudDocumentsPresenter::removeItemAtURL(
    const qn::URL& url, const FileOperationProgressHandler& progressHandler, qn::Error* error) {
    if (url.isEmpty()) {
        return false;
    }
    setupiCloudContainerIfSafeAndNecessary();
    // A file leaves the cache as soon as it is let go. A directory may keep a declined item, so
    // whether it is gone is only known afterwards.
    std::vector<std::string> directories;
    bool partial = false;
    const auto fileManager = qn::FileManager::defaultManager()->makePrivateManager();
    fileManager->setDelegate(std::make_shared<QNFileManagerDelegate>(
        [&](const qn::URL& itemURL, const qn::URL& secondURL, bool& proceed) {
            if (progressHandler) {
                progressHandler(itemURL, secondURL, proceed);
            }
            if (!proceed) {
                partial = true;
            } else if (itemURL.hasDirectoryPath()) {
                directories.push_back(itemURL.path());
            } else {
                updateCacheAfterRemovalOfItemAtPath(itemURL.path());
            }
        }));
    bool removed = false;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateWritingItemAtURL(
        url, qn::NSFileCoordinatorWritingForDeleting, &coordinationError,
        [&](const qn::URL& removingURL) {
            removed = fileManager->removeItemAtURL(removingURL, error);
            if (!removed) {
                return;
            }
            if (!partial) {
                updateCacheAfterRemovalOfItemAtPath(removingURL.path());
                return;
            }
            for (const auto& directory : directories) {
                if (!fileManager->fileExistsAtPath(directory)) {
                    updateCacheAfterRemovalOfItemAtPath(directory);
                }
            }
        });
    keepCoordinationError(error, coordinationError);
    return removed;
}

// Replacing.

bool QNiCloudDocumentsPresenter::replaceItemAtURL(const qn::URL& url, const qn::URL& withItemAtURL,
                                                  std::string_view backupItemName,
                                                  qn::ItemReplacementOptions options,
                                                  qn::URL* /*resultingItemURL*/, qn::Error* error) {
    if (url.isEmpty() || withItemAtURL.isEmpty()) {
        return false;
    }
    setupiCloudContainerIfSafeAndNecessary();
    // Kept as hosts have always seen it: true unless the file manager refuses the replacement,
    // even when coordination failed and it never ran; the caller's resulting URL is never
    // written.
    bool replaced = true;
    qn::Error coordinationError;
    newFileCoordinator()->coordinateWritingItemAtURL(
        url, qn::NSFileCoordinatorWritingForReplacing, &coordinationError, [&](const qn::URL&) {
            qn::URL resultingURL;
            if (!qn::FileManager::defaultManager()->replaceItemAtURL(
                    url, withItemAtURL, backupItemName, options, &resultingURL, error)) {
                replaced = false;
                return;
            }
            if (resultingURL == url) {
                updateCacheAfterUpdateOfItemAtPath(url.path());
            } else {
                updateCacheAfterRemovalOfItemAtPath(url.path());
                updateCacheAfterCreationOfItemAtPath(resultingURL.path());
            }
        });
    keepCoordinationError(error, coordinationError);
    return replaced;
}
