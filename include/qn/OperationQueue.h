#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
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
    void startWaitingLocked();
    void runOperation(std::shared_ptr<Operation> operation);
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
