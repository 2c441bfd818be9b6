// Creating files and directories in the container, and letting the host write and read a file's
// contents, under coordination that acts for the presenter (so it is not told about its own
// changes). A creation puts the new item into the cache at once rather than waiting for the query
// to report it, so that the host finds what it has just made; writes and reads leave the cache to
// the query and the presenter callbacks.

#include <string_view>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/Error.h"
#include "qn/FileCoordinator.h"
#include "qn/FileManager.h"

void QNiCloudDocumentsPresenter::createFileAtPath(std::string_view path,
                                                  const FileCreationBlock& withCreationBlock) {
    createFileAtURL(qn::URL::fileURLWithPath(path), withCreationBlock);
}

void QNiCloudDocumentsPresenter::createFileAtURL(const qn::URL& url,
                                                 const FileCreationBlock& withCreationBlock) {
    setupiCloudContainerIfSafeAndNecessary();
    newFileCoordinator()->coordinateWritingItemAtURL(
        url, qn::NSFileCoordinatorWritingForReplacing, nullptr, [&](const qn::URL& writingURL) {
            if (withCreationBlock && withCreationBlock(writingURL)) {
                updateCacheAfterCreationOfItemAtPath(writingURL.path(), true);
            }
        });
}

bool QNiCloudDocumentsPresenter::createFileAtPath(std::string_view path, std::string_view contents,
                                                  qn::Dictionary* attributes) {
    return createFileAtURL(qn::URL::fileURLWithPath(path), contents, attributes);
}

bool QNiCloudDocumentsPresenter::createFileAtURL(const qn::URL& url, std::string_view contents,
                                                 qn::Dictionary* attributes) {
    // The container is set up by the directory creation.
    if (!createDirectoryAtURL(url.URLByDeletingLastPathComponent(), true)) {
        return false;
    }
    bool created = false;
    newFileCoordinator()->coordinateWritingItemAtURL(
        url, qn::NSFileCoordinatorWritingForReplacing, nullptr, [&](const qn::URL& writingURL) {
            const auto fileManager = qn::FileManager::defaultManager();
            const bool fileCreated =
                fileManager->createFileAtPath(writingURL.path(), contents, attributes);
            created = fileCreated;
            if (fileCreated && attributes != nullptr) {
                created =
                    fileManager->loadAttributesOfItemAtPath(writingURL.path(), attributes, nullptr);
            }
            // The file is there even when its attributes could not be read back.
            if (fileCreated) {
                updateCacheAfterCreationOfItemAtPath(writingURL.path(), true);
            }
        });
    return created;
}

bool QNiCloudDocumentsPresenter::createDirectoryAtPath(std::string_view path,
                                                       bool withIntermediateDirectories,
                                                       qn::Dictionary* attributes,
                                                       qn::Error* error) {
    return createDirectoryAtURL(qn::URL::fileURLWithPath(path), withIntermediateDirectories,
                                attributes, error);
}

bool QNiCloudDocumentsPresenter::createDirectoryAtURL(const qn::URL& url,
                                                      bool withIntermediateDirectories,
                                                      qn::Dictionary* attributes,
                                                      qn::Error* error) {
    auto& logger = l4Logger();
    if (url.isEmpty()) {
        logger.error("Failed to create directory: URL is nil.");
        return false;
    }
    setupiCloudContainerIfSafeAndNecessary();
    const qn::URL standardizedURL = url.URLByStandardizingPath();
    // Set-up creates the Documents directory; asking for it again must not need the disk (nor
    // fail on the main thread, where set-up is refused). Compared by path: a parent URL is a
    // directory URL, the stored one need not be.
    if (standardizedURL.path() == documentsDirectoryURL().path()) {
        return true;
    }
    bool created = false;
    qn::Error coordinationError;
    qn::Error creationError;
    newFileCoordinator()->coordinateWritingItemAtURL(
        standardizedURL, qn::NSFileCoordinatorWritingForReplacing, &coordinationError,
        [&](const qn::URL& writingURL) {
            const auto fileManager = qn::FileManager::defaultManager();
            const bool directoryCreated = fileManager->createDirectoryAtURL(
                writingURL, withIntermediateDirectories, attributes, &creationError);
            created = directoryCreated;
            if (directoryCreated && attributes != nullptr) {
                created = fileManager->loadAttributesOfItemAtPath(writingURL.path(), attributes,
                                                                  nullptr, error);
            }
            if (directoryCreated) {
                updateCacheAfterCreationOfItemAtPath(writingURL.path(), false);
            }
        });
    if (!created) {
        if (coordinationError) {
            logger.error("Failed to coordicate directory creation at URL {}. Error: {}",
                         standardizedURL, coordinationError);
            qn::setError(error, coordinationError);
        } else if (creationError) {
            logger.error("Failed to create directory. Error: {}", creationError);
            qn::setError(error, creationError);
        }
    }
    return created;
}

namespace {

// What writing and reading share: the handler's answer, or the coordination's failure where the
// handler did not run and the caller's error holds nothing yet.
template <class Coordinate>
bool runCoordinatedHandler(Coordinate&& coordinate,
                           const std::function<bool(const qn::URL&, qn::Error*)>& handler,
                           qn::Error* error) {
    bool result = false;
    qn::Error coordinationError;
    coordinate(&coordinationError, [&](const qn::URL& grantedURL) {
        result = handler ? handler(grantedURL, error) : false;
    });
    // Never replace what the handler stored: it knows better what went wrong.
    if (error != nullptr && coordinationError && !*error) {
        *error = coordinationError;
    }
    return result;
}

}  // namespace

bool QNiCloudDocumentsPresenter::writeToFileAtURL(const qn::URL& url,
                                                  const FileWriteBlock& withWriteBlock,
                                                  qn::Error* error) {
    setupiCloudContainerIfSafeAndNecessary();
    const auto coordinator = newFileCoordinator();
    return runCoordinatedHandler(
        [&](qn::Error* coordinationError, const qn::FileCoordinator::Accessor& accessor) {
            coordinator->coordinateWritingItemAtURL(url, qn::NSFileCoordinatorWritingForReplacing,
                                                    coordinationError, accessor);
        },
        withWriteBlock, error);
}

bool QNiCloudDocumentsPresenter::readFromFileAtURL(const qn::URL& url,
                                                   const FileReadBlock& withReadBlock,
                                                   qn::Error* error) {
    setupiCloudContainerIfSafeAndNecessary();
    const auto coordinator = newFileCoordinator();
    return runCoordinatedHandler(
        [&](qn::Error* coordinationError, const qn::FileCoordinator::Accessor& accessor) {
            coordinator->coordinateReadingItemAtURL(url, qn::NSFileCoordinatorReadingWithoutChanges,
                                                    coordinationError, accessor);
        },
        withReadBlock, error);
}
