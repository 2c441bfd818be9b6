// Following the user's account. The platform's identity token is the only account state kept;
// every change of it is classified, everything that belonged to the old account is dropped, and
// the host is told.

#include <fmt/format.h>

#include <mutex>
#include <utility>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/FileManager.h"

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
    // One unit of the serial queue, behind the work cancelled above, so that no cache work runs
    // beside the clearing. Whatever query exists by then (made by a set-up that was already
    // under way, or by a host registering meanwhile) may have filled the cache before the
    // clearing, so it is replaced, and the work it queued is cancelled with it: only a query
    // made after the clearing fills the cache, and its initialisation is the one the host hears.
    enqueueCacheWork([state](QNiCloudDocumentsPresenter& presenter, const qn::OuterOperation&) {
        presenter.stopCacheQuery();
        presenter._presentedItemOperationQueue->cancelAllOperations();
        presenter.clearCache();
        if (state == QNiCloudAccountStateChanged || state == QNiCloudAccountStateBecameAvailable) {
            presenter.startCacheQuery();
        }
        l4Logger().debug("Did cancel all running operations.");
    });
}
