#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace qn {

/// The main thread's work queue. Everything the library tells its host (notifications, download
/// callbacks) runs here, and the metadata query is started and stopped here.
///
/// The main thread is, by default, the process's initial thread; a host whose event loop runs on
/// another thread calls `adoptCurrentThread()` once from that thread before using the library.
/// The host drives the queue on the main thread in one of these ways:
///   - `run()` until some code calls `stop()`;
///   - `runFor(duration)` or `runUntil(predicate, timeout)`, as tests and command-line tools do;
///   - from its own event loop: watch `fileDescriptor()` for readability and call `drain()`.
///
/// `async` and `sync` may be called from any thread. Work handed over with `async` runs in the
/// order of hand-over. An exception thrown by such work leaves the pumping call (`run`, `runFor`,
/// `runUntil`, `drain`) that ran it; the queue stays usable.
class MainQueue {
public:
    MainQueue() = delete;

    /// True on the main thread.
    static bool isMainThread();

    /// Makes the calling thread the main thread. Call once, before any work is handed over.
    static void adoptCurrentThread();

    /// Hands `work` over to the main thread without waiting. Empty work is refused with
    /// `InternalInconsistencyException`, as by `asyncAfter`.
    static void async(std::function<void()> work);

    /// Hands `work` over to the main thread once `delay` has passed (a run-loop timer). Timers
    /// due at the same time run in the order they were set; a due timer runs after the work
    /// already pending.
    static void asyncAfter(std::chrono::steady_clock::duration delay, std::function<void()> work);

    /// Runs `work` on the main thread and returns its result: at once when called on the main
    /// thread, otherwise by handing it over and waiting until the main thread has run it. An
    /// exception thrown by `work` is rethrown to the caller. Called from another thread, it waits
    /// for as long as the main thread does not pump; never call it while holding a lock that
    /// main-thread work may need.
    template <class F>
    static std::invoke_result_t<F&> sync(F&& work);

    /// Pumps until `stop()` is called. A `stop()` that no `run()` consumed (it came while nothing
    /// pumped, or while `runFor`, `runUntil` or `drain` pumped) ends the next `run()` at once.
    static void run();

    /// Makes the running `run()` return after the work it is running. Any thread.
    static void stop();

    /// Pumps for `duration`, running work as it arrives.
    static void runFor(std::chrono::steady_clock::duration duration);

    /// Pumps until `predicate` is true or `timeout` has passed; returns the predicate's last
    /// answer. The predicate is asked on the main thread, before each piece of work and at least
    /// every few milliseconds, so it may watch state that other threads change.
    static bool runUntil(const std::function<bool()>& predicate,
                         std::chrono::steady_clock::duration timeout);

    /// Runs the work that is pending now (not work handed over meanwhile) without blocking;
    /// returns how many pieces ran.
    static std::size_t drain();

    /// A descriptor that is readable while work is pending or a timer is due, for hosts that
    /// drive the queue from their own event loop: poll it for input, then call `drain()`. Do not
    /// read or close it.
    static int fileDescriptor();

private:
    static void syncImpl(const std::function<void()>& work);
    static void requireMainThread(const char* operation);
    static void requireWork(const std::function<void()>& work, const char* operation);
};

template <class F>
std::invoke_result_t<F&> MainQueue::sync(F&& work) {
    using R = std::invoke_result_t<F&>;
    if (isMainThread()) {
        return work();
    }
    if constexpr (std::is_void_v<R>) {
        syncImpl([&work] { work(); });
    } else if constexpr (std::is_reference_v<R>) {
        std::remove_reference_t<R>* result = nullptr;
        syncImpl([&work, &result] { result = &work(); });
        return static_cast<R>(*result);
    } else {
        std::optional<R> result;
        syncImpl([&work, &result] { result.emplace(work()); });
        return std::move(*result);
    }
}

}  // namespace qn
