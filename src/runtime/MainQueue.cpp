#include "qn/MainQueue.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

#include "qn/Exception.h"

namespace qn {
namespace {

using Clock = std::chrono::steady_clock;

// How often `runUntil` asks its predicate when no work arrives.
constexpr auto kPredicatePollInterval = std::chrono::milliseconds(2);

// `now + delay`, saturated instead of overflowing for "forever" delays.
Clock::time_point deadlineAfter(Clock::duration delay) {
    const auto now = Clock::now();
    if (delay <= Clock::duration::zero()) {
        return now;
    }
    return delay > Clock::time_point::max() - now ? Clock::time_point::max() : now + delay;
}

pid_t currentThreadId() {
    static thread_local const pid_t tid = gettid();
    return tid;
}

/// The queue's state. `mutex_` guards `pending_`, `timers_` and `stopRequested_`; the eventfd's
/// counter and the timerfd's setting are only changed under it, so the eventfd is readable
/// exactly while `pending_` is non-empty and the timerfd fires when the earliest timer is due.
/// The descriptor handed to hosts is an epoll set of the two.
class State {
public:
    static State& shared() {
        // Leaked on purpose: worker threads may hand work over while the process exits.
        static State* state = new State;
        return *state;
    }

    std::atomic<pid_t> mainThread{getpid()};
    const int eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const int timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const int pollFd = makePollSet(eventFd, timerFd);

    void push(std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            pushLocked(std::move(work));
        }
        // Outside the lock, so that the main thread does not wake only to wait for the mutex.
        wake_.notify_one();
    }

    void schedule(Clock::time_point due, std::function<void()> work) {
        std::lock_guard lock(mutex_);
        const bool earliest = timers_.empty() || due < timers_.begin()->first;
        timers_.emplace(due, std::move(work));  // after timers due at the same time
        if (earliest) {
            armTimerLocked();
            wake_.notify_one();
        }
    }

    /// Waits until work is pending, a stop is requested (when `honourStop`) or `deadline`
    /// passes; timers that fall due meanwhile become pending work. Takes the first piece of
    /// work, if any.
    std::function<void()> take(Clock::time_point deadline, bool honourStop, bool* stopped) {
        std::unique_lock lock(mutex_);
        for (;;) {
            promoteDueTimersLocked();
            if (honourStop && stopRequested_) {
                stopRequested_ = false;
                *stopped = true;
                return {};
            }
            if (!pending_.empty() || Clock::now() >= deadline) {
                return popLocked();
            }
            const auto wakeAt =
                timers_.empty() ? deadline : std::min(deadline, timers_.begin()->first);
            if (wakeAt == Clock::time_point::max()) {
                wake_.wait(lock);
            } else {
                wake_.wait_until(lock, wakeAt);
            }
        }
    }

    std::function<void()> tryTake() {
        std::lock_guard lock(mutex_);
        promoteDueTimersLocked();
        return popLocked();
    }

    std::size_t pendingCount() {
        std::lock_guard lock(mutex_);
        promoteDueTimersLocked();
        return pending_.size();
    }

    void requestStop() {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
        wake_.notify_all();
    }

private:
    State() = default;

    static int makePollSet(int eventFd, int timerFd) {
        const int pollFd = epoll_create1(EPOLL_CLOEXEC);
        for (const int fd : {eventFd, timerFd}) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = fd;
            epoll_ctl(pollFd, EPOLL_CTL_ADD, fd, &event);
        }
        return pollFd;
    }

    void pushLocked(std::function<void()> work) {
        if (pending_.empty()) {
            const std::uint64_t one = 1;
            [[maybe_unused]] auto written = write(eventFd, &one, sizeof one);
        }
        pending_.push_back(std::move(work));
    }

    void promoteDueTimersLocked() {
        if (timers_.empty() || timers_.begin()->first > Clock::now()) {
            return;
        }
        const auto now = Clock::now();
        while (!timers_.empty() && timers_.begin()->first <= now) {
            pushLocked(std::move(timers_.begin()->second));
            timers_.erase(timers_.begin());
        }
        armTimerLocked();
    }

