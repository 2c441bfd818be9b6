#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "qn/Exception.h"
#include "qn/OperationQueue.h"

namespace {

TEST(OperationQueueTest, QueuesRunUpToTheirLimitAtOnceAndSerialOnesInOrder) {
    std::vector<int> inOrder(200);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (const int limit : {1, 2}) {
        auto queue = qn::OperationQueue::create("limited", limit);
        std::atomic<int> now{0};
        std::atomic<int> peak{0};
        std::latch allRunning(limit);
        std::mutex mutex;
        std::vector<int> order;
        for (const int i : inOrder) {
            queue->addOperationWithBlock([&, i] {
                const int n = ++now;
                for (int seen = peak; n > seen && !peak.compare_exchange_weak(seen, n);) {
                }
                if (i < limit) {
                    allRunning.arrive_and_wait();  // only finishes if `limit` really run at once
                }
                std::lock_guard lock(mutex);
                order.push_back(i);
                --now;
            });
        }
        queue->waitUntilAllOperationsAreFinished();
        EXPECT_EQ(peak, limit);
        EXPECT_EQ(queue->operationCount(), 0u);
        if (limit == 1) {
            EXPECT_EQ(order, inOrder);
        }
    }
}

TEST(OperationQueueTest, CancelAllDropsWaitingOperationsAndFlagsRunningOnes) {
    auto queue = qn::OperationQueue::create("cancel", 1);
    std::latch started(1);
    std::latch release(1);
    std::atomic<bool> sawCancel{false};
    std::atomic<int> laterRuns{0};
    auto running = qn::BlockOperation::create([&](const qn::OuterOperation& self) {
        started.count_down();
        release.wait();
        sawCancel = self.isCancelled();
    });
    queue->addOperation(running);
    std::vector<std::shared_ptr<qn::BlockOperation>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(queue->addOperationWithBlock([&] { ++laterRuns; }));
    }
    started.wait();
    EXPECT_TRUE(running->isExecuting());
    queue->cancelAllOperations();
    for (const auto& op : waiting) {
        EXPECT_TRUE(op->isCancelled());
        EXPECT_TRUE(op->isFinished());
    }
    EXPECT_EQ(queue->operationCount(), 1u);
    release.count_down();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(sawCancel);
    EXPECT_TRUE(running->isFinished());
    EXPECT_EQ(laterRuns, 0);
}

TEST(OperationQueueTest, OuterOperationIsWeakAndAMissingOneIsNeverCancelled) {
    EXPECT_FALSE(qn::OuterOperation().isCancelled());

    auto queue = qn::OperationQueue::create("outer", 1);
    qn::OuterOperation kept;
    std::latch release(1);
    auto op = qn::BlockOperation::create([&](const qn::OuterOperation& self) {
        kept = self;
        release.wait();
    });
    std::weak_ptr<qn::Operation> watch = op;
    queue->addOperation(op);
    op->cancel();  // cancelled while it may already run: main() either never starts or sees it
    release.count_down();
    op->waitUntilFinished();
    if (kept.lock()) {
        EXPECT_TRUE(kept.isCancelled());
    }
    op.reset();
    queue->waitUntilAllOperationsAreFinished();
    // The block held its operation only weakly, so nothing keeps it alive now.
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(kept.isCancelled());
}

TEST(OperationQueueTest, WaitingIsRefusedFromInsideAndCoversWorkAddedMeanwhile) {
    auto queue = qn::OperationQueue::create("wait", 1);
    std::atomic<bool> followUpRan{false};  // also proves that the checks inside ran
    auto op = qn::BlockOperation::create([&](const qn::OuterOperation& self) {
        EXPECT_EQ(qn::OperationQueue::currentQueue(), queue);
        EXPECT_THROW(queue->waitUntilAllOperationsAreFinished(),
                     qn::InternalInconsistencyException);
        EXPECT_THROW(self.lock()->waitUntilFinished(), qn::InternalInconsistencyException);
        queue->addOperationWithBlock([&] { followUpRan = true; });
    });
    queue->addOperation(op);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(followUpRan);
    EXPECT_EQ(qn::OperationQueue::currentQueue(), nullptr);

    EXPECT_THROW(queue->addOperation(op), qn::InternalInconsistencyException);
    EXPECT_THROW(op->start(), qn::InternalInconsistencyException);
}

TEST(OperationQueueTest, CancelledBlocksAreReleasedOrphanedQueuesRunOnNestedSelfWaitsAreRefused) {
    auto queue = qn::OperationQueue::create("release", 1);
    std::latch release(1);
    queue->addOperationWithBlock([&] { release.wait(); });
    auto captured = std::make_shared<int>(0);
    std::weak_ptr<int> watch = captured;
    auto dropped = queue->addOperationWithBlock([captured] {});
    captured.reset();
    queue->cancelAllOperations();
    // A throwing operation ends its worker's run of the queue, but not the queue.
    auto throwing = queue->addOperationWithBlock([] { throw std::runtime_error("failed"); });
    auto last = queue->addOperationWithBlock([] {});
    queue.reset();  // nobody holds the queue now, yet it goes on
    release.count_down();
    last->waitUntilFinished();
    EXPECT_FALSE(last->isCancelled());
    EXPECT_TRUE(dropped->isFinished() && throwing->isFinished());
    EXPECT_TRUE(watch.expired());  // the caller still holds the operation, not what it captured

    std::shared_ptr<qn::BlockOperation> outer;
    bool innerRan = false;
    outer = qn::BlockOperation::create([&] {
        qn::BlockOperation::create([&] {
            innerRan = true;
            EXPECT_THROW(outer->waitUntilFinished(), qn::InternalInconsistencyException);
        })->start();
    });
    outer->start();
    EXPECT_TRUE(innerRan);
}

}  // namespace
