#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <vector>

#include "qn/Exception.h"
#include "qn/OperationQueue.h"

namespace {

// Tracks how many operations run at once and the highest number seen.
struct Concurrency {
    std::atomic<int> now{0};
    std::atomic<int> peak{0};
    void enter() {
        const int n = ++now;
        int seen = peak.load();
        while (n > seen && !peak.compare_exchange_weak(seen, n)) {
        }
    }
    void leave() { --now; }
};

TEST(OperationQueueTest, SerialQueueRunsOneOperationAtATimeInOrder) {
    auto queue = qn::OperationQueue::create("serial", 1);
    Concurrency concurrency;
    std::vector<int> order;  // written by one operation at a time
    for (int i = 0; i < 200; ++i) {
        queue->addOperationWithBlock([&, i] {
            concurrency.enter();
            order.push_back(i);
            concurrency.leave();
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(concurrency.peak, 1);
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(order[i], i);
    }
    EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueueTest, ConcurrentQueueHonoursItsLimit) {
    auto queue = qn::OperationQueue::create("limited", 2);
    Concurrency concurrency;
    std::latch twoRunning(2);
    for (int i = 0; i < 8; ++i) {
        queue->addOperationWithBlock([&, i] {
            concurrency.enter();
            if (i < 2) {
                twoRunning.arrive_and_wait();  // only finishes if two really run at once
            }
            concurrency.leave();
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(concurrency.peak, 2);
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

    // The queue goes on with operations added after the cancellation.
    auto after = queue->addOperationWithBlock([&] { ++laterRuns; });
    after->waitUntilFinished();
    EXPECT_EQ(laterRuns, 1);
    EXPECT_FALSE(after->isCancelled());
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
    op->setQualityOfService(qn::QualityOfService::Utility);
    queue->addOperation(op);
    op->cancel();  // cancelled while it may already run: main() either never starts or sees it
    release.count_down();
    op->waitUntilFinished();
    EXPECT_EQ(op->qualityOfService(), qn::QualityOfService::Utility);
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
    std::atomic<bool> refused{false};
    std::atomic<bool> selfWaitRefused{false};
    std::atomic<bool> currentIsQueue{false};
    std::atomic<bool> followUpRan{false};
    auto op = qn::BlockOperation::create([&](const qn::OuterOperation& self) {
        currentIsQueue = qn::OperationQueue::currentQueue() == queue;
        try {
            queue->waitUntilAllOperationsAreFinished();
        } catch (const qn::InternalInconsistencyException&) {
            refused = true;
        }
        try {
            self.lock()->waitUntilFinished();
        } catch (const qn::InternalInconsistencyException&) {
            selfWaitRefused = true;
        }
        queue->addOperationWithBlock([&] { followUpRan = true; });
    });
    queue->addOperation(op);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(refused);
    EXPECT_TRUE(selfWaitRefused);
    EXPECT_TRUE(currentIsQueue);
    EXPECT_TRUE(followUpRan);
    EXPECT_EQ(qn::OperationQueue::currentQueue(), nullptr);

    EXPECT_THROW(queue->addOperation(op), qn::InternalInconsistencyException);
    EXPECT_THROW(op->start(), qn::InternalInconsistencyException);
}

TEST(OperationQueueTest, QueueKeepsRunningAfterItsOwnerLetsGo) {
    auto queue = qn::OperationQueue::create("orphan", 1);
    std::latch release(1);
    queue->addOperationWithBlock([&] { release.wait(); });
    auto last = queue->addOperationWithBlock([] {});
    queue.reset();
    release.count_down();
    last->waitUntilFinished();
    EXPECT_TRUE(last->isFinished());
    EXPECT_FALSE(last->isCancelled());
}

}  // namespace
