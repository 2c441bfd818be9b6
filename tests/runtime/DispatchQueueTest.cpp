#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qn/DispatchQueue.h"
#include "qn/MainQueue.h"
#include "runtime/ThreadPool.h"

namespace {

// Pool tasks may still be leaving a latch's wait() when the test's own wait returns, so what they
// touch is on the heap and owned by the tasks too.

TEST(DispatchQueueTest, WorkThatBlocksOnLaterWorkDoesNotStarveIt) {
    // Each task waits until all have started: only a pool that gives every waiting task a
    // worker finishes this.
    constexpr int kTasks = 16;
    struct Latches {
        std::latch allStarted{kTasks};
        std::latch allDone{kTasks};
        std::atomic<int> onMainThread{0};
    };
    auto latches = std::make_shared<Latches>();
    for (int i = 0; i < kTasks; ++i) {
        qn::DispatchQueue::global(qn::QualityOfService::Utility).async([latches] {
            latches->onMainThread += qn::MainQueue::isMainThread();
            latches->allStarted.arrive_and_wait();
            latches->allDone.count_down();
        });
    }
    latches->allDone.wait();
    EXPECT_EQ(latches->onMainThread, 0);
}

TEST(DispatchQueueTest, WhenEveryWorkerIsBusyTheMostUrgentWaitingWorkGoesFirst) {
    constexpr int kWorkers = static_cast<int>(qn::ThreadPool::kMaxThreads);
    struct State {
        std::latch busy{kWorkers};
        std::latch releaseFirst{1};
        std::latch releaseRest{1};
        std::latch done{2};
        std::mutex mutex;
        std::vector<std::string> order;
        void record(const char* what) {
            std::lock_guard lock(mutex);
            order.emplace_back(what);
        }
    };
    auto state = std::make_shared<State>();
    for (int i = 0; i < kWorkers; ++i) {
        qn::ThreadPool::shared().submit(qn::QualityOfService::Default, [state, i] {
            state->busy.count_down();
            (i == 0 ? state->releaseFirst : state->releaseRest).wait();
        });
    }
    state->busy.wait();

    qn::DispatchQueue::global(qn::QualityOfService::Background).async([state] {
        state->record("background");
        state->done.count_down();
    });
    qn::DispatchQueue::global(qn::QualityOfService::UserInteractive).async([state] {
        state->record("user-interactive");
        state->releaseRest.count_down();
        state->done.count_down();
    });
    state->releaseFirst.count_down();  // frees exactly one worker
    state->done.wait();
    std::lock_guard lock(state->mutex);
    EXPECT_EQ(state->order, (std::vector<std::string>{"user-interactive", "background"}));
}

}  // namespace