    // Sets the timerfd to the earliest timer (or disarms it), which also clears its readiness.
    void armTimerLocked() {
        itimerspec setting{};
        if (!timers_.empty()) {
            const auto due = timers_.begin()->first.time_since_epoch();
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due);
            setting.it_value.tv_sec = seconds.count();
            setting.it_value.tv_nsec =
                std::chrono::duration_cast<std::chrono::nanoseconds>(due - seconds).count();
            if (setting.it_value.tv_sec == 0 && setting.it_value.tv_nsec == 0) {
                setting.it_value.tv_nsec = 1;  // all zero would disarm
            }
        }
        timerfd_settime(timerFd, TFD_TIMER_ABSTIME, &setting, nullptr);
    }

    std::function<void()> popLocked() {
        if (pending_.empty()) {
            return {};
        }
        auto work = std::move(pending_.front());
        pending_.pop_front();
        if (pending_.empty()) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = read(eventFd, &count, sizeof count);
        }
        return work;
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> pending_;
    std::multimap<Clock::time_point, std::function<void()>> timers_;
    bool stopRequested_ = false;
};

}  // namespace

bool MainQueue::isMainThread() {
    return currentThreadId() == State::shared().mainThread.load(std::memory_order_relaxed);
}

void MainQueue::adoptCurrentThread() {
    State::shared().mainThread.store(currentThreadId());
}

void MainQueue::requireWork(const std::function<void()>& work, const char* operation) {
    if (!work) {
        throw InternalInconsistencyException(std::string("MainQueue::") + operation +
                                             ": empty work.");
    }
}

void MainQueue::requireMainThread(const char* operation) {
    if (!isMainThread()) {
        throw InternalInconsistencyException(std::string("MainQueue::") + operation +
                                             " must be called on the main thread.");
    }
}

void MainQueue::async(std::function<void()> work) {
    requireWork(work, "async");
    State::shared().push(std::move(work));
}

void MainQueue::asyncAfter(Clock::duration delay, std::function<void()> work) {
    requireWork(work, "asyncAfter");
    State::shared().schedule(deadlineAfter(delay), std::move(work));
}

void MainQueue::syncImpl(const std::function<void()>& work) {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::exception_ptr failure;
    async([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        // Notify under the lock: the waiter destroys `done` as soon as it sees `finished`.
        std::lock_guard lock(mutex);
        finished = true;
        done.notify_one();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void MainQueue::run() {
    requireMainThread("run");
    for (;;) {
        bool stopped = false;
        auto work = State::shared().take(Clock::time_point::max(), true, &stopped);
        if (stopped) {
            return;
        }
        if (work) {
            work();
        }
    }
}

void MainQueue::stop() {
    State::shared().requestStop();
}

void MainQueue::runFor(Clock::duration duration) {
    runUntil([] { return false; }, duration);
}

bool MainQueue::runUntil(const std::function<bool()>& predicate, Clock::duration timeout) {
    requireMainThread("runUntil");
    const auto deadline = deadlineAfter(timeout);
    for (;;) {
        if (predicate()) {
            return true;
        }
        const auto now = Clock::now();
        if (now >= deadline) {
            return false;
        }
        bool stopped = false;
        auto work =
            State::shared().take(std::min(deadline, now + kPredicatePollInterval), false, &stopped);
        if (work) {
            work();
        }
    }
}

std::size_t MainQueue::drain() {
    requireMainThread("drain");
    auto& state = State::shared();
    const std::size_t count = state.pendingCount();
    std::size_t ran = 0;
    while (ran < count) {
        auto work = state.tryTake();
        if (!work) {
            break;
        }
        ++ran;
        work();
    }
    return ran;
}

int MainQueue::fileDescriptor() {
    return State::shared().pollFd;
}

}  // namespace qn
