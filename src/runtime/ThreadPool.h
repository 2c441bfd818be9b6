#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "qn/QualityOfService.h"

namespace qn {

/// The worker threads behind the global dispatch queues and every operation queue. Private to
/// the runtime.
///
/// Each submitted task is guaranteed a thread: a new worker is started whenever more tasks wait
/// than workers are idle (up to `kMaxThreads`), so a task that blocks until another task has run
/// cannot deadlock the pool. Workers beyond `kKeptThreads` end after `kIdleTimeout` without work.
/// Waiting tasks are taken by quality of service, highest first, and in submission order within
/// one quality of service.
///
/// Locking: `mutex_` guards every field; it is never held while a task runs.
class ThreadPool {
public:
    static ThreadPool& shared();

    void submit(QualityOfService qos, std::function<void()> task);

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Beyond this many workers, tasks wait for a worker to become free.
    static constexpr std::size_t kMaxThreads = 64;

private:
    static constexpr std::size_t kKeptThreads = 2;
    static constexpr auto kIdleTimeout = std::chrono::seconds(5);
    static constexpr std::size_t kBands = 5;

    ThreadPool() = default;
    static std::size_t bandOf(QualityOfService qos);
    void workerLoop();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::array<std::deque<std::function<void()>>, kBands> waiting_;  // index 0 is the most urgent
    std::size_t waitingCount_ = 0;
    std::size_t idleThreads_ = 0;
    std::size_t threads_ = 0;
};

}  // namespace qn
