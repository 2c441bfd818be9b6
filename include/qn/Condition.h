#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace qn {

/// A lock with a condition: `lock`, then `wait` in a loop that re-tests the awaited state, then
/// `unlock`. Another thread changes the state and calls `signal` (wakes one waiter) or
/// `broadcast` (wakes all), with or without holding the lock. Waits may wake spuriously, so
/// always wait in a loop. Satisfies BasicLockable, so `std::unique_lock<Condition>` works.
/// Any thread.
class Condition {
public:
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

    /// Releases the lock, waits for a signal and takes the lock again. Call with the lock held.
    void wait() {
        std::unique_lock lock(mutex_, std::adopt_lock);
        condition_.wait(lock);
        lock.release();
    }

    /// Like `wait`, but gives up at `deadline`; false when the deadline passed.
    bool waitUntil(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_, std::adopt_lock);
        const bool signalled = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return signalled;
    }

    void signal() { condition_.notify_one(); }
    void broadcast() { condition_.notify_all(); }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
};

}  // namespace qn
