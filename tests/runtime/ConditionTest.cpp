#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "qn/Condition.h"

using namespace std::chrono_literals;

namespace {

TEST(ConditionTest, WaiterSeesStateSignalledFromAnotherThreadAndTimesOutOtherwise) {
    qn::Condition condition;
    bool ready = false;
    std::thread signaller([&] {
        std::lock_guard lock(condition);
        ready = true;
        condition.signal();
    });
    condition.lock();
    while (!ready) {
        condition.wait();
    }
    condition.unlock();
    signaller.join();

    // Nobody signals now: the wait ends at its deadline (a spurious wake-up just waits again).
    const auto deadline = std::chrono::steady_clock::now() + 10ms;
    std::unique_lock lock(condition);
    while (condition.waitUntil(deadline)) {
    }
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
}

}  // namespace
