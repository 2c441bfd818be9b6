#pragma once

// The library's cancellable token.

#include <atomic>
#include <memory>

#include "QNiCloud/QNBackgroundOperation.h"
#include "qn/Object.h"

/// A token that is only a flag: false until `cancel`, then true for good. The downloads manager
/// makes one for a request that came without a token. Any thread; the flag is written once and
/// needs no lock.
class QNiCloudBackgroundOperation final : public qn::Object, public QNBackgroundOperation {
public:
    static std::shared_ptr<QNiCloudBackgroundOperation> operation();

    void cancel() override;
    bool isCancelled() const override;

private:
    std::atomic<bool> _cancelled{false};
};
