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

void OperationQueue::startWaitingLocked() {
    while (!waiting_.empty() && static_cast<int>(running_.size()) < limitLocked()) {
        auto operation = std::move(waiting_.front());
        waiting_.pop_front();
        running_.push_back(operation);
        const auto qos = operation->qualityOfService();
        auto self = std::static_pointer_cast<OperationQueue>(shared_from_this());
        try {
            ThreadPool::shared().submit(qos, [self = std::move(self), operation]() mutable {
                self->runOperation(std::move(operation));
            });
        } catch (...) {
            // No worker could be started: the operation waits for the next chance.
            running_.pop_back();
            waiting_.push_front(std::move(operation));
            throw;
        }
    }
}

void OperationQueue::runOperation(std::shared_ptr<Operation> operation) {
    struct Done {
        OperationQueue* queue;
        std::shared_ptr<Operation>& operation;
        ~Done() {
            tRunningQueues.pop_back();
            std::shared_ptr<Operation> entry;
            {
                std::lock_guard lock(queue->mutex_);
                auto found = std::find(queue->running_.begin(), queue->running_.end(), operation);
                entry = std::move(*found);
                queue->running_.erase(found);
                queue->startWaitingLocked();
            }
            // Released outside the lock, and before waiters are told: whoever waits for the queue
            // may rely on the queue holding no operation any more.
            entry.reset();
            operation.reset();
            queue->operationEnded(1);
        }
    };
    tRunningQueues.push_back(this);
    Done done{this, operation};
    operation->run();
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
