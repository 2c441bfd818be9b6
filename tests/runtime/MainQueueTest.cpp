#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qn/Exception.h"
#include "qn/MainQueue.h"

using namespace std::chrono_literals;

namespace {

bool descriptorReadable() {
    pollfd fd{qn::MainQueue::fileDescriptor(), POLLIN, 0};
    return poll(&fd, 1, 0) == 1 && (fd.revents & POLLIN);
}

TEST(MainQueueTest, AsyncFromSeveralThreadsRunsOnMainThreadInHandOverOrder) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::vector<std::vector<int>> seen(kThreads);  // touched on the main thread only
    int handled = 0;                               // likewise
    std::atomic<int> offMain{0};
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                qn::MainQueue::async([&, t, i] {
                    offMain += qn::MainQueue::isMainThread() ? 0 : 1;
                    seen[t].push_back(i);
                    ++handled;
                });
            }
        });
    }
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return handled == kThreads * kPerThread; }, 30s));
    threads.clear();  // joins them
    EXPECT_EQ(offMain, 0);
    std::vector<int> inOrder(kPerThread);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (const auto& s : seen) {
        EXPECT_EQ(s, inOrder);
    }

    // A hand-over that happens after another (here: made from inside it) runs after it.
    std::vector<int> order;
    qn::MainQueue::async([&] {
        order.push_back(1);
        qn::MainQueue::async([&] { order.push_back(3); });
    });
    qn::MainQueue::async([&] { order.push_back(2); });
    qn::MainQueue::runUntil([&] { return order.size() == 3; }, 5s);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(MainQueueTest, SyncWaitsForTheMainThreadOrRunsInlineOnItAndOnlyTheMainThreadPumps) {
    std::atomic<bool> done{false};
    int result = 0;
    bool threwOnWorker = false;
    std::thread worker([&] {
        result = qn::MainQueue::sync([] { return qn::MainQueue::isMainThread() ? 42 : -1; });
        try {
            qn::MainQueue::sync([] { throw std::runtime_error("boom"); });
        } catch (const std::runtime_error& e) {
            threwOnWorker = std::string(e.what()) == "boom";
        }
        EXPECT_FALSE(qn::MainQueue::isMainThread());
        EXPECT_THROW(qn::MainQueue::drain(), qn::InternalInconsistencyException);
        EXPECT_THROW(qn::MainQueue::runFor(1ms), qn::InternalInconsistencyException);
        done = true;
    });
    EXPECT_TRUE(qn::MainQueue::runUntil([&] { return done.load(); }, 10s));
    worker.join();
    EXPECT_EQ(result, 42);
    EXPECT_TRUE(threwOnWorker);

    // On the main thread: inline, ahead of pending work.
    std::vector<int> order;
    qn::MainQueue::async([&] { order.push_back(1); });
    qn::MainQueue::sync([&] { order.push_back(0); });
    EXPECT_EQ(order, (std::vector<int>{0}));
    qn::MainQueue::drain();
    EXPECT_EQ(order, (std::vector<int>{0, 1}));
}

TEST(MainQueueTest, DescriptorIsReadableExactlyWhileWorkIsPending) {
    qn::MainQueue::drain();
    EXPECT_FALSE(descriptorReadable());
    int ran = 0;
    qn::MainQueue::async([&] {
        ++ran;
        // Handed over during the drain: waits for the next one, and keeps the descriptor ready.
        qn::MainQueue::async([&] { ++ran; });
    });
    EXPECT_TRUE(descriptorReadable());
    EXPECT_EQ(qn::MainQueue::drain(), 1u);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(descriptorReadable());
    EXPECT_EQ(qn::MainQueue::drain(), 1u);
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(descriptorReadable());
}

TEST(MainQueueTest, RunReturnsOnStopRunUntilOnItsPredicateAndExceptionsLeaveOnlyThePump) {
    std::thread stopper([] { qn::MainQueue::async([] { qn::MainQueue::stop(); }); });
    qn::MainQueue::run();
    stopper.join();

    // A stop that arrives while nothing pumps is not lost.
    qn::MainQueue::stop();
    qn::MainQueue::run();

    bool secondRan = false;
    qn::MainQueue::async([] { throw std::runtime_error("from work"); });
    qn::MainQueue::async([&] { secondRan = true; });
    EXPECT_THROW(qn::MainQueue::drain(), std::runtime_error);
    EXPECT_FALSE(secondRan);
    qn::MainQueue::drain();
    EXPECT_TRUE(secondRan);

    std::atomic<bool> flag{false};
    std::thread setter([&] {
        std::this_thread::sleep_for(20ms);
        flag = true;  // no main-queue work: the predicate must still be asked again
    });
    EXPECT_TRUE(qn::MainQueue::runUntil([&] { return flag.load(); }, 10s));
    setter.join();
    EXPECT_FALSE(qn::MainQueue::runUntil([] { return false; }, 10ms));
}

TEST(MainQueueTest, TimersRunWhenDueInOrderAndWakeTheDescriptor) {
    qn::MainQueue::drain();
    std::vector<int> order;
    qn::MainQueue::asyncAfter(60ms, [&] { order.push_back(3); });
    qn::MainQueue::asyncAfter(30ms, [&] { order.push_back(1); });
    qn::MainQueue::asyncAfter(30ms, [&] { order.push_back(2); });  // same time: set later, later
    qn::MainQueue::asyncAfter(std::chrono::steady_clock::duration::max(),
                              [&] { order.push_back(9); });
    EXPECT_FALSE(descriptorReadable());
    EXPECT_EQ(qn::MainQueue::drain(), 0u);

    // A host's event loop: wait on the descriptor, then drain.
    pollfd fd{qn::MainQueue::fileDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&fd, 1, 5000), 1);
    EXPECT_GE(qn::MainQueue::drain(), 1u);
    EXPECT_TRUE(qn::MainQueue::runUntil([&] { return order.size() == 3; }, 5s));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(descriptorReadable());

    EXPECT_THROW(qn::MainQueue::async({}), qn::InternalInconsistencyException);
    int& first = qn::MainQueue::sync([&]() -> int& { return order.front(); });
    EXPECT_EQ(&first, &order.front());
}

}  // namespace
