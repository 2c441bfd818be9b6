#include "qn/Operation.h"

#include <algorithm>
#include <vector>

#include "qn/Exception.h"

namespace qn {
namespace {

// The operations whose main() runs on this thread, innermost last (an operation may start
// another inline), to refuse waiting for oneself.
thread_local std::vector<const Operation*> tRunningOperations;

}  // namespace

bool OuterOperation::isCancelled() const {
    const auto operation = operation_.lock();
    return operation && operation->isCancelled();
}

bool Operation::isExecuting() const {
    std::lock_guard lock(mutex_);
    return state_ == State::Executing;
}

bool Operation::isFinished() const {
    std::lock_guard lock(mutex_);
    return state_ == State::Finished;
}

bool Operation::markEnqueued() {
    std::lock_guard lock(mutex_);
    if (state_ != State::Ready) {
        return false;
    }
    state_ = State::Enqueued;
    return true;
}

void Operation::start() {
    if (!markEnqueued()) {
        throw InternalInconsistencyException(
            "Operation::start: the operation is already enqueued, executing or finished.");
    }
    run();
}

void Operation::run() {
    {
        std::lock_guard lock(mutex_);
        state_ = State::Executing;
    }
    struct Finisher {
        Operation* operation;
        ~Finisher() { operation->finish(); }
    } finisher{this};
    if (!isCancelled()) {
        tRunningOperations.push_back(this);
        struct Pop {
            ~Pop() { tRunningOperations.pop_back(); }
        } pop;
        main();
    }
}

void Operation::finish() {
    releaseResources();
    std::lock_guard lock(mutex_);
    state_ = State::Finished;
    finished_.notify_all();
}

void Operation::waitUntilFinished() const {
    if (std::find(tRunningOperations.begin(), tRunningOperations.end(), this) !=
        tRunningOperations.end()) {
        throw InternalInconsistencyException(
            "Operation::waitUntilFinished called from the operation itself would never return.");
    }
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return state_ == State::Finished; });
}

std::shared_ptr<BlockOperation> BlockOperation::create(Block block) {
    if (!block) {
        throw InternalInconsistencyException("BlockOperation::create: empty block.");
    }
    return std::make_shared<BlockOperation>(
        Private{}, [block = std::move(block)](const OuterOperation&) { block(); });
}

std::shared_ptr<BlockOperation> BlockOperation::create(BlockWithOperation block) {
    if (!block) {
        throw InternalInconsistencyException("BlockOperation::create: empty block.");
    }
    return std::make_shared<BlockOperation>(Private{}, std::move(block));
}

void BlockOperation::main() {
    // Moved out so that whatever the block captured is released when it returns.
    auto block = std::move(block_);
    block(OuterOperation(std::static_pointer_cast<Operation>(shared_from_this())));
}

}  // namespace qn
