// The scheduler's listening side: the network pre-check of each request, its reactions to the
// network, the cache, removals, file changes and account changes, and the bookkeeping that turns
// one finished or progressing file into callbacks for its caller or its directory request.

#include <limits>
#include <mutex>
#include <utility>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "qn/Dictionary.h"
#include "qn/LocalizedString.h"
#include "qn/MainQueue.h"

namespace {

// Bytes from a percentage of a size, truncated toward zero. A percentage from metadata may be
// missing (NaN) or out of range, which a plain conversion would make undefined.
std::uint64_t truncatedBytes(double bytes) {
    if (!(bytes > 0)) {
        return 0;
    }
    return bytes >= 0x1p64 ? std::numeric_limits<std::uint64_t>::max()
                           : static_cast<std::uint64_t>(bytes);
}

qn::Error downloadError(std::int64_t code, std::string_view text, qn::Dictionary userInfo = {}) {
    userInfo.set(qn::NSLocalizedDescriptionKey, qn::localizedString(text, "", ""));
    return qn::Error(QNiCloudErrorDomain, code, std::move(userInfo));
}

double percentOf(std::uint64_t part, std::uint64_t whole) {
    return static_cast<double>(part) / static_cast<double>(whole) * 100.0;
}

}  // namespace

bool QNiCloudDownloadsManager::checkReachabilityAndCallErrorHandlerIfNecessary(
    const QNiCloudDownloadErrorHandler& errorHandler) {
    if (_networkReachability->currentReachabilityStatus() != NotReachable) {
        return true;
    }
    if (errorHandler) {
        const auto error =
            downloadError(QNiCloudErrorNetworkUnreachable, "Network is not reachable.");
        if (qn::MainQueue::isMainThread()) {
            errorHandler(nullptr, error);
        } else {
            qn::MainQueue::async([errorHandler, error] { errorHandler(nullptr, error); });
        }
    }
    setPaused(true);
    return false;
}

void QNiCloudDownloadsManager::networkReachabilityChanged(const qn::Notification&) {
    if (_networkReachability->currentReachabilityStatus() != NotReachable) {
        setPaused(false);
        startNextFileDownloadIfPossible();
    } else {
        setPaused(true);
    }
    l4Logger().debug("Network reachability has changed. Reachable = {}", paused() ? 0 : 1);
}

void QNiCloudDownloadsManager::cacheInitialized(const qn::Notification&) {
    _cacheInitializedCondition.signal();
}

void QNiCloudDownloadsManager::fileWasRemoved(const qn::Notification& notification) {
    const std::string* path = notification.userInfo.stringForKey(QNiCloudSourcePathKey);
    if (notification.userInfo.boolForKey(QNiCloudIsDirectoryKey).value_or(false) ||
        path == nullptr) {
        return;  // a removed directory ends nothing by itself
    }
    didFinishDownloadForFileAtNormalizedPath(
        *path, downloadError(QNiCloudErrorNoSuchFile, "The operation couldn't be completed.",
                             {{QNiCloudSourcePathKey, *path}}));
}

void QNiCloudDownloadsManager::fileDidChange(const qn::Notification& notification) {
    const std::string* path = notification.userInfo.stringForKey(QNiCloudSourcePathKey);
    if (path == nullptr) {
        return;
    }
    switch (notification.userInfo.int64ForKey(QNiCloudFileChangeTypeKey).value_or(0)) {
        case QNiCloudFileChangeConflictAppeared:
            l4Logger().warn("Download finished. Conflict was gained for path {}.", *path);
            didFinishDownloadForFileAtNormalizedPath(
                *path,
                downloadError(QNiCloudErrorInputOutput, "Did gain conflict for downloading file."));
            break;
        case QNiCloudFileChangeDownloadProgress:
            didChangeProgressForFileDownloadAtNormalizedPath(*path);
            break;
        case QNiCloudFileChangeDownloaded:
            didFinishDownloadForFileAtNormalizedPath(*path, std::nullopt);
            break;
        default:
            break;
    }
}

void QNiCloudDownloadsManager::accountStateDidChange(const qn::Notification& notification) {
    const auto state = notification.userInfo.int64ForKey(QNiCloudAccountStateKey);
    if (state == static_cast<std::int64_t>(QNiCloudAccountStateUnavailable) ||
        state == static_cast<std::int64_t>(QNiCloudAccountStateChanged)) {
        l4Logger().info("Cancel all downloads, because iCloud account was changed or deleted.");
        cancelAllDownloads();
    }
}

void QNiCloudDownloadsManager::didFinishDownloadForFileAtNormalizedPath(
    std::string_view path, std::optional<qn::Error> withError) {
    _downloadOperationQueue->addOperationWithBlock(
        [this, path = std::string(path), error = std::move(withError)] {
            {
                std::lock_guard lock(_itemsDownloadsLock);
                // Only started downloads end this way; a queued record of the path waits on.
                for (const auto& download : activeDownloadsForNormalizedPath(path)) {
                    didFinishFileDownload(download, error);
                }
            }
            startNextFileDownloadIfPossible();
        });
}

