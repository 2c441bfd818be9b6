#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "qn/Object.h"
#include "qn/QualityOfService.h"

namespace qn {

class Operation;

/// A weak handle to the operation a unit of work runs in. Long work methods take one as their
/// "outer operation" and poll `isCancelled()` at each checkpoint. The handle is weak so that a
/// block can refer to its own operation without keeping it alive; an empty or expired handle is
/// never cancelled. Cheap to copy; any thread.
class OuterOperation {
public:
    OuterOperation() = default;
    OuterOperation(const std::shared_ptr<Operation>& operation) : operation_(operation) {}
    OuterOperation(std::weak_ptr<Operation> operation) : operation_(std::move(operation)) {}

    bool isCancelled() const;
    std::shared_ptr<Operation> lock() const { return operation_.lock(); }

private:
    std::weak_ptr<Operation> operation_;
};

/// One unit of work for an `OperationQueue`. Subclasses implement `main()`. Cancellation is
/// cooperative: `cancel()` only sets a flag; an operation cancelled before it starts never runs
/// `main()`, and a running one sees `isCancelled()` at its next checkpoint.
///
/// Any thread may call `cancel`, the state queries and `setQualityOfService` (the latter has
/// effect only before the operation is handed to a queue). An operation runs at most once.
class Operation : public Object {
public:
    ~Operation() override = default;

    void cancel() { cancelled_.store(true, std::memory_order_release); }
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
    bool isExecuting() const;
    bool isFinished() const;

    /// The quality of service the queue runs this operation with. Default: `Default`.
    QualityOfService qualityOfService() const { return qos_.load(std::memory_order_relaxed); }
    void setQualityOfService(QualityOfService qos) { qos_.store(qos, std::memory_order_relaxed); }

    /// Runs the operation on the calling thread: `main()` unless cancelled, then marks it
    /// finished. Queues call this; calling it yourself on an operation that already started or
    /// sits in a queue throws `InternalInconsistencyException`.
    void start();

    /// Blocks until the operation has finished. Called from the operation itself, it would wait
    /// forever, so it throws `InternalInconsistencyException` instead.
    void waitUntilFinished() const;

protected:
    Operation() = default;

    virtual void main() = 0;

private:
    friend class OperationQueue;
    enum class State { Ready, Enqueued, Executing, Finished };

    /// Moves Ready -> Enqueued; false when the operation was enqueued or run before.
    bool markEnqueued();
    /// Lets go of what the operation holds for `main()`, once it has finished or will never
    /// run. Called without any lock held.
    virtual void releaseResources() {}
    void run();
    void finish();

    std::atomic<bool> cancelled_{false};
    std::atomic<QualityOfService> qos_{QualityOfService::Default};
    mutable std::mutex mutex_;  // guards state_
    mutable std::condition_variable finished_;
    State state_ = State::Ready;
};

/// An operation that runs a block. The block either takes nothing or takes the operation's own
/// `OuterOperation`, so that it can pass it on to work that polls for cancellation. The block is
/// released once the operation has finished.
class BlockOperation final : public Operation {
public:
    using Block = std::function<void()>;
    using BlockWithOperation = std::function<void(const OuterOperation&)>;

    static std::shared_ptr<BlockOperation> create(Block block);
    static std::shared_ptr<BlockOperation> create(BlockWithOperation block);

private:
    struct Private {
        explicit Private() = default;
    };

public:
    BlockOperation(Private, BlockWithOperation block) : block_(std::move(block)) {}

private:
    void main() override;
    void releaseResources() override { block_ = nullptr; }

    BlockWithOperation block_;
};

}  // namespace qn
