// Following the user's account. The platform's identity token is the only account state kept;
// every change of it is classified, everything that belonged to the old account is dropped, and
// the host is told.

#include <fmt/format.h>

#include <mutex>
#include <utility>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/DispatchQueue.h"
#include "qn/FileManager.h"
#include "qn/QualityOfService.h"

QNiCloudAccountState QNiCloudDocumentsPresenter::currentAccountState() const {
    std::lock_guard lock(_tagLock);
    return _tag ? QNiCloudAccountStateAvailable : QNiCloudAccountStateUnavailable;
}

bool QNiCloudDocumentsPresenter::isiCloudAvailable() const {
    return currentAccountState() != QNiCloudAccountStateUnavailable;
}

void QNiCloudDocumentsPresenter::ubiquityIdentityDidChange(const qn::Notification& notification) {
    (void)notification;
    setNewUbiquityIdentityToken(qn::FileManager::defaultManager()->ubiquityIdentityToken());
}

void QNiCloudDocumentsPresenter::setNewUbiquityIdentityToken(
    std::optional<qn::UbiquityIdentityToken> token) {
    auto& logger = l4Logger();
    logger.debug("iCloud account state did change.");
    // Read before the token lock: two racing changes may both see the old state, and each then
    // resets on its own, which is harmless.
    const QNiCloudAccountState previousState = currentAccountState();

    QNiCloudAccountState state = QNiCloudAccountStateUnavailable;
    bool neitherToken = false;
    {
        std::lock_guard lock(_tagLock);
        if (token && _tag && *token == *_tag) {
            state = QNiCloudAccountStateAvailable;
        } else if (token && _tag) {
            state = QNiCloudAccountStateChanged;
        } else if (token) {
            state = QNiCloudAccountStateBecameAvailable;
        } else {
            neitherToken = !_tag;
        }
        if (!neitherToken) {
            _tag = std::move(token);
        }
    }
    if (neitherToken) {
        logger.info(
            "New and old ubiquity identity tokens are nil. Do not post account state change "
            "notification.");
        return;
    }
    logger.info("iCloud current state is {}.", static_cast<unsigned long>(state));
    if (state == previousState) {
        return;
    }

    if (state != QNiCloudAccountStateAvailable) {
        setContainerInitialized(false);
    }
    stopCacheQuery();
    _presentedItemOperationQueue->cancelAllOperations();
    clearCache();
    if (state == QNiCloudAccountStateChanged || state == QNiCloudAccountStateBecameAvailable) {
        // On the main thread this declines; the next background caller sets the container up.
        setupiCloudContainerIfSafeAndNecessary();
    }
    notifyiCloudAccountStateDidChange(state, containerURL());
    restartAfterAccountChange(state);
}

void QNiCloudDocumentsPresenter::restartAfterAccountChange(QNiCloudAccountState state) {
    qn::DispatchQueue::global(qn::QualityOfService::UserInitiated)
        .async([presenter = self(), state] {
            presenter->_presentedItemOperationQueue->waitUntilAllOperationsAreFinished();
            // A query set up while the account changed may have gathered already: the cache is
            // cleared below, so it would never fill the cache again. Only a new query does.
            presenter->stopCacheQuery();
            // Work that ran before the cancellation took effect may have filled the cache again.
            presenter->clearCache();
            if (state == QNiCloudAccountStateChanged ||
                state == QNiCloudAccountStateBecameAvailable) {
                presenter->startCacheQuery();
            }
            l4Logger().debug("Did cancel all running operations.");
        });
}
