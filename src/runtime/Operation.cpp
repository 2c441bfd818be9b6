#include "qn/Operation.h"

#include "qn/Exception.h"

namespace qn {
namespace {

// The operation whose main() runs on this thread, to refuse waiting for oneself.
thread_local const Operation* tRunningOperation = nullptr;

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
    {
        std::lock_guard lock(mutex_);
        if (state_ != State::Ready) {
            throw InternalInconsistencyException(
                "Operation::start: the operation is already enqueued, executing or finished.");
        }
        state_ = State::Enqueued;
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
        const Operation* outer = tRunningOperation;
        ~Finisher() {
            tRunningOperation = outer;
            operation->finish();
        }
    } finisher{this};
    if (!isCancelled()) {
        tRunningOperation = this;
        main();
    }
}

void Operation::finish() {
    std::lock_guard lock(mutex_);
    state_ = State::Finished;
    finished_.notify_all();
}

void Operation::waitUntilFinished() const {
    if (tRunningOperation == this) {
        throw InternalInconsistencyException(
            "Operation::waitUntilFinished called from the operation itself would never return.");
    }
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return state_ == State::Finished; });
}

std::shared_ptr<BlockOperation> BlockOperation::create(Block block) {
    return std::make_shared<BlockOperation>(
        Private{}, [block = std::move(block)](const OuterOperation&) { block(); });
}

std::shared_ptr<BlockOperation> BlockOperation::create(BlockWithOperation block) {
    return std::make_shared<BlockOperation>(Private{}, std::move(block));
}

void BlockOperation::main() {
    // Moved out so that whatever the block captured is released when it returns.
    auto block = std::move(block_);
    block(OuterOperation(std::static_pointer_cast<Operation>(shared_from_this())));
}

}  // namespace qn
