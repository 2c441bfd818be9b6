#include "QNiCloud/QNiCloudBackgroundOperation.h"

std::shared_ptr<QNiCloudBackgroundOperation> QNiCloudBackgroundOperation::operation() {
    return std::make_shared<QNiCloudBackgroundOperation>();
}

void QNiCloudBackgroundOperation::cancel() {
    _cancelled.store(true, std::memory_order_release);
}

bool QNiCloudBackgroundOperation::isCancelled() const {
    return _cancelled.load(std::memory_order_acquire);
}
