#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qn/Object.h"
#include "qn/Operation.h"

namespace qn {

/// Runs operations on the shared worker pool, at most `maxConcurrentOperationCount` at a time
/// (1 makes a serial queue: one operation at a time, in the order they were added). Each
/// operation runs with its own quality of service.
///
/// Every member may be called from any thread. A queue stays alive while it has operations to
/// run, even when its owner has let go of it.
///
/// A worker that finishes an operation goes on with the queue's next one itself when the limit
/// allows and the two share a quality of service, up to 64 in a row, before handing the queue
/// back to the pool so that other queues get their turn.
///
/// Locking: `mutex_` guards the waiting and running lists and the counts; it is taken before an
/// operation's own lock and before the worker pool's lock, and is never held while an operation
/// runs.
class OperationQueue : public Object {
public:
    /// No limit on the number of operations running at once.
    static constexpr int kDefaultMaxConcurrentOperationCount = -1;

    static std::shared_ptr<OperationQueue> create(
        std::string name = {},
        int maxConcurrentOperationCount = kDefaultMaxConcurrentOperationCount);

    /// The queue whose operation is running on the calling thread, or null.
    static std::shared_ptr<OperationQueue> currentQueue();

    const std::string& name() const { return name_; }

    int maxConcurrentOperationCount() const;
    /// Takes effect for operations started afterwards. Values below 1 other than -1 count as 1.
    void setMaxConcurrentOperationCount(int count);

    /// Adds an operation. Throws `InternalInconsistencyException` when the operation was added to
    /// a queue before or has already run.
    void addOperation(std::shared_ptr<Operation> operation);

    /// Adds a block operation running `block` and returns it.
    std::shared_ptr<BlockOperation> addOperationWithBlock(std::function<void()> block);

    /// Cancels every operation of the queue: the waiting ones are dropped without running, the
    /// running ones see `isCancelled()`. Does not wait.
    void cancelAllOperations();

    /// Blocks until no operation of the queue is waiting or running, including operations added
    /// meanwhile. Called from an operation of this queue it would wait for itself forever, so it
    /// throws `InternalInconsistencyException` instead.
    void waitUntilAllOperationsAreFinished();

    /// Operations waiting or running.
    std::size_t operationCount() const;

private:
    struct Private {
        explicit Private() = default;
    };

public:
    /// Use `create`.
    OperationQueue(Private, std::string name, int maxConcurrentOperationCount);

private:
    bool canStartLocked() const;
    // Moves the first waiting operation to the running ones and returns it.
    std::shared_ptr<Operation> takeWaitingLocked();
    void startWaitingLocked();
    // A pool task: runs `operation`, then the queue's next ones while `endOperation` hands
    // them over.
    void runOperations(std::shared_ptr<Operation> operation, QualityOfService qos);
    // Lets go of `operation`, which has run, and returns the first waiting operation when there
    // is room for it and it has quality of service `nextQos`, for the calling task to run next;
    // otherwise null, the waiting operations having gone to the pool.
    std::shared_ptr<Operation> endOperation(std::shared_ptr<Operation> operation,
                                            std::optional<QualityOfService> nextQos) noexcept;
    void operationEnded(std::size_t count);
    int limitLocked() const;

    const std::string name_;
    mutable std::mutex mutex_;
    std::condition_variable allFinished_;
    int maxConcurrent_;
    std::deque<std::shared_ptr<Operation>> waiting_;
    std::vector<std::shared_ptr<Operation>> running_;
    // Operations added and not yet ended; an operation ends once the queue has let go of it.
    std::size_t unfinished_ = 0;
};

}  // namespace qn
