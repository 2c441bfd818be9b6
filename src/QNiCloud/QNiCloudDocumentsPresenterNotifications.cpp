// Building and posting the notifications the presenter sends its host. Everything reaches the
// host on the main thread. Notifications about the container, the account and the cache as a
// whole are handed over without waiting; the per-file ones are delivered before the caller goes
// on, so that the host sees them in step with the cache changes that caused them.

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <utility>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/Dictionary.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/util/PathNormalization.h"

void QNiCloudDocumentsPresenter::postQueued(qn::Notification notification) {
    qn::MainQueue::async([notification = std::move(notification)] {
        qn::NotificationCenter::defaultCenter().post(notification);
    });
}

void QNiCloudDocumentsPresenter::postMainThreadNotification(const qn::Notification& notification) {
    qn::MainQueue::sync(
        [&notification] { qn::NotificationCenter::defaultCenter().post(notification); });
}

void QNiCloudDocumentsPresenter::notifyiCloudAccountStateDidChange(
    QNiCloudAccountState state, const std::optional<qn::URL>& containerURL) {
    qn::Dictionary userInfo{{QNiCloudAccountStateKey, static_cast<std::int32_t>(state)}};
    if (containerURL) {
        userInfo.set(QNiCloudContainerURLKey, *containerURL);
    }
    postQueued(
        {QNiCloudAccountStateDidChangeNotification, shared_from_this(), std::move(userInfo)});
}

void QNiCloudDocumentsPresenter::notifyDidInitializeContainerWithURL(
    const std::optional<qn::URL>& containerURL) {
    qn::Dictionary userInfo;
    if (containerURL) {
        userInfo.set(QNiCloudContainerURLKey, *containerURL);
    }
    postQueued(
        {QNiCloudDidInitializeContainerNotification, shared_from_this(), std::move(userInfo)});
}

void QNiCloudDocumentsPresenter::notifyFileDidAppearAtPath(std::string_view path,
                                                           bool isDirectory) {
    postMainThreadNotification(
        {QNiCloudFileDidAppearNotification,
         nullptr,
         {{QNiCloudSourcePathKey, path}, {QNiCloudIsDirectoryKey, isDirectory}}});
}

void QNiCloudDocumentsPresenter::notifyFileWasRemovedAtPath(std::string_view path,
                                                            bool isDirectory) {
    postMainThreadNotification(
        {QNiCloudFileWasRemovedNotification,
         nullptr,
         {{QNiCloudSourcePathKey, path}, {QNiCloudIsDirectoryKey, isDirectory}}});
}

void QNiCloudDocumentsPresenter::notifyFileDidChangeAtPath(std::string_view path,
                                                           QNiCloudFileChangeType type) {
    notifyFileDidChangeAtNormalizedPath(qn::stringByNormalizingPath(path), type);
}

void QNiCloudDocumentsPresenter::notifyFileDidChangeAtNormalizedPath(std::string_view path,
                                                                     QNiCloudFileChangeType type) {
    postMainThreadNotification({QNiCloudFileDidChangeNotification,
                                nullptr,
                                {{QNiCloudSourcePathKey, path},
                                 {QNiCloudFileChangeTypeKey, static_cast<std::int32_t>(type)}}});
}

void QNiCloudDocumentsPresenter::notifyDidUpdateCacheWithFilesCount(std::uint64_t filesCount) {
    postQueued({QNiCloudDidUpdateCacheNotification,
                nullptr,
                {{QNiCloudNumberOfFilesInCacheKey, filesCount}}});
}

void QNiCloudDocumentsPresenter::notifyCacheInitializedWithFilesCount(
    std::uint64_t filesCount, std::uint64_t filesInDocumentsDirectoryCount) {
    postQueued({QNiCloudCacheInitializedNotification,
                nullptr,
                {{QNiCloudNumberOfFilesInCacheKey, filesCount},
                 {QNiCloudNumberOfFilesInDocumentsDirectoryKey, filesInDocumentsDirectoryCount}}});
}

void QNiCloudDocumentsPresenter::notifyDidClearCache() {
    postQueued({QNiCloudDidClearCacheNotification, nullptr, {}});
}