void QNiCloudDownloadsManager::didFinishFileDownload(const FileDownloadPointer& download,
                                                     const std::optional<qn::Error>& withError) {
    if (download == nullptr) {
        return;
    }
    std::lock_guard lock(_itemsDownloadsLock);
    if (const auto directory = download->directoryDownload()) {
        const std::uint64_t previous = directory->downloadedSize();
        directory->setDownloadedSize(directory->downloadedSize() - download->downloadedSize() +
                                     download->sizeToDownload());
        directory->setNumberOfFilesToDownload(directory->numberOfFilesToDownload() - 1);
        if (!directory->isCancelled()) {
            const auto& token = directory->backgroundOperation();
            if (withError) {
                if (token != nullptr) {
                    token->cancel();
                }
                if (const auto& handler = directory->errorHandler()) {
                    qn::MainQueue::async(
                        [handler, token, error = *withError] { handler(token, error); });
                }
            } else if (directory->numberOfFilesToDownload() > 0) {
                if (const auto& handler = directory->progressHandler()) {
                    // The sizes are the directory's when the call runs; the previous one is now's.
                    qn::MainQueue::async([handler, directory, previous] {
                        handler(
                            directory->backgroundOperation(),
                            qn::URL::fileURLWithPath(directory->path()),
                            directory->sizeToDownload(), directory->downloadedSize(), previous,
                            percentOf(directory->downloadedSize(), directory->sizeToDownload()));
                    });
                }
            } else if (const auto& handler = directory->completionHandler()) {
                qn::MainQueue::async([handler, directory] {
                    handler(directory->backgroundOperation(),
                            qn::URL::fileURLWithPath(directory->path()),
                            directory->sizeToDownload(), directory->downloadedSize());
                });
            }
        }
        if (directory->isCancelled()) {
            // The request is over: its files still waiting go now; running ones end silently.
            for (auto it = _filesDownloadsQueue.begin(); it != _filesDownloadsQueue.end();) {
                if ((*it)->directoryDownload() == directory) {
                    it = _filesDownloadsQueue.erase(it);
                    directory->setNumberOfFilesToDownload(directory->numberOfFilesToDownload() - 1);
                } else {
                    ++it;
                }
            }
        }
        if (directory->numberOfFilesToDownload() == 0 || directory->isCancelled()) {
            _downloadingItemsPaths.erase(directory->path());
        }
    } else if (!download->isCancelled()) {
        const auto& token = download->backgroundOperation();
        if (withError) {
            if (const auto& handler = download->errorHandler()) {
                qn::MainQueue::async(
                    [handler, token, error = *withError] { handler(token, error); });
            }
        } else if (const auto& handler = download->completionHandler()) {
            qn::MainQueue::async([handler, token, url = qn::URL::fileURLWithPath(download->path()),
                                  size = download->sizeToDownload(),
                                  downloaded = download->downloadedSize()] {
                handler(token, url, size, downloaded);
            });
        }
    }
    removeActiveLocked(download);
    _downloadingItemsPaths.erase(download->path());
}

void QNiCloudDownloadsManager::didChangeProgressForFileDownloadAtNormalizedPath(
    std::string_view path) {
    _downloadOperationQueue->addOperationWithBlock([this, path = std::string(path)] {
        const auto downloads = activeDownloadsForNormalizedPath(path);
        for (const auto& download : downloads) {
            didChangeProgressForFileDownload(download);
        }
    });
}

void QNiCloudDownloadsManager::didChangeProgressForFileDownload(
    const FileDownloadPointer& download) {
    if (download == nullptr) {
        return;
    }
    const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
    const auto state = itemStateForPath(presenter.get(), download->path());
    const double percent = state ? state->percentDownloaded : 0.0;
    if (const auto directory = download->directoryDownload()) {
        const auto& handler = directory->progressHandler();
        if (!handler || directory->isCancelled()) {
            return;
        }
        const std::uint64_t previous = directory->downloadedSize();
        const std::uint64_t fileDownloaded =
            truncatedBytes(percent * static_cast<double>(download->sizeToDownload()) / 100.0);
        directory->setDownloadedSize(directory->downloadedSize() - download->downloadedSize() +
                                     fileDownloaded);
        download->setDownloadedSize(fileDownloaded);
        // The counts are read when the handler runs, as they stand then.
        qn::MainQueue::async([handler, directory, token = directory->backgroundOperation(),
                              url = qn::URL::fileURLWithPath(directory->path()), previous] {
            const std::uint64_t size = directory->sizeToDownload();
            const std::uint64_t downloaded = directory->downloadedSize();
            handler(token, url, size, downloaded, previous, percentOf(downloaded, size));
        });
        return;
    }
    const auto& handler = download->progressHandler();
    if (!handler || download->isCancelled()) {
        return;
    }
    const std::uint64_t previous = download->downloadedSize();
    download->setDownloadedSize(
        truncatedBytes(static_cast<double>(download->sizeToDownload()) * percent / 100.0));
    qn::MainQueue::async([handler, download, token = download->backgroundOperation(),
                          url = qn::URL::fileURLWithPath(download->path()), previous, percent] {
        handler(token, url, download->sizeToDownload(), download->downloadedSize(), previous,
                percent);
    });
}
