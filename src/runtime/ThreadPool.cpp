#include "ThreadPool.h"

#include <pthread.h>

#include <exception>
#include <system_error>
#include <thread>

#include "qn/Exception.h"
#include "qn/Logger.h"

namespace qn {

ThreadPool& ThreadPool::shared() {
    // Leaked on purpose: detached workers may still be finishing a task while the process exits.
    static ThreadPool* pool = new ThreadPool;
    return *pool;
}

std::size_t ThreadPool::bandOf(QualityOfService qos) {
    switch (qos) {
        case QualityOfService::UserInteractive:
            return 0;
        case QualityOfService::UserInitiated:
            return 1;
        case QualityOfService::Default:
            return 2;
        case QualityOfService::Utility:
            return 3;
        case QualityOfService::Background:
            return 4;
    }
    return 2;
}

void ThreadPool::submit(QualityOfService qos, std::function<void()> task) {
    if (!task) {
        throw InternalInconsistencyException("ThreadPool::submit: empty task.");
    }
    std::unique_lock lock(mutex_);
    auto& band = waiting_[bandOf(qos)];
    band.push_back(std::move(task));
    ++waitingCount_;
    if (waitingCount_ > idleThreads_ && threads_ < kMaxThreads) {
        try {
            std::thread([this] { workerLoop(); }).detach();
            ++threads_;
            return;
        } catch (const std::system_error&) {
            // Out of threads for now: the workers there are will take the task in turn. With
            // none at all, nothing ever would, so the caller must hear of it.
            if (threads_ == 0) {
                band.pop_back();
                --waitingCount_;
                throw;
            }
        }
    }
    // Told after the lock is let go: a worker woken while it is still held would at once sleep
    // again on the mutex, and waking a thread is the dearest part of a hand-over.
    lock.unlock();
    wake_.notify_one();
}

void ThreadPool::workerLoop() {
    pthread_setname_np(pthread_self(), "qn-worker");
    std::unique_lock lock(mutex_);
    for (;;) {
        while (waitingCount_ == 0) {
            ++idleThreads_;
            const bool woken =
                wake_.wait_for(lock, kIdleTimeout, [this] { return waitingCount_ > 0; });
            --idleThreads_;
            if (!woken && threads_ > kKeptThreads) {
                --threads_;
                return;
            }
        }
        std::function<void()> task;
        for (auto& band : waiting_) {
            if (!band.empty()) {
                task = std::move(band.front());
                band.pop_front();
                break;
            }
        }
        --waitingCount_;
        lock.unlock();
        try {
            task();
        } catch (const std::exception& e) {
            Logger::named("qn").error("Dispatched work threw an exception: {}", e.what());
        } catch (...) {
            Logger::named("qn").error("Dispatched work threw an exception of unknown type.");
        }
        task = nullptr;  // whatever the task captured is released outside the lock
        lock.lock();
    }
}

}  // namespace qn
