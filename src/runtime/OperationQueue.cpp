#include "qn/OperationQueue.h"

#include <algorithm>
#include <limits>

#include "ThreadPool.h"
#include "qn/Exception.h"

namespace qn {
namespace {

// The queues whose operations run on this thread, innermost last (an operation may start
// another one inline).
thread_local std::vector<OperationQueue*> tRunningQueues;

// How many operations one pool task runs in a row before it hands the queue back to the pool, so
// that a busy queue lets the tasks waiting in the pool have their turn.
constexpr int kOperationsPerTask = 64;

int normalisedLimit(int count) {
    return count == OperationQueue::kDefaultMaxConcurrentOperationCount ? count
                                                                        : std::max(count, 1);
}

}  // namespace

std::shared_ptr<OperationQueue> OperationQueue::create(std::string name,
                                                       int maxConcurrentOperationCount) {
    return std::make_shared<OperationQueue>(Private{}, std::move(name),
                                            maxConcurrentOperationCount);
}

OperationQueue::OperationQueue(Private, std::string name, int maxConcurrentOperationCount)
    : name_(std::move(name)), maxConcurrent_(normalisedLimit(maxConcurrentOperationCount)) {}

std::shared_ptr<OperationQueue> OperationQueue::currentQueue() {
    if (tRunningQueues.empty()) {
        return nullptr;
    }
    // A running operation holds its queue alive, so the pointer is valid here.
    return std::static_pointer_cast<OperationQueue>(tRunningQueues.back()->shared_from_this());
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(mutex_);
    return maxConcurrent_;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    std::lock_guard lock(mutex_);
    maxConcurrent_ = normalisedLimit(count);
    startWaitingLocked();
}

int OperationQueue::limitLocked() const {
    return maxConcurrent_ == kDefaultMaxConcurrentOperationCount ? std::numeric_limits<int>::max()
                                                                 : maxConcurrent_;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    if (!operation) {
        throw InternalInconsistencyException("OperationQueue::addOperation: null operation.");
    }
    std::lock_guard lock(mutex_);
    if (!operation->markEnqueued()) {
        throw InternalInconsistencyException(
            "OperationQueue::addOperation: operation is already enqueued on a queue or has run.");
    }
    waiting_.push_back(std::move(operation));
    ++unfinished_;
    startWaitingLocked();
}

std::shared_ptr<BlockOperation> OperationQueue::addOperationWithBlock(std::function<void()> block) {
    auto operation = BlockOperation::create(std::move(block));
    addOperation(operation);
    return operation;
}

bool OperationQueue::canStartLocked() const {
    return !waiting_.empty() && static_cast<int>(running_.size()) < limitLocked();
}

std::shared_ptr<Operation> OperationQueue::takeWaitingLocked() {
    auto operation = std::move(waiting_.front());
    waiting_.pop_front();
    running_.push_back(operation);
    return operation;
}

void OperationQueue::startWaitingLocked() {
    while (canStartLocked()) {
        auto operation = takeWaitingLocked();
        const auto qos = operation->qualityOfService();
        auto self = std::static_pointer_cast<OperationQueue>(shared_from_this());
        try {
            ThreadPool::shared().submit(qos, [self = std::move(self), operation, qos]() mutable {
                self->runOperations(std::move(operation), qos);
            });
        } catch (...) {
            // No worker could be started: the operation waits for the next chance.
            running_.pop_back();
            waiting_.push_front(std::move(operation));
            throw;
        }
    }
}

void OperationQueue::runOperations(std::shared_ptr<Operation> operation, QualityOfService qos) {
    for (int ran = 1; operation; ++ran) {
        tRunningQueues.push_back(this);
        try {
            operation->run();
        } catch (...) {
            endOperation(std::move(operation), std::nullopt);
            throw;
        }
        operation = endOperation(std::move(operation),
                                 ran < kOperationsPerTask ? std::optional(qos) : std::nullopt);
    }
}

std::shared_ptr<Operation> OperationQueue::endOperation(
    std::shared_ptr<Operation> operation, std::optional<QualityOfService> nextQos) noexcept {
    tRunningQueues.pop_back();
    std::shared_ptr<Operation> entry;
    std::shared_ptr<Operation> next;
    {
        std::lock_guard lock(mutex_);
        auto found = std::find(running_.begin(), running_.end(), operation);
        entry = std::move(*found);
        running_.erase(found);
        // The pool runs each task with its own quality of service, so only an operation with
        // the same one may follow in this task.
        if (nextQos && canStartLocked() && waiting_.front()->qualityOfService() == *nextQos) {
            next = takeWaitingLocked();
        }
        startWaitingLocked();
    }
    // Released outside the lock, and before waiters are told: whoever waits for the queue may
    // rely on the queue holding no operation any more.
    entry.reset();
    operation.reset();
    operationEnded(1);
    return next;
}

void OperationQueue::operationEnded(std::size_t count) {
    std::lock_guard lock(mutex_);
    unfinished_ -= count;
    if (unfinished_ == 0) {
        allFinished_.notify_all();
    }
}

void OperationQueue::cancelAllOperations() {
    std::deque<std::shared_ptr<Operation>> dropped;
    {
        std::lock_guard lock(mutex_);
        dropped.swap(waiting_);
        for (const auto& operation : running_) {
            operation->cancel();
        }
    }
    // Outside the lock: dropping the operations may release their blocks, whose captures may
    // run any code when destroyed.
    const auto count = dropped.size();
    for (const auto& operation : dropped) {
        operation->cancel();
        operation->finish();
    }
    dropped.clear();
    if (count > 0) {
        operationEnded(count);
    }
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    if (std::find(tRunningQueues.begin(), tRunningQueues.end(), this) != tRunningQueues.end()) {
        throw InternalInconsistencyException(
            "OperationQueue::waitUntilAllOperationsAreFinished called from an operation of the "
            "same queue would wait for itself forever.");
    }
    std::unique_lock lock(mutex_);
    allFinished_.wait(lock, [this] { return unfinished_ == 0; });
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(mutex_);
    return waiting_.size() + running_.size();
}

}  // namespace qn
