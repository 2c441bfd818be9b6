#pragma once

#include <functional>

#include "qn/QualityOfService.h"

namespace qn {

/// The process-wide concurrent queues, one per quality of service. Work handed to them runs on a
/// shared pool of worker threads; when several pieces of work wait, the higher quality of service
/// is taken first. The pool grows when every worker is busy, up to 64 workers (so work that
/// blocks, for example by waiting for an operation queue, cannot starve the work it waits for
/// unless 64 pieces of work block at once), and shrinks when idle.
///
/// Any thread may call `async`. Work that throws is reported on the "qn" logger at error level
/// and dropped; it does not take the process down.
class DispatchQueue {
public:
    /// The global queue for `qos`. The reference stays valid for the life of the process.
    static DispatchQueue& global(QualityOfService qos = QualityOfService::Default);

    /// Hands `work` over without waiting. Work of one queue may run concurrently. Empty work is
    /// refused with `InternalInconsistencyException`.
    void async(std::function<void()> work) const;

    QualityOfService qualityOfService() const { return qos_; }

    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

private:
    explicit DispatchQueue(QualityOfService qos) : qos_(qos) {}

    const QualityOfService qos_;
};

}  // namespace qn
